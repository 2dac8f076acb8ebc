// What a crash-safe change of an entry log costs, beside the least that any could cost.
#include <benchmark/benchmark.h>

#include <chrono>
#include <optional>

#include "bench/Floor.h"
#include "bench/Keys.h"
#include "entrylog/PolicyCpuV6TcamEntryEntryLog.h"
#include "platform/asic/Constants.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "platform/kivshimo/Paths.h"
#include "tests/support/InProcessAgent.h"

namespace Bench {
namespace {

using namespace VornPolicyCpu;
using B = PolicyCpuV6TcamEntryBinding;
using Clock = std::chrono::steady_clock;

/// Changes between two cleanups, which are not timed here.
constexpr std::uint32_t kRound = 4096;

/// An entry log with a full configuration.
class FullLog {
public:
    FullLog() : agent_({.capacityCeiling = std::uint64_t{1} << 20U, .counters = 8, .policers = 8}) {
        log_ = entryLogFactory<B>(B::kTableId, agent_.stateDatabase(), agent_.group(),
                                  "VornPolicyCpu");
        log_->mountShimoConfig(kUnit, {});
        for (std::uint32_t number = 0; number < kKeys; ++number) {
            write(number);
            if (number % kRound == kRound - 1)
                consume();
        }
    }
    void write(std::uint32_t number) {
        entry_.key = keyOf(number);
        entry_.priority = entry_.priority + 1;
        log_->entryIs(entry_, {}, needed_, kUnit, stats_, false);
    }
    void consume() {
        const auto version = log_->tableVersion();
        agent_.hardware().announceIdentityIs(announcements().identity());
        agent_.hardware().consumedIs(announcements().tail());
        agent_.acknowledge(B::kTableId, version.value);
        log_->cleanupEntryLog(version);
    }

private:
    static constexpr Asic::UnitId kUnit{1};

    KivShimo::AnnounceLogReader& announcements() {
        if (!announcements_) {
            announcements_ = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
                agent_.root(), Asic::Constants::announcementsPath(agent_.group()->name())));
        }
        return *announcements_;
    }

    TestSupport::InProcessAgent agent_;
    KivShimo::Sleeper hardware_{agent_.hardware().sleepEpoch()};  ///< awake all the time
    Brumo::Ptr<EntryLog<B>> log_;
    Brumo::Ptr<Asic::SwTableStats> stats_ = Brumo::make<Asic::SwTableStats>();
    Brumo::Ptr<const Asic::NeededEntry> needed_ = Brumo::make<const Asic::NeededEntry>();
    B::LogEntry entry_;
    std::optional<KivShimo::AnnounceLogReader> announcements_;
};

template <class Write, class Between>
void inRounds(benchmark::State& state, Write&& write, Between&& between) {
    const std::vector<std::uint32_t>& order = randomOrder();
    std::size_t at = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (std::uint32_t i = 0; i < kRound; ++i) {
            write(order[at]);
            at = at + 1 == order.size() ? 0 : at + 1;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        between();
    }
    state.counters["changes"] = kRound;  // an iteration
}

void entryIs(benchmark::State& state) {
    static FullLog log;
    inRounds(
        state, [](std::uint32_t number) { log.write(number); }, [] { log.consume(); });
}
BENCHMARK(entryIs)->UseManualTime();

void floorOfEntryIs(benchmark::State& state) {
    static Floor<B> floor(kKeys);
    inRounds(
        state, [](std::uint32_t number) { floor.write(number); }, [] {});
}
BENCHMARK(floorOfEntryIs)->UseManualTime();

}  // namespace
}  // namespace Bench
