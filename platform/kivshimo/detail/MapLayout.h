// How a keyed collection lies in its area: bucket heads, then slots.
//
// Shared by the writer and the readers of maps.
//
// What always holds:
//  1. A slot's sequence word is odd while the slot is stored; bit 1 says that it holds a value. A
//     free slot has checksum 0. The two must agree, so no single wrong bit hides a value.
//  2. Links carry a check of their own place, so a rotten link is noticed and never followed.
//  3. Buckets divide hashes by their leading bits and chains are sorted by (hash, key): the order
//     of buckets and chains is the order of the collection.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>  // allow: launder is declared there
#include <optional>
#include <type_traits>

#include "platform/kivshimo/detail/FixedSum.h"
#include "platform/kivshimo/detail/Words.h"

namespace KivShimo::detail {

constexpr std::uint64_t kMidStore = 1;
constexpr std::uint64_t kHoldsValue = 2;
constexpr std::uint64_t kSequenceStep = 4;

/// A slot.
///
///   0          8          16     24            24 + value, in whole words
///   | sequence | checksum | link | value words |
template <class Value>
struct MapSlot {
    std::uint64_t sequence;
    std::uint64_t checksum;
    std::uint64_t link;
    std::uint64_t value[Words<Value>::kCount];
};

constexpr std::size_t mapSlotBytes(std::size_t valueBytes) {
    return 24 + 8 * wordsOf(valueBytes);
}

/// A power of two, as many as slots or more.
constexpr std::uint64_t mapBuckets(std::uint64_t slots) {
    return std::bit_ceil(slots < 2 ? std::uint64_t{2} : slots);
}
/// Bytes of the area: one head of 8 bytes for each bucket, then the slots.
constexpr std::uint64_t mapBytes(std::uint64_t slots, std::size_t valueBytes) {
    return 8 * mapBuckets(slots) + slots * mapSlotBytes(valueBytes);
}

/// A copy of a value, as only the one writer may take it: nobody stores into its words meanwhile.
template <class Value>
class Copy {
    static_assert(std::is_trivially_copyable_v<Value> && alignof(Value) <= alignof(std::uint64_t));

public:
    // Nothing is stored before the copy is: that would be most of its cost.
    explicit Copy(const std::uint64_t* words) { std::memcpy(words_, words, sizeof(words_)); }

    /// As Words<Value>::sum.
    std::uint64_t sum() const { return fixedSum<sizeof(words_)>(words_); }
    const Value& value() const { return *std::launder(reinterpret_cast<const Value*>(words_)); }

private:
    std::uint64_t words_[Words<Value>::kCount];
};

/// A link to a slot, or to none, with a check of the place where it stands.
struct Link {
    static constexpr std::uint32_t kNone = 0xFFFFFFFF;

    static std::uint64_t encoded(std::uint32_t target, std::uint64_t place) {
        return std::uint64_t{target} | mixed(place, target) << 32U;
    }
    /// Empty when the word is no link of that place.
    static std::optional<std::uint32_t> decoded(std::uint64_t stored, std::uint64_t place) {
        const auto target = static_cast<std::uint32_t>(stored);
        if (stored != encoded(target, place))
            return std::nullopt;
        return target;
    }
    static std::uint64_t headPlace(std::uint64_t seed, std::uint64_t bucket) {
        return mixed(seed, bucket << 1U);
    }
    static std::uint64_t slotPlace(std::uint64_t seed, std::uint64_t slot) {
        return mixed(seed, slot << 1U | 1U);
    }
};

/// The word that tells of changes of the links: how often they have begun and ended to change, so
/// that it is odd meanwhile, with a check. 0 in a file whose links were never made.
struct Structure {
    static std::uint64_t encoded(std::uint32_t sequence, std::uint64_t seed) {
        return Link::encoded(sequence, mixed(seed, ~std::uint64_t{0}));
    }
    /// Empty when the word does not verify.
    static std::optional<std::uint32_t> decoded(std::uint64_t stored, std::uint64_t seed) {
        return stored == 0 ? 0 : Link::decoded(stored, mixed(seed, ~std::uint64_t{0}));
    }
};

/// Seeds a slot's checksum.
constexpr std::uint64_t slotSeed(std::uint64_t seed, std::uint64_t slot) {
    return mixed(seed, ~slot);
}

}  // namespace KivShimo::detail
