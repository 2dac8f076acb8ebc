// What a whole change of an action costs that needs a counter and a policer, each shared by 64
// actions; and what a restart costs that finds all of them.
#include "bench/Floor.h"
#include "bench/FullActions.h"
#include "bench/Rounds.h"

namespace Bench {
namespace {

FullActions& fullActions() {
    constexpr std::uint32_t kSharing = 64;
    static FullActions actions(kSharing);
    return actions;
}

void wholeActionChange(benchmark::State& state) {
    FullActions& actions = fullActions();
    inRounds(
        state, [&](std::uint32_t number) { actions.system().change(actions.entryOf(number)); },
        [] {});
}
BENCHMARK(wholeActionChange)->UseManualTime();

/// From the files to the first write that is committed.
void restore(benchmark::State& state) {
    FullActions& actions = fullActions();
    WholeSystem<FullActions::B>& system = actions.system();
    for (auto _ : state) {
        state.PauseTiming();
        system.stop();
        state.ResumeTiming();
        system.start();
        system.agent().settle();
        const auto& entry = actions.entryOf(0);
        const auto handle = system.table()->entryWrite(entry.key, entry, nullptr);
        system.agent().settle();
        if (handle->entryState() != Asic::EntryState::written)
            state.SkipWithError("the first write was not accepted");
        state.PauseTiming();
        system.settle();
        state.ResumeTiming();
    }
    state.counters["changes"] = kKeys;
}
BENCHMARK(restore)->Unit(benchmark::kMillisecond);

void floorOfRestore(benchmark::State& state) {
    static Floor<FullActions::B> floor(kKeys);
    for (auto _ : state)
        benchmark::DoNotOptimize(floor.readAll());
    state.counters["changes"] = kKeys;
}
BENCHMARK(floorOfRestore);

}  // namespace
}  // namespace Bench
