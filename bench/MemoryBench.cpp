// What an entry takes: shared memory of its value and its record, memory of the process.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include "bench/FullActions.h"
#include "bench/WholeSystem.h"
#include "platform/kivshimo/detail/LogLayout.h"
#include "platform/kivshimo/detail/MapLayout.h"

namespace Bench {
namespace {

using Matches = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;
using Value = VornPolicyCpu::PolicyCpuV6TcamEntryConfigShimoEntry;
using Record = VornPolicyCpu::PolicyCpuV6TcamEntryLogShimoEntry;

/// Bytes in use, also of large blocks.
double used() {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

/// What one more committed entry takes, with `changes` bytes.
template <class Fill>
void measure(benchmark::State& state, const Fill& fill) {
    for (auto _ : state) {
        const double before = used();
        fill();
        state.counters["bytes"] = (used() - before) / kKeys;
    }
}

void memoryOfMatch(benchmark::State& state) {
    WholeSystem<Matches> system{
        {.capacityCeiling = std::uint64_t{1} << 17U, .counters = 8, .policers = 8},
        [](auto& agent) { return agent.v6Table(kUnit.value); }};
    measure(state, [&] {
        VornPolicyCpu::PolicyCpuV6TcamEntryEntry entry;
        for (std::uint32_t number = 0; number < kKeys; ++number) {
            entry.key = keyOf(number);
            system.change(entry);
        }
    });
}
BENCHMARK(memoryOfMatch)->Iterations(1);

void memoryOfAction(benchmark::State& state) {
    Actions actions(1024);
    measure(state, [&] { actions.fill(); });
}
BENCHMARK(memoryOfAction)->Iterations(1);

void sharedMemoryOfValue(benchmark::State& state) {
    for (auto _ : state) {
        const std::uint64_t bytes = KivShimo::detail::mapBytes(kKeys, sizeof(Value));
        state.counters["bytes"] = static_cast<double>(bytes) / kKeys;
        state.counters["payload"] = sizeof(Value);
    }
}
BENCHMARK(sharedMemoryOfValue)->Iterations(1);

void sharedMemoryOfRecord(benchmark::State& state) {
    constexpr std::uint64_t kSlots = std::uint64_t{1} << 20U;
    for (auto _ : state) {
        const std::uint64_t bytes = KivShimo::detail::versionLogBytes(kSlots, sizeof(Record));
        state.counters["bytes"] = static_cast<double>(bytes) / kSlots;
        state.counters["payload"] = sizeof(Record);
    }
}
BENCHMARK(sharedMemoryOfRecord)->Iterations(1);

}  // namespace
}  // namespace Bench
