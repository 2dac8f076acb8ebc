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
// Plain values and functions: any thread.
#pragma once

#include <atomic>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

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

/// Words that the frame of an event of so many bytes takes.
constexpr std::size_t frameWords(std::size_t bytes, std::chrono::nanoseconds passed) {
    return 1 + (passed.count() == 0 ? 0 : 1) + wordCount(bytes);
}

/// Stores the words of an event as a frame. Whoever looks at its place meanwhile, and a kill at any
/// instruction, finds all of the frame or none.
class FrameStore {
public:
    /// `place` has room for the frame, and begins with a word of zeros; `offset`: of the frame in
    /// all that the recording's frames take. REQUIRES: `passed` is not negative, the event is of
    /// less than 2 GiB, and the words that follow are as many as its bytes take.
    FrameStore(std::uint64_t* place, std::size_t bytes, std::chrono::nanoseconds passed,
               std::size_t offset)
        : place_(place),
          next_(place),
          length_(bytes | (passed.count() == 0 ? 0 : kPassedFollows)),
          sum_(length_, offset) {
        if (passed.count() != 0)
            (*this)(static_cast<std::uint64_t>(passed.count()));
    }
    void operator()(std::uint64_t word) {
        *++next_ = word;
        sum_.add(word);
    }
    /// REQUIRES: all words are stored. Returns what is behind the frame.
    std::uint64_t* finish() {
        std::atomic_ref<std::uint64_t>(*place_).store(length_ << 32U | sum_.check(),
                                                      std::memory_order_release);
        return next_ + 1;
    }

private:
    std::uint64_t* place_;
    std::uint64_t* next_;  ///< the last that was stored
    std::uint64_t length_;
    FrameSum sum_;
};

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
