// vorn resource and vorn metrics: single requests to the agent.
#include <fmt/format.h>

#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"

#include "inspect/Errors.h"

namespace Vorn {

namespace {

struct ResourceWish {
    std::string pool;
    std::string key;
};

bool isRequest(const std::string& text) {
    const std::size_t slash = text.find('/');
    constexpr std::string_view kDigits = "0123456789abcdefABCDEF";
    return slash != std::string::npos && slash != 0 && slash + 1 != text.size() &&
           text.find_first_not_of(kDigits) == slash &&
           text.find_first_not_of(kDigits, slash + 1) == std::string::npos;
}

int changeResource(Session& session, const std::string& command, const ResourceWish& wish) {
    const auto pool = Inspect::poolFromText(wish.pool);
    if (!pool)
        throw Inspect::QuestionError(
            fmt::format("'{}' is no pool; expected counter or policer", wish.pool));
    if (!isRequest(wish.key)) {
        throw Inspect::QuestionError(
            fmt::format("'{}' is no request; expected one such as 0000002a/1", wish.key));
    }
    session.askAgent({{"cmd", command}, {"table", nameOf(*pool)}, {"key", wish.key}});
    if (session.json)
        return session.printed({{"done", command}, {"pool", nameOf(*pool)}, {"key", wish.key}});
    session.out().line(fmt::format("{} {}: {}", nameOf(*pool), wish.key, command));
    return kDone;
}

int printMetrics(Session& session, bool prometheus) {
    const std::string format = prometheus ? "prometheus" : "openmetrics";
    const std::string text =
        stringIn(session.askAgent({{"cmd", "metrics"}, {"format", format}}), "text");
    if (session.json)
        return session.printed({{"format", format}, {"text", text}});
    session.out().raw(text);
    return kDone;
}

}  // namespace

void addResourceCommands(CLI::App& app, Session& session) {
    static ResourceWish wish;
    static bool prometheus = false;
    CLI::App* const resource =
        app.add_subcommand("resource", "move, fail or restore a counter or policer");
    resource->require_subcommand(1)->fallthrough()->group("Changing");
    const auto add = [&](const std::string& name, const char* help) {
        CLI::App* const command = addCommand(*resource, session, name, help, [&session, name] {
            return changeResource(session, name, wish);
        });
        command->add_option("POOL", wish.pool, "counter or policer")->required();
        command->add_option("KEY", wish.key, "request, such as 0000002a/1")->required();
    };
    add("move", "give a request another index");
    add("fail", "take a resource for lost; it keeps its index");
    add("restore", "end a failure");
    CLI::App* const metrics =
        addCommand(app, session, "metrics", "figures for monitoring (needs the agent)",
                   [&session] { return printMetrics(session, prometheus); });
    metrics->group("Looking")->add_flag("--prometheus", prometheus,
                                        "in the older text format, in place of OpenMetrics");
}

}  // namespace Vorn
