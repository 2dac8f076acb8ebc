// What a trace site costs that is not enabled.
#include <benchmark/benchmark.h>

#include "platform/brumo/Trace.h"

namespace Bench {
namespace {

void disabledTrace(benchmark::State& state) {
    const Brumo::TraceSource trace("Bench", "TraceBench");
    std::uint64_t number = 0;
    for (auto _ : state) {
        trace(8, " number: {}", number);
        benchmark::DoNotOptimize(++number);
    }
    state.counters["changes"] = 1;
}
BENCHMARK(disabledTrace);

void emptyIteration(benchmark::State& state) {
    std::uint64_t number = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(++number);
    state.counters["changes"] = 1;
}
BENCHMARK(emptyIteration);

}  // namespace
}  // namespace Bench
