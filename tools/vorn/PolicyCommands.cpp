// vorn policy: a policy file checked, compared with the tables, and applied.
#include <chrono>
#include <filesystem>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/PolicyDiff.h"
#include "tools/vorn/Load.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"
#include "tools/vorn/Subprocess.h"

namespace Vorn {

namespace {

constexpr std::chrono::seconds kCompileTime{60};
constexpr std::size_t kShownChanges = 40;

struct PolicyWishes {
    std::string file;
    bool yes = false;
    bool all = false;
    bool noWait = false;
    double wait_s = 30;
};

/// The policy as vorn-agent reads it. Throws RefusedError with the mistakes.
Json compiledPolicy(const std::string& file) {
    const Ended ended =
        runProgram({siblingProgram("vorn-agent"), "--check", "--policy", file}, kCompileTime);
    if (ended.code == 0)
        return Json::parse(ended.out);
    std::string errors = ended.err;
    while (!errors.empty() && errors.back() == '\n')
        errors.pop_back();
    if (errors.empty())
        errors = fmt::format("vorn-agent ended with {}", ended.code);
    throw Inspect::RefusedError(errors);
}

int checkPolicy(Session& session, const PolicyWishes& wishes) {
    const Json policy = compiledPolicy(wishes.file);
    const auto count = [&](const char* list) { return policy.at(list).size(); };
    if (session.json) {
        session.out().json({{"source", "files"},
                            {"file", wishes.file},
                            {"actions", count("actions")},
                            {"ipv4", count("ipv4")},
                            {"ipv6", count("ipv6")}});
    } else {
        session.out().line(fmt::format("{}: {} actions, {} IPv4 and {} IPv6 entries", wishes.file,
                                       count("actions"), count("ipv4"), count("ipv6")));
    }
    return kDone;
}

Json changeListJson(const std::vector<Inspect::PolicyChange>& changes) {
    Json list = Json::array();
    for (const Inspect::PolicyChange& change : changes) {
        list.push_back({{"table", fullName(change.id.table)},
                        {"unit", change.id.unit},
                        {"key", change.id.key},
                        {"name", change.name},
                        {"isNew", change.isNew}});
    }
    return list;
}

/// What loading the policy would do, as the agent says, or as the files say without it.
Json dryRun(Session& session, const std::string& file) {
    Inspect::System& system = session.system();
    const std::string path = std::filesystem::absolute(file).string();
    if (system.agent.runs()) {
        // One that knows no dry run would load the policy; those that do tell since when they run.
        if (!system.agent.ask({{"cmd", "status"}}).contains("startTime"))
            throw Inspect::RefusedError("the agent is too old for a dry run");
        return system.agent.ask({{"cmd", "reload"}, {"policy", path}, {"dryRun", true}});
    }
    const Inspect::PolicyDiff diff =
        policyDiff(system.state, compiledPolicy(file), system.state.units(), session.report());
    return {{"unchanged", diff.unchanged},
            {"write", changeListJson(diff.write)},
            {"remove", changeListJson(diff.remove)},
            {"total", diff.write.size() + diff.remove.size()}};
}

void printChanges(const Output& out, const Json& changes, bool isRemoval, bool all) {
    std::size_t shown = 0;
    for (const Json& change : changes) {
        if (!all && shown == kShownChanges) {
            out.line(fmt::format("  … {} more, see --all", changes.size() - shown));
            return;
        }
        ++shown;
        const bool isNew = change.value("isNew", false);
        const std::string_view sign = isRemoval ? "-" : isNew ? "+" : "~";
        const Colour colour = isRemoval ? Colour::red : isNew ? Colour::green : Colour::yellow;
        const auto table = Inspect::tableFromText(stringIn(change, "table"));
        out.line(out.painted(
            colour, fmt::format("{} {} unit {} {} {}", sign, table ? shortName(*table) : "?",
                                numberText(change, "unit"), stringIn(change, "key"),
                                stringIn(change, "name"))));
    }
}

void printDryRun(const Output& out, const Json& diff, bool all) {
    const Json write = diff.value("write", Json::array());
    const Json remove = diff.value("remove", Json::array());
    out.line(fmt::format("{} to write, {} to remove, {} unchanged", write.size(), remove.size(),
                         numberText(diff, "unchanged")));
    printChanges(out, write, false, all);
    printChanges(out, remove, true, all);
    if (diff.value("total", std::size_t{0}) > write.size() + remove.size())
        out.line(fmt::format("… of {} changes in all", numberText(diff, "total")));
}

bool isEmptyDiff(const Json& diff) {
    return diff.value("total", std::size_t{0}) == 0;
}

int diffPolicy(Session& session, const PolicyWishes& wishes) {
    const Json diff = dryRun(session, wishes.file);
    const int code = isEmptyDiff(diff) ? kDone : kFound;
    if (session.json)
        return session.printed(diff, code);
    printDryRun(session.out(), diff, wishes.all);
    return session.ended(code);
}

void printLoad(const Output& out, const Json& load) {
    out.line(fmt::format("applied: {} written, {} removed, {} unchanged, {} failed, {} in progress",
                         numberText(load, "written"), numberText(load, "removed"),
                         numberText(load, "unchanged"), numberText(load, "failed"),
                         numberText(load, "inProgress")));
    if (!stringIn(load, "waiting").empty())
        out.line(out.painted(Colour::yellow, "the agent reads it when earlier changes have ended"));
    if (!stringIn(load, "firstFailure").empty())
        out.line(out.painted(Colour::red, "failed: " + stringIn(load, "firstFailure")));
}

int applyPolicy(Session& session, const PolicyWishes& wishes) {
    if (!session.system().agent.runs())
        throw Inspect::NotRunningError(session.system().agent.reason());
    const Json diff = dryRun(session, wishes.file);
    if (!session.json)
        printDryRun(session.out(), diff, wishes.all);
    if (!isEmptyDiff(diff) && !wishes.yes && !isConfirmed(session.out(), "Apply it?")) {
        if (session.json)
            return session.printed({{"applied", false}, {"diff", diff}}, kFound);
        session.out().line("nothing was changed");
        return kFound;
    }
    const std::string path = std::filesystem::absolute(wishes.file).string();
    Json load = session.askAgent({{"cmd", "reload"}, {"policy", path}}).at("load");
    if (!wishes.noWait)
        load = endedLoad(session, std::move(load), wishes.wait_s);
    const bool isGood = load.value("failed", 0) == 0 && (wishes.noWait || hasEnded(load));
    const int code = isGood ? kDone : kFound;
    if (session.json)
        return session.printed({{"applied", true}, {"diff", diff}, {"load", load}}, code);
    printLoad(session.out(), load);
    return code;
}

}  // namespace

void addPolicyCommands(CLI::App& app, Session& session) {
    static PolicyWishes wishes;
    CLI::App* const policy = app.add_subcommand("policy", "check, compare or apply a policy file");
    policy->require_subcommand(1)->fallthrough()->group("Changing");
    const auto add = [&](const char* name, const char* help,
                         int (*run)(Session&, const PolicyWishes&)) {
        CLI::App* const command = addCommand(*policy, session, name, help,
                                             [&session, run] { return run(session, wishes); });
        command->add_option("FILE", wishes.file, "the policy")
            ->required()
            ->check(CLI::ExistingFile);
        return command;
    };
    add("check", "whether it can be used; 5 and its mistakes if not", checkPolicy);
    add("diff", "what it would change; 1 if anything", diffPolicy)
        ->add_flag("--all", wishes.all, "each change");
    CLI::App* const apply = add("apply", "show what it changes, ask, and load it", applyPolicy);
    apply->add_flag("--yes", wishes.yes, "without a question");
    apply->add_flag("--all", wishes.all, "each change");
    apply->add_flag("--no-wait", wishes.noWait, "end at once, and not with the load");
    apply->add_option("--wait", wishes.wait_s, "seconds to wait for the end of the load (30)");
}

}  // namespace Vorn
