// How long changes have spent in one stage: a histogram with fixed bounds.
//
// Event thread only. Adding one takes a few instructions and no memory.
#pragma once

#include <array>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Asic {

class StageTimes {
public:
    /// Bucket n holds what took less than bound(n), and not less than the bound before; the last
    /// one holds the rest. Bounds grow by four: 1.024 microseconds to 68.7 seconds are 14.
    static constexpr std::size_t kBounds = 14;
    static constexpr std::chrono::nanoseconds bound(std::size_t bucket) {
        return std::chrono::nanoseconds(std::int64_t{1024} << 2 * bucket);
    }

    /// REQUIRES: `time` is not negative.
    void add(std::chrono::nanoseconds time) {
        const auto units = static_cast<std::uint64_t>(time.count()) / 1024;
        const auto bucket = (static_cast<std::size_t>(std::bit_width(units)) + 1) / 2;
        ++counts_[bucket < kBounds ? bucket : kBounds];
        sum_ += time;
        ++count_;
    }

    /// `bucket` 0 to kBounds; not summed up.
    std::uint64_t count(std::size_t bucket) const { return counts_[bucket]; }
    std::uint64_t count() const { return count_; }
    std::chrono::nanoseconds sum() const { return sum_; }

private:
    std::array<std::uint64_t, kBounds + 1> counts_{};
    std::uint64_t count_ = 0;
    std::chrono::nanoseconds sum_{0};
};

}  // namespace Asic
