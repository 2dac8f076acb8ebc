// What it costs when a resource that all actions use gets another index: all of them are written
// again, and acknowledged.
#include "bench/FullActions.h"
#include "bench/Rounds.h"

namespace Bench {
namespace {

void resourceMove(benchmark::State& state) {
    static FullActions actions(kKeys);
    WholeSystem<FullActions::B>& system = actions.system();
    for (auto _ : state) {
        const auto before = system.table()->logVersion();
        if (!system.agent().counters()->move({1}))
            state.SkipWithError("there is no other index");
        system.settle();
        system.settle();
        if (system.table()->logVersion().value - before.value != kKeys)
            state.SkipWithError("not every user was written again");
    }
    state.counters["changes"] = kKeys;
}
BENCHMARK(resourceMove);

}  // namespace
}  // namespace Bench
