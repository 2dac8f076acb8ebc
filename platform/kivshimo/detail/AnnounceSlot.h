// A slot of the announce log, and how it verifies.
//
// Shared by the log's writer and its readers.
//
// What always holds:
//  1. The check covers all other fields and the file's identity; a zeroed slot does not verify.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "platform/brumo/Unaligned.h"
#include "platform/kivshimo/detail/Words.h"

namespace KivShimo::detail {

/// Type name and collection of the file.
constexpr const char* kAnnounceType = "KivShimo::AnnounceLog";
constexpr const char* kAnnounceCollection = "announcements";

enum class AnnounceKind : std::uint8_t {
    none = 0,
    change = 1,        ///< the last slot of an announcement
    continuation = 2,  ///< more needed versions; goes before
};

constexpr std::size_t kInlineNeeded = 3;

struct AnnounceNeeded {
    Brumo::Unaligned<std::uint32_t> tableId;
    Brumo::Unaligned<std::uint64_t> version;
};
static_assert(sizeof(AnnounceNeeded) == 12 && alignof(AnnounceNeeded) == 1);

///   0          8       12     13            14        16        24        28           64
///   | position | check | kind | neededCount | padding | version | tableId | needed[3]  |
struct AnnounceSlot {
    std::uint64_t position = 0;
    std::uint32_t check = 0;
    AnnounceKind kind = AnnounceKind::none;
    std::uint8_t neededCount = 0;
    std::uint16_t padding = 0;
    std::uint64_t version = 0;
    std::uint32_t tableId = 0;
    std::array<AnnounceNeeded, kInlineNeeded> needed{};

    /// As it lies in memory, with that check.
    std::array<std::uint64_t, 8> words(std::uint32_t ownCheck) const {
        const std::uint64_t kinds = std::uint64_t{static_cast<std::uint8_t>(kind)} |
                                    std::uint64_t{neededCount} << 8U |
                                    std::uint64_t{padding} << 16U;
        const auto& [first, second, third] = needed;
        return {position,
                ownCheck | kinds << 32U,
                version,
                tableId | std::uint64_t{first.tableId} << 32U,
                first.version,
                second.tableId | second.version.get() << 32U,
                second.version.get() >> 32U | std::uint64_t{third.tableId} << 32U,
                third.version};
    }
    /// What the check is to be.
    std::uint32_t sum(std::uint64_t seed) const {
        const auto summed = words(0);
        return static_cast<std::uint32_t>(
            checksumOf(summed.data(), sizeof(summed), mixed(seed, position)));
    }
    bool verifies(std::uint64_t seed) const {
        return position != 0 && check == sum(seed) && neededCount <= kInlineNeeded &&
               (kind == AnnounceKind::change || kind == AnnounceKind::continuation);
    }
};
static_assert(sizeof(AnnounceSlot) == 64 && std::is_trivially_copyable_v<AnnounceSlot>);
static_assert(offsetof(AnnounceSlot, check) == 8 && offsetof(AnnounceSlot, version) == 16);
static_assert(offsetof(AnnounceSlot, tableId) == 24 && offsetof(AnnounceSlot, needed) == 28);
static_assert(Words<AnnounceSlot>::kCount == 8);

}  // namespace KivShimo::detail
