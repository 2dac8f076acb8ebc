// vorn check: what does not agree, why, and what mends it.
#include <chrono>
#include <map>
#include <thread>

#include <fmt/format.h>

#include "inspect/Check.h"
#include "tools/vorn/Load.h"
#include "tools/vorn/Session.h"

namespace Vorn {

namespace {

using Inspect::CheckResult;
using Inspect::Difference;
using Inspect::Mend;

struct CheckWishes {
    bool repair = false;
    bool yes = false;
    std::size_t most = 20;
    unsigned settle_ms = 300;
};

void printKind(const Output& out, Difference::Kind kind,
               const std::vector<const Difference*>& differences, std::size_t most) {
    out.line();
    out.line(out.painted(Colour::red, fmt::format("{} ({})", nameOf(kind), differences.size())));
    for (std::size_t i = 0; i < differences.size() && i < most; ++i)
        out.line(fmt::format("  {}: {}", differences[i]->subject, differences[i]->detail));
    if (differences.size() > most)
        out.line(fmt::format("  … {} more, see --most or --json", differences.size() - most));
    out.line(fmt::format("  likely:  {}", causeOf(kind)));
    out.line(fmt::format("  mended:  {}", adviceOf(kind)));
}

void printResult(const Output& out, const CheckResult& result, std::size_t most) {
    const std::size_t count = result.differences.size();
    const std::string verdict = count == 0   ? "no differences"
                                : count == 1 ? "1 difference"
                                             : fmt::format("{} differences", count);
    out.line(out.painted(count == 0 ? Colour::green : Colour::red, verdict));
    out.line(fmt::format("compared: {} entries{}, {} change records, {} indexes; {} on their way",
                         result.entries,
                         result.hardwareCompared ? " with hardware" : " (hardware not)",
                         result.records, result.indexes, result.onTheirWay));
    for (const std::string& note : result.notes)
        out.line(out.painted(Colour::yellow, note));
    std::map<Difference::Kind, std::vector<const Difference*>> byKind;
    for (const Difference& difference : result.differences)
        byKind[difference.kind].push_back(&difference);
    for (const auto& [kind, differences] : byKind)
        printKind(out, kind, differences, most);
}

CheckResult looked(Session& session, const Inspect::CheckOptions& options) {
    ProgressLine progress(!session.json);
    return check(session.system(), options,
                 [&](std::string_view what, std::uint64_t done, std::uint64_t total) {
                     progress.show(what, done, total);
                 });
}

/// How often hardware has taken all values so far.
std::uint64_t snapshotsOf(Inspect::Peer& hardware) {
    const auto status = hardware.tryAsk({{"cmd", "status"}});
    return status ? status->value("snapshots", std::uint64_t{0}) : 0;
}

/// What is mended is looked at again only when it has been.
void waitForEnd(Session& session, Mend mend, const Json& answer, std::uint64_t snapshots) {
    constexpr double kMost_s = 30;
    constexpr std::chrono::milliseconds kPause{20};
    if (mend == Mend::reload) {
        endedLoad(session, answer.value("load", Json::object()), kMost_s);
        return;
    }
    if (mend != Mend::resync)
        return;
    const auto latest = std::chrono::steady_clock::now() + std::chrono::duration<double>(kMost_s);
    while (std::chrono::steady_clock::now() < latest) {
        const auto status = session.system().hardware.tryAsk({{"cmd", "status"}});
        if (!status || (status->value("snapshots", snapshots + 1) > snapshots &&
                        status->value("waiting", 0) == 0))
            return;
        std::this_thread::sleep_for(kPause);
    }
}

/// Whether anything was asked of anybody.
bool mended(Session& session, const CheckResult& result, const CheckWishes& wishes, Json& repairs) {
    const std::set<Mend> mends = mendsOf(result);
    std::string names;
    for (const Mend mend : mends) {
        names += fmt::format("{}{} of the {}", names.empty() ? "" : ", ", mendText(mend),
                             mend == Mend::resync ? "hardware side" : "agent");
    }
    if (mends.empty()) {
        session.out().note("nothing here can be mended from the command line");
        return false;
    }
    if (!wishes.yes && !isConfirmed(session.out(), fmt::format("Do {}?", names)))
        return false;
    for (const Mend mend : mends) {
        const std::uint64_t snapshots =
            mend == Mend::resync ? snapshotsOf(session.system().hardware) : 0;
        const Json answer = Inspect::mend(session.system(), mend);
        waitForEnd(session, mend, answer, snapshots);
        repairs.push_back({{"mend", mendText(mend)}, {"answer", answer}});
        if (!session.json)
            session.out().line(fmt::format("{}: done", mendText(mend)));
    }
    return true;
}

int checkAll(Session& session, const CheckWishes& wishes) {
    const Inspect::Filter filter = session.wanted();
    Inspect::CheckOptions options{filter.table, filter.unit};
    options.settle = std::chrono::milliseconds(wishes.settle_ms);
    CheckResult result = looked(session, options);
    Json repairs = Json::array();
    if (!session.json)
        printResult(session.out(), result, wishes.most);
    if (wishes.repair && !result.differences.empty() && mended(session, result, wishes, repairs)) {
        result = looked(session, options);
        if (!session.json) {
            session.out().line();
            printResult(session.out(), result, wishes.most);
        }
    }
    const int code = result.differences.empty() ? kDone : kFound;
    if (session.json) {
        Json document = toJson(result);
        document["repairs"] = repairs;
        return session.printed(document, code);
    }
    return code;
}

}  // namespace

void addCheckCommand(CLI::App& app, Session& session) {
    static CheckWishes wishes;
    CLI::App* const command =
        addCommand(app, session, "check", "compare tables, logs, hardware and index pools",
                   [&session] { return checkAll(session, wishes); });
    command->group("Checking");
    addPlaceOptions(*command, session);
    command->add_flag("--repair", wishes.repair,
                      "ask the processes to mend what differs: resync, reload, sweep");
    command->add_flag("--yes", wishes.yes, "without a question");
    command->add_option("--most", wishes.most, "differences of a kind that are shown (20)");
    command->add_option("--settle", wishes.settle_ms,
                        "milliseconds between two looks at a difference (300)");
}

}  // namespace Vorn
