// What a whole change of a match entry costs, in one thread: from the write to its answer.
#include "bench/Floor.h"
#include "bench/Rounds.h"
#include "bench/WholeSystem.h"

namespace Bench {
namespace {

using B = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;

class FullTable {
public:
    FullTable() {
        for (std::uint32_t number = 0; number < kKeys; ++number)
            write(number);
    }
    void write(std::uint32_t number) {
        entry_.key = keyOf(number);
        entry_.priority = entry_.priority + 1;
        system_.change(entry_);
    }

private:
    WholeSystem<B> system_{
        {.capacityCeiling = std::uint64_t{1} << 20U, .counters = 8, .policers = 8},
        [](auto& agent) { return agent.v6Table(kUnit.value); }};
    VornPolicyCpu::PolicyCpuV6TcamEntryEntry entry_;
};

void wholeChange(benchmark::State& state) {
    static FullTable table;
    inRounds(
        state, [](std::uint32_t number) { table.write(number); }, [] {});
}
BENCHMARK(wholeChange)->UseManualTime();

void floorOfChange(benchmark::State& state) {
    static Floor<B> floor(kKeys);
    inRounds(
        state, [](std::uint32_t number) { floor.write(number); }, [] {});
}
BENCHMARK(floorOfChange)->UseManualTime();

}  // namespace
}  // namespace Bench
