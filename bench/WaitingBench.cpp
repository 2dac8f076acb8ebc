// What a write costs, up to its commit, while others wait for something that does not come.
#include <chrono>
#include <vector>

#include "bench/NeverDone.h"
#include "bench/Rounds.h"
#include "bench/WholeSystem.h"

namespace Bench {
namespace {

using B = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kLive = 4096;

void writeWhileOthersWait(benchmark::State& state) {
    WholeSystem<B> system{
        {.capacityCeiling = std::uint64_t{1} << 17U, .counters = 8, .policers = 8},
        [](auto& agent) { return agent.v6Table(kUnit.value); }};
    const auto never = Brumo::make<NeverDone>();
    VornPolicyCpu::PolicyCpuV6TcamEntryEntry entry;
    for (std::uint32_t number = 0; number < state.range(0); ++number) {
        entry.key = keyOf(kLive + number);
        system.table()->entryWrite(entry.key, entry, never);
    }
    system.settle();
    for (auto _ : state) {
        Clock::duration took{};
        for (std::uint32_t i = 0; i < kRound; ++i) {
            entry.key = keyOf(randomOrder()[i] % kLive);
            entry.priority = entry.priority + 1;
            const auto start = Clock::now();
            system.table()->entryWrite(entry.key, entry, nullptr);
            system.agent().settle();
            took += Clock::now() - start;
            system.settle();
        }
        state.SetIterationTime(std::chrono::duration<double>(took).count());
    }
    state.counters["changes"] = kRound;
}
BENCHMARK(writeWhileOthersWait)->Arg(0)->Arg(1000)->Arg(10000)->UseManualTime();

}  // namespace
}  // namespace Bench
