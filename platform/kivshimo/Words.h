// Values of shared memory as words: put together, copied in both directions, checksummed.
//
// Used by the writer and the readers of one mapping, which may be different processes; and by the
// types of values, to say how they are put together.
//
// What always holds:
//  1. Every word that another process may read while it is written is accessed as an atomic.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace KivShimo {
namespace detail {

/// XXH3 of the bytes; never 0, which means "nothing stored here".
std::uint64_t checksumOf(const void* bytes, std::size_t size, std::uint64_t seed);

/// A cheap mixture of two words, for seeds and for checks of single words: the step and the
/// finaliser of SplitMix64 (public domain).
constexpr std::uint64_t mixed(std::uint64_t a, std::uint64_t b) {
    std::uint64_t x = a ^ (b + 0x9E3779B97F4A7C15U) * 0xBF58476D1CE4E5B9U;
    x = (x ^ x >> 30U) * 0xBF58476D1CE4E5B9U;
    x = (x ^ x >> 27U) * 0x94D049BB133111EBU;
    return x ^ x >> 31U;
}

/// A word of a mapping as an atomic. Readers have the mapping read-only; they only load.
inline std::atomic_ref<std::uint64_t> word(const std::uint64_t& place) {
    static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free);
    return std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t&>(place));
}

inline std::uint64_t loaded(const std::uint64_t& place) {
    return word(place).load(std::memory_order_relaxed);
}

/// The checksum of a value of that sum in the place that the seed says; never 0. For each seed,
/// another sum gives another checksum.
constexpr std::uint64_t placedSum(std::uint64_t sum, std::uint64_t seed) {
    const std::uint64_t placed = mixed(sum, seed);
    return placed != 0 ? placed : 1;
}

constexpr std::size_t wordsOf(std::size_t bytes) {
    return (bytes + 7) / 8;
}

static_assert(std::endian::native == std::endian::little, "files are read as they are written");

/// At most four bytes. What was stored a moment ago in one piece is read in pieces of it, and never
/// in one that covers several: such a load waits until all stores before have reached the cache,
/// also those that miss it, which takes longer than all else that a change does.
template <std::size_t kBytes>
std::uint64_t justStored(const std::byte* from) {
    static_assert(kBytes >= 1 && kBytes <= 4);
    if constexpr (kBytes == 3) {
        return justStored<2>(from) | justStored<1>(from + 2) << 16U;
    } else {
        std::conditional_t<kBytes == 4, std::uint32_t,
                           std::conditional_t<kBytes == 2, std::uint16_t, std::uint8_t>>
            piece;
        std::memcpy(&piece, from, kBytes);
        asm("" : "+r"(piece));  // no load together with its neighbours
        return piece;
    }
}

}  // namespace detail

/// A value as words, the last one filled up with zeros: how it is copied and checksummed.
template <class T>
struct Words {
    static_assert(std::is_trivially_copyable_v<T>);
    static constexpr std::size_t kCount = detail::wordsOf(sizeof(T));

    Words() : words{} {}
    explicit Words(const T& value) : words{} {
        if constexpr (requires { value.words(); }) {
            const auto made = value.words();
            static_assert(made.size() == kCount);
            for (std::size_t i = 0; i < kCount; ++i)
                words[i] = made[i];
        } else {
            std::memcpy(words, &value, sizeof(T));
        }
    }

    /// Puts a part of a value at its offset, where there are only zeros so far.
    template <std::size_t kAt, class Part>
    void put(const Part& part) {
        static_assert(std::is_trivially_copyable_v<Part> && kAt + sizeof(Part) <= sizeof(T));
        const auto* const from = reinterpret_cast<const std::byte*>(&part);
        [&]<std::size_t... kPiece>(std::index_sequence<kPiece...>) {
            (putPiece<kAt + 4 * kPiece, std::min<std::size_t>(4, sizeof(Part) - 4 * kPiece)>(
                 from + 4 * kPiece),
             ...);
        }
        (std::make_index_sequence<(sizeof(Part) + 3) / 4>());
    }

    T value() const {
        T result;
        std::memcpy(static_cast<void*>(&result), words, sizeof(T));
        return result;
    }
    /// Of the value alone, wherever it lies.
    std::uint64_t sum() const { return detail::checksumOf(words, sizeof(words), 0); }
    /// Of the value in its place, which the seed says.
    std::uint64_t checksum(std::uint64_t seed) const { return detail::placedSum(sum(), seed); }
    /// Relaxed stores; the caller orders them with its fences.
    void storeTo(std::uint64_t* place) const {
        inEach([&](std::size_t i) __attribute__((always_inline)) {
            detail::word(place[i]).store(words[i], std::memory_order_relaxed);
        });
    }
    /// Relaxed loads; what comes back may be torn until the caller has verified it.
    static Words loadFrom(const std::uint64_t* place) {
        Words result{NotSet()};
        inEach([&](std::size_t i)
                   __attribute__((always_inline)) { result.words[i] = detail::loaded(place[i]); });
        return result;
    }

    std::uint64_t words[kCount];

private:
    struct NotSet {};
    explicit Words(NotSet) {}

    /// Unrolled, which the compiler does not do by itself.
    template <class Action>
    [[gnu::always_inline]] static void inEach(const Action& action) {
        [&]<std::size_t... kIndex>(std::index_sequence<kIndex...>) {
            (action(kIndex), ...);
        }
        (std::make_index_sequence<kCount>());
    }
    template <std::size_t kAt, std::size_t kBytes>
    void putPiece(const std::byte* from) {
        constexpr std::size_t kShift = kAt % 8 * 8;
        const std::uint64_t piece = detail::justStored<kBytes>(from);
        words[kAt / 8] |= piece << kShift;
        if constexpr (kShift + 8 * kBytes > 64)
            words[kAt / 8 + 1] |= piece >> (64 - kShift);
    }
};

/// A value and its sum, made once for all the places that take it.
template <class T>
struct Summed {
    Words<T> words;
    std::uint64_t sum = words.sum();
};

}  // namespace KivShimo
