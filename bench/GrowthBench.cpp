// How the cost of a crash-safe write grows: with the keys, the units and what the log holds.
#include "bench/FullLog.h"
#include "bench/Rounds.h"

namespace Bench {
namespace {

/// Of the change log; one in a hundred is more than what is written between two cleanups.
constexpr std::uint64_t kLogSlots = std::uint64_t{1} << 19U;

void measure(benchmark::State& state, const FullLog::Shape& shape) {
    FullLog log(shape);
    std::uint32_t at = 0;
    inRounds(
        state,
        [&](std::uint32_t number) {
            log.write(number % shape.keys, at);
            at = at + 1 == shape.units ? 0 : at + 1;
        },
        [&] { log.consumeButLeft(); });
}

void writeOfKeys(benchmark::State& state) {
    measure(state, {.keys = static_cast<std::uint32_t>(state.range(0))});
}
BENCHMARK(writeOfKeys)->Arg(1000)->Arg(8000)->Arg(65000)->UseManualTime();

void writeOfUnits(benchmark::State& state) {
    const auto units = static_cast<std::uint32_t>(state.range(0));
    measure(state, {.keys = kKeys / units, .units = units});
}
BENCHMARK(writeOfUnits)->Arg(1)->Arg(4)->Arg(16)->UseManualTime();

void writeIntoLog(benchmark::State& state) {
    measure(state, {.keys = 4096,
                    .logSlots = kLogSlots,
                    .left = kLogSlots * static_cast<std::uint64_t>(state.range(0)) / 100});
}
BENCHMARK(writeIntoLog)->Arg(1)->Arg(50)->Arg(99)->UseManualTime();

}  // namespace
}  // namespace Bench
