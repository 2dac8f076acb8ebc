// What a crash-safe change of an entry log costs, beside the least that any could cost.
#include "bench/Floor.h"
#include "bench/FullLog.h"
#include "bench/Rounds.h"

namespace Bench {
namespace {

void entryIs(benchmark::State& state) {
    static FullLog log;
    inRounds(
        state, [](std::uint32_t number) { log.write(number); }, [] { log.consume(); });
}
BENCHMARK(entryIs)->UseManualTime();

void floorOfEntryIs(benchmark::State& state) {
    static Floor<FullLog::B> floor(kKeys);
    inRounds(
        state, [](std::uint32_t number) { floor.write(number); }, [] {});
}
BENCHMARK(floorOfEntryIs)->UseManualTime();

}  // namespace
}  // namespace Bench
