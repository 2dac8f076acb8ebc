// Events as frames of words that verify, one behind the other: what a recording's file is made of.
//
//   0       4        8        8 or 16
//   | check | length | passed | event, and zeros up to a whole word |
//
// The length is that of the event, in bytes; where its highest bit is set, the nanoseconds since
// the event before follow, otherwise none have passed. The check is the upper half of FrameSum of
// all that follows the length, begun with the length and the frame's place. A frame's first word is
// never zero, and is stored last: a word of zeros stands behind the last whole frame.
//
// Plain functions: any thread.
#pragma once

#include <atomic>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "recording/Codec.h"

namespace Recording {

/// What tells a frame from rot. A step maps sums to sums one to one, so that a word that is another
/// makes another sum. A checksum of a library takes more instructions for the few words of an event
/// (docs/performance.md).
class FrameSum {
public:
    FrameSum(std::uint64_t length, std::size_t offset) : sum_(length << 32U ^ offset) {}
    void add(std::uint64_t word) {
        constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15;  // 2^64 divided by the golden ratio
        sum_ = (std::rotl(sum_, 29) ^ word) * kSpread;
    }
    std::uint64_t check() const { return sum_ >> 32U; }

private:
    std::uint64_t sum_;
};

inline constexpr std::uint64_t kPassedFollows = std::uint64_t{1} << 31U;  ///< of a length

/// Bytes that the frame of an event takes.
inline std::size_t frameSize(const Buffer& event, std::chrono::nanoseconds passed) {
    return (1 + (passed.count() == 0 ? 0 : 1) + event.words().size()) * kWordSize;
}

/// The place is of the frame's size, and a multiple of eight. `offset`: of the frame in all that
/// the recording's frames take. Whoever looks at the place meanwhile, and a kill at any
/// instruction, finds all of the frame or none. REQUIRES: `passed` is not negative, and the event
/// of less than 2 GiB.
inline void storeFrame(std::uint64_t* place, const Buffer& event, std::chrono::nanoseconds passed,
                       std::size_t offset) {
    const bool follows = passed.count() != 0;
    const std::uint64_t length = event.bytes().size() | (follows ? kPassedFollows : 0);
    FrameSum sum(length, offset);
    std::uint64_t* next = place;
    const auto put = [&](std::uint64_t word) {
        *++next = word;
        sum.add(word);
    };
    if (follows)
        put(static_cast<std::uint64_t>(passed.count()));
    for (const std::uint64_t word : event.words())
        put(word);
    std::atomic_ref<std::uint64_t>(*place).store(length << 32U | sum.check(),
                                                 std::memory_order_release);
}

/// A frame that verifies.
struct Framed {
    std::size_t size;  ///< of the frame, in bytes
    std::chrono::nanoseconds passed;
    Bytes event;
};

/// The frame that the bytes begin with, which has the offset; nothing where they begin with zeros
/// or are none. Throws FormatError.
std::optional<Framed> frameIn(Bytes bytes, std::size_t offset);

}  // namespace Recording
