// The numbers that a simulation goes by: SplitMix64 (Steele, Lea, Flood 2014), the same everywhere.
#pragma once

#include <cstdint>

namespace Simulator {

class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = state_ += 0x9E3779B97F4A7C15U;
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31U);
    }
    /// Below the limit, which is small: the bias is of no account.
    unsigned below(unsigned limit) {
        return static_cast<unsigned>(((next() >> 32U) * limit) >> 32U);
    }
    bool oneIn(unsigned number) { return below(number) == 0; }

private:
    std::uint64_t state_;
};

}  // namespace Simulator
