// The room for one pending change in the header of a table file: what is being done, sealed.
//
// Every table file has this room; no writer fills it and no mount reads it yet. It is the place of
// the table's one writer: a change touches several places, and a journal that holds it as a whole
// lets a mount complete it.
//
// What holds of a journal that is filled:
//  1. `seal` is the checksum of all bytes before it, seeded with the file's identity; 0 is no seal.
//  2. A sealed change may be carried out any number of times with the same result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace KivShimo {

/// One table version that a change needs the hardware to hold first.
struct JournalNeeded {
    std::uint64_t version;
    std::uint32_t tableId;
    std::uint32_t padding;
};
static_assert(sizeof(JournalNeeded) == 16);

/// The pending change.
///
///   0           4      8         16      24           28            32      288      4064   4072
///   | operation | unit | version | flags | valueBytes | neededCount | value | needed | seal |
struct Journal {
    static constexpr std::size_t kValueBytes = 256;
    static constexpr std::size_t kMostNeeded = 236;

    std::uint32_t operation;  ///< 0: none, so zeroed memory is no change
    std::uint32_t unit;
    std::uint64_t version;
    std::uint64_t flags;
    std::uint32_t valueBytes;
    std::uint32_t neededCount;
    std::uint8_t value[kValueBytes];  ///< the key, or the whole value, as the operation says
    JournalNeeded needed[kMostNeeded];
    std::uint64_t seal;
};
static_assert(std::is_trivially_copyable_v<Journal>);
static_assert(offsetof(Journal, version) == 8 && offsetof(Journal, flags) == 16);
static_assert(offsetof(Journal, valueBytes) == 24 && offsetof(Journal, neededCount) == 28);
static_assert(offsetof(Journal, value) == 32 && offsetof(Journal, needed) == 288);
static_assert(offsetof(Journal, seal) == 4064 && sizeof(Journal) == 4072);

}  // namespace KivShimo
