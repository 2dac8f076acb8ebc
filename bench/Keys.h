// The keys of all measurements: as many as a configuration holds, in an order without pattern.
#pragma once

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "types/MatchFields.h"

namespace Bench {

inline constexpr std::uint32_t kKeys = 65536;
/// Changes that are measured together.
inline constexpr std::uint32_t kRound = 4096;

inline VornPolicyCpu::MatchKey keyOf(std::uint32_t number) {
    return {number, 0};
}

inline const std::vector<std::uint32_t>& randomOrder() {
    static const std::vector<std::uint32_t> order = [] {
        std::vector<std::uint32_t> numbers(kKeys);
        std::iota(numbers.begin(), numbers.end(), 0U);
        std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
        return numbers;
    }();
    return order;
}

}  // namespace Bench
