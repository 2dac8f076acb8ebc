// vorn trace: what the agent says it does.
#include <algorithm>
#include <chrono>
#include <thread>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "inspect/Errors.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"

namespace Vorn {

namespace {

constexpr std::chrono::milliseconds kFollowPause{200};

struct TraceWishes {
    std::string filter;
    bool follow = false;
    std::size_t count = 100;
};

/// No handle has a comma or a slash in its name: what has one was meant as two rules.
void requireRules(const std::string& filter) {
    for (std::size_t begin = 0; begin < filter.size();) {
        const std::size_t end = std::min(filter.find(';', begin), filter.size());
        const std::string rule = filter.substr(begin, end - begin);
        const std::size_t slash = rule.rfind('/');
        const std::string handles = rule.substr(0, slash);
        if (handles.find_first_of(",/") != std::string::npos) {
            throw Inspect::QuestionError(fmt::format(
                "'{}' can match no handle; separate rules by ';', as in 'Group*/1-3;Policy*/1'",
                rule));
        }
        begin = end + 1;
    }
}

int showFilter(Session& session, const std::optional<std::string>& wanted) {
    if (wanted)
        requireRules(*wanted);
    Json request{{"cmd", "traceFilter"}};
    if (wanted)
        request["filter"] = *wanted;
    const Json answer = session.askAgent(request);
    if (session.json) {
        return session.printed({{"filter", answer.value("filter", Json())},
                                {"handles", answer.value("handles", Json::array())}});
    }
    const std::string filter = stringIn(answer, "filter");
    session.out().line("filter: " + (filter.empty() ? "none" : filter));
    if (!wanted) {
        session.out().line("handles:");
        for (const Json& handle : answer.value("handles", Json::array()))
            session.out().line("  " +
                               (handle.is_string() ? handle.get<std::string>() : handle.dump()));
    }
    return kDone;
}

std::string timeText(const Json& line) {
    const auto time = line.find("time");
    if (time == line.end() || !time->is_number())
        return time == line.end() ? std::string() : time->dump();
    const double seconds = time->get<double>();
    const auto whole = static_cast<std::time_t>(seconds);
    return fmt::format("{:%H:%M:%S}.{:06}", fmt::gmtime(whole),
                       static_cast<long>((seconds - static_cast<double>(whole)) * 1e6));
}

void printTrace(Session& session, const Json& line) {
    if (session.json) {
        session.out().raw(line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
        return;
    }
    session.out().line(fmt::format("{} {} {} {}", timeText(line), numberText(line, "level"),
                                   stringIn(line, "handle"), stringIn(line, "text")));
}

/// JSON comes as a line for each message here: following has no end.
int tailTraces(Session& session, const TraceWishes& wishes) {
    std::uint64_t after = 0;
    bool isFirst = true;
    do {
        if (!isFirst)
            std::this_thread::sleep_for(kFollowPause);
        const Json answer =
            session.askAgent(isFirst ? Json{{"cmd", "traces"}, {"newest", wishes.count}}
                                     : Json{{"cmd", "traces"}, {"after", after}});
        const Json lines = answer.value("lines", Json::array());
        const std::size_t from =
            isFirst && lines.size() > wishes.count ? lines.size() - wishes.count : 0;
        if (!isFirst && answer.value("lost", 0) != 0)
            session.out().note(fmt::format("({} lines lost)", answer.value("lost", 0)));
        for (std::size_t i = from; i < lines.size(); ++i)
            printTrace(session, lines[i]);
        std::fflush(stdout);
        after = answer.value("last", after);
        isFirst = false;
    } while (wishes.follow);
    return kDone;
}

}  // namespace

void addTraceCommands(CLI::App& app, Session& session) {
    static TraceWishes wishes;
    CLI::App* const trace =
        app.add_subcommand("trace", "what the agent says it does, step by step");
    trace->require_subcommand(1)->fallthrough()->group("Tracing");
    CLI::App* const set = addCommand(*trace, session, "set", "which traces the agent makes",
                                     [&session] { return showFilter(session, wishes.filter); });
    set->add_option(
           "FILTER", wishes.filter,
           "rules HANDLES/LEVELS, separated by ';', such as 'Group*/1-3,8;Policy*/1'; '' for none")
        ->required();
    addCommand(*trace, session, "show", "the filter, and what can be traced",
               [&session] { return showFilter(session, std::nullopt); });
    CLI::App* const tail =
        addCommand(*trace, session, "tail", "the last traces; with --json, a document a line",
                   [&session] { return tailTraces(session, wishes); });
    tail->add_flag("--follow,-f", wishes.follow, "go on until interrupted");
    tail->add_option("--count,-n", wishes.count, "lines at most to begin with (100)");
}

}  // namespace Vorn
