// Changes in random order over all keys, timed in rounds; what goes on between two is not timed.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "bench/Keys.h"

namespace Bench {

/// Nanoseconds of a change are those of an iteration divided by its counter `changes`.
template <class Write, class Between>
void inRounds(benchmark::State& state, Write&& write, Between&& between) {
    using Clock = std::chrono::steady_clock;
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
    state.counters["changes"] = kRound;
}

}  // namespace Bench
