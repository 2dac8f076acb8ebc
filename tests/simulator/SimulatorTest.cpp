// Simulations of fixed seeds, and that a seed says all.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/simulator/Simulation.h"

namespace Simulator {
namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr std::uint64_t kSeeds = 4;
#else
constexpr std::uint64_t kSeeds = 50;
#endif
constexpr std::uint64_t kSteps = 20000;

TEST(Simulation, HoldsForEverySeed) {
    Figures figures;
    for (std::uint64_t seed = 1; seed <= kSeeds; ++seed) {
        const Outcome outcome = simulate(seed, kSteps);
        ASSERT_EQ(outcome.failure, "");
        figures.add(outcome.figures);
    }
    std::printf("%s\n", figures.toText().c_str());
}

TEST(Simulation, DoesTheSameAgain) {
    EXPECT_EQ(simulate(7, 3000).digest, simulate(7, 3000).digest);
}

}  // namespace
}  // namespace Simulator
