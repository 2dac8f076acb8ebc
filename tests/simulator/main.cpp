// Runs the tests, or one simulation: `test_simulator --seed N --steps M`.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "tests/simulator/Simulation.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUse = 2;

int simulated(std::uint64_t seed, std::uint64_t steps) {
    const auto start = std::chrono::steady_clock::now();
    const Simulator::Outcome outcome = Simulator::simulate(seed, steps);
    if (!outcome.failure.empty()) {
        std::fputs(outcome.failure.c_str(), stderr);
        return kFailed;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::printf("seed %llu, digest %016llx, %.1f s\n%s\n", static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(outcome.digest), took.count(),
                outcome.figures.toText().c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc == 1)
        return RUN_ALL_TESTS();
    std::uint64_t seed = 1;
    std::uint64_t steps = 100000;
    for (int i = 1; i < argc; i += 2) {
        const std::string_view option = argv[i];
        char* end = nullptr;
        const std::uint64_t value = i + 1 < argc ? std::strtoull(argv[i + 1], &end, 10) : 0;
        if (end == nullptr || *end != '\0' || (option != "--seed" && option != "--steps")) {
            std::fputs("usage: test_simulator [--seed N] [--steps M]\n", stderr);
            return kWrongUse;
        }
        (option == "--seed" ? seed : steps) = value;
    }
    return simulated(seed, steps);
}
