// The check's result: kinds of differences with cause and advice, several looks, and mending.
#include "inspect/Check.h"

#include <algorithm>
#include <thread>
#include <tuple>

#include <fmt/format.h>

#include "inspect/CheckLook.h"
#include "inspect/Errors.h"

namespace Inspect {

namespace {

struct KindFacts {
    std::string_view name;
    std::string_view cause;
    Mend mend;
    std::string_view advice;
};

constexpr std::string_view kResyncAdvice = "hardware side takes all values anew (resync)";
constexpr std::string_view kReloadAdvice = "agent writes the lost values anew (reload)";
constexpr std::string_view kSweepAdvice = "agent gives unused indexes back (sweep)";

/// In the order of Difference::Kind.
constexpr std::array<KindFacts, 13> kKindFacts{{
    {"value does not verify", "stored bytes have rotted", Mend::reload, kReloadAdvice},
    {"cannot be read", "the file is damaged, or a killed process left a store half done",
     Mend::none, "the next start of the process that owns the file repairs or replaces it"},
    {"value lost", "the configuration was lost or has rotted", Mend::reload, kReloadAdvice},
    {"missing in hardware", "hardware lost it, or programming it failed", Mend::resync,
     kResyncAdvice},
    {"older in hardware", "hardware missed a change that it acknowledged", Mend::resync,
     kResyncAdvice},
    {"other in hardware", "hardware content has rotted or was changed from elsewhere", Mend::resync,
     kResyncAdvice},
    {"stray in hardware", "hardware missed a removal", Mend::resync, kResyncAdvice},
    {"change record missing", "the change log was lost or has rotted", Mend::resync, kResyncAdvice},
    {"acknowledged beyond the log", "the change log was lost, or the agent has begun anew",
     Mend::resync, "hardware side takes all values anew (resync), or is started anew"},
    {"index without user", "an agent was killed between request and commit", Mend::sweep,
     kSweepAdvice},
    {"index used twice", "records of the pool were lost and the index given out again", Mend::none,
     "move one of the requests (vorn resource move)"},
    {"request has two indexes", "an agent was killed while the request moved", Mend::sweep,
     kSweepAdvice},
    {"index not of its request", "records of the pool were lost", Mend::none,
     "restart the agent: it requests what its entries need again"},
}};

const KindFacts& factsOf(Difference::Kind kind) {
    return kKindFacts.at(static_cast<std::size_t>(kind));
}

/// What both looks have seen. The detail may differ: it has versions, which go on.
std::vector<Difference> commonTo(const std::vector<Difference>& before,
                                 const std::vector<Difference>& now) {
    const auto identity = [](const Difference& difference) {
        return std::tie(difference.kind, difference.id, difference.subject);
    };
    std::set<decltype(identity(now.front()))> seen;
    for (const Difference& difference : before)
        seen.insert(identity(difference));
    std::vector<Difference> common;
    std::ranges::copy_if(now, std::back_inserter(common), [&](const Difference& difference) {
        return seen.contains(identity(difference));
    });
    return common;
}

}  // namespace

std::string_view mendText(Mend mend) {
    constexpr std::array<std::string_view, 4> kNames{"none", "resync", "reload", "sweep"};
    return kNames.at(static_cast<std::size_t>(mend));
}
std::string_view nameOf(Difference::Kind kind) {
    return factsOf(kind).name;
}
std::string_view causeOf(Difference::Kind kind) {
    return factsOf(kind).cause;
}
Mend mendOf(Difference::Kind kind) {
    return factsOf(kind).mend;
}
std::string_view adviceOf(Difference::Kind kind) {
    return factsOf(kind).advice;
}

CheckResult check(System& system, const CheckOptions& options, const Progress& progress) {
    CheckResult result = checkOnce(system, options, progress);
    const bool mayChange = system.agent.runs() || system.hardware.runs();
    for (unsigned look = 1; look < options.looks && mayChange && !result.differences.empty();
         ++look) {
        std::this_thread::sleep_for(options.settle);
        CheckResult again = checkOnce(system, options, progress);
        again.differences = commonTo(result.differences, again.differences);
        again.looks = result.looks + 1;
        result = std::move(again);
    }
    return result;
}

Json toJson(const CheckResult& result) {
    Json differences = Json::array();
    for (const Difference& difference : result.differences) {
        Json one{{"kind", nameOf(difference.kind)},
                 {"subject", difference.subject},
                 {"table", nullptr},
                 {"unit", nullptr},
                 {"key", nullptr},
                 {"detail", difference.detail},
                 {"cause", causeOf(difference.kind)},
                 {"mend", mendText(mendOf(difference.kind))},
                 {"advice", adviceOf(difference.kind)}};
        if (difference.id) {
            one["table"] = fullName(difference.id->table);
            one["unit"] = difference.id->unit;
            one["key"] = difference.id->key;
        }
        differences.push_back(std::move(one));
    }
    return {{"differences", std::move(differences)},
            {"entries", result.entries},
            {"records", result.records},
            {"indexes", result.indexes},
            {"onTheirWay", result.onTheirWay},
            {"hardwareCompared", result.hardwareCompared},
            {"looks", result.looks},
            {"notes", result.notes}};
}

std::set<Mend> mendsOf(const CheckResult& result) {
    std::set<Mend> mends;
    for (const Difference& difference : result.differences) {
        if (mendOf(difference.kind) != Mend::none)
            mends.insert(mendOf(difference.kind));
    }
    return mends;
}

Json mend(System& system, Mend mend) {
    Peer& peer = mend == Mend::resync ? system.hardware : system.agent;
    return peer.ask({{"cmd", mendText(mend)}});
}

}  // namespace Inspect
