// The bytes in front of every file of shared memory: what it is, who holds it, what it publishes.
//
// Written by the file's one writer. The first page is written once, before the file gets its name;
// the second holds words that change; the third is the journal.
//
// What always holds:
//  1. A file that has its name has a complete first page, sealed by its checksum.
//  2. Nothing is read from a file before its size and its first page are checked.
//  3. `identity` is drawn at random for each file and seeds all checksums in it, so that bytes of
//     another file never verify.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/kivshimo/Journal.h"
#include "platform/kivshimo/detail/Words.h"

namespace KivShimo::detail {

constexpr std::size_t kPageBytes = 4096;
constexpr std::size_t kMostCollections = 8;
constexpr std::uint64_t kMagic = 0x31304D4948535642U;  ///< "BVSHIM01" as bytes of the file
constexpr std::uint32_t kLayoutVersion = 5;
constexpr std::uint64_t kMostSlots = std::uint64_t{1} << 31U;

/// How the area of a collection is laid out.
enum class CollectionKind : std::uint32_t {
    none = 0,
    map = 1,         ///< heads, then slots
    versionLog = 2,  ///< checks, then records
    announceLog = 3,
    ackMap = 4,
};

/// One collection's declaration.
///
///   0      48     52            56         64      72       80      88            96
///   | name | kind | recordBytes | capacity | slots | offset | bytes | fingerprint |
struct CollectionHeader {
    char name[48];
    CollectionKind kind;
    std::uint32_t recordBytes;
    std::uint64_t capacity;     ///< as declared, under the ceiling
    std::uint64_t slots;        ///< physical room
    std::uint64_t offset;       ///< of the area in the file, a multiple of the page
    std::uint64_t bytes;        ///< of the area
    std::uint64_t fingerprint;  ///< of the record's layout

    bool operator==(const CollectionHeader&) const = default;
};
static_assert(sizeof(CollectionHeader) == 96 && offsetof(CollectionHeader, kind) == 48);
static_assert(offsetof(CollectionHeader, capacity) == 56);
static_assert(offsetof(CollectionHeader, fingerprint) == 88);
static_assert(std::has_unique_object_representations_v<CollectionHeader>);

/// First page.
///
///   0       8               12            16          24         32            40        48
///   | magic | layoutVersion | collections | fileBytes | identity | fingerprint | place |
///   48         176                 944        952
///   | typeName | collection[0..7]  | checksum |
struct StaticHeader {
    std::uint64_t magic;
    std::uint32_t layoutVersion;
    std::uint32_t collections;
    std::uint64_t fileBytes;
    std::uint64_t identity;
    std::uint64_t fingerprint;  ///< of type name and collections: what a reader expects
    std::uint64_t place;        ///< below the root: tells it from others of its type
    char typeName[128];
    CollectionHeader collection[kMostCollections];
    std::uint64_t checksum;  ///< of all bytes before, seeded with the magic
};
static_assert(offsetof(StaticHeader, typeName) == 48 && offsetof(StaticHeader, collection) == 176);
static_assert(offsetof(StaticHeader, checksum) == 944 && sizeof(StaticHeader) == 952);
static_assert(std::has_unique_object_representations_v<StaticHeader>);

/// Second page; words that change, on cache lines of their own.
///
///   0           64      128          192     256          320                  384          448
///   | holderPid | wiped | scratchpad | tail  | sleepEpoch | structure sequence | pause request |
struct DynamicHeader {
    alignas(64) std::uint64_t holderPid;  ///< of the process that mounted for writing last
    alignas(64) std::uint64_t wiped;      ///< kNotWiped or kWiped; see WipedMark
    alignas(64) VerifiedWord scratchpad;
    alignas(64) VerifiedWord tail;         ///< last published position of an announce log
    alignas(64) std::uint64_t sleepEpoch;  ///< see SleepEpoch
    alignas(64) std::uint64_t structure[kMostCollections];  ///< maps: see Structure
    alignas(64) VerifiedWord pause;                         ///< acknowledgement file only
};
static_assert(offsetof(DynamicHeader, scratchpad) == 128);
static_assert(offsetof(DynamicHeader, sleepEpoch) == 256);
static_assert(offsetof(DynamicHeader, structure) == 320);
static_assert(offsetof(DynamicHeader, pause) == 384 && sizeof(DynamicHeader) == 448);

/// Seeds the checks of a file's verified words.
constexpr std::uint64_t wordSeed(std::uint64_t identity) {
    return mixed(identity, 0x766572696679U);
}

/// The values of the word `wiped`: they differ in all bits, and a word that was zeroed is as far
/// from the one as from the other.
constexpr std::uint64_t kNotWiped = 0x0F1E2D3C4B5A6978U;
constexpr std::uint64_t kWiped = ~kNotWiped;
static_assert(std::popcount(kNotWiped) == 32);

/// What the word `wiped` says: a few wrong bits lose nothing, for the nearer of its two values
/// counts. What is as far from both counts as wiped.
struct WipedMark {
    explicit constexpr WipedMark(std::uint64_t stored)
        : isWiped(std::popcount(stored ^ kWiped) <= std::popcount(stored ^ kNotWiped)),
          isRotten(stored != (isWiped ? kWiped : kNotWiped)) {}

    bool isWiped;
    bool isRotten;  ///< it has neither value
};

/// The word `sleepEpoch`: the epoch in its lower half, a check in the upper one, so that one store
/// changes both. The writer's process sleeps while the epoch is odd.
struct SleepEpoch {
    static constexpr std::uint32_t kAsleep = 1;
    static constexpr std::uint32_t kOrdersBoth = 2;  ///< see Doorbell.h
    static constexpr std::uint32_t kStep = 4;        ///< from one sleep to the next

    static constexpr std::uint64_t encoded(std::uint32_t epoch, std::uint64_t seed) {
        return epoch | mixed(seed, epoch) << 32U;
    }
    /// Empty when the word is rotten.
    static constexpr std::optional<std::uint32_t> decoded(std::uint64_t stored,
                                                          std::uint64_t seed) {
        const auto epoch = static_cast<std::uint32_t>(stored);
        return stored == encoded(epoch, seed) ? std::optional(epoch) : std::nullopt;
    }
    static constexpr std::uint64_t seedOf(std::uint64_t identity) {
        return mixed(identity, 0x736C656570U);
    }
};

/// Where such a word lies, and what seeds its check. Readers have the mapping read-only.
struct SleepWord {
    const std::uint64_t& place;
    std::uint64_t seed;
};

constexpr std::size_t kDynamicOffset = kPageBytes;
constexpr std::size_t kJournalOffset = 2 * kPageBytes;
constexpr std::size_t kAreasOffset = 3 * kPageBytes;
static_assert(sizeof(StaticHeader) <= kPageBytes && sizeof(DynamicHeader) <= kPageBytes);
static_assert(sizeof(Journal) <= kPageBytes);

/// What a collection needs to be known of, to make or to check a file.
struct CollectionPlan {
    std::string name;
    CollectionKind kind = CollectionKind::none;
    std::uint32_t recordBytes = 0;
    std::uint64_t fingerprint = 0;
    std::uint64_t capacity = 0;
};

/// Says where below its root a file belongs: a reader knows the file but not the root.
std::uint64_t placeOf(std::string_view belowRoot);
bool isInPlace(std::uint64_t place, std::string_view file);
/// The root of a file that is in its place.
std::string rootOf(std::uint64_t place, std::string_view file);

/// The first page for such a file, but for place, identity and checksum. REQUIRES: names that fit.
StaticHeader plannedHeader(std::string_view typeName, const std::vector<CollectionPlan>& plan);

/// Seals the page.
void seal(StaticHeader& header);

/// Why the page is not one of ours, or empty.
std::string defectOf(const StaticHeader& header, std::uint64_t fileBytes);

/// Why the page, though whole, does not describe what is planned; empty when it does. Capacities,
/// and collections that are not planned, count only with `compareCapacity`.
std::string differenceOf(const StaticHeader& header, const StaticHeader& planned,
                         bool compareCapacity);

}  // namespace KivShimo::detail
