// Version numbers and identities of the ordered-table framework.
//
// Plain values: any thread. Each kind of number is a type of its own, so that one is never taken
// for another; all of them are trivially copyable and may lie in shared memory.
#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <string>

#include <fmt/format.h>

#include "platform/brumo/Text.h"

namespace Asic {

/// One chip unit; 0xFFFF is no unit.
struct UnitId {
    std::uint16_t value = 0xFFFF;

    auto operator<=>(const UnitId&) const = default;
    std::uint32_t hash(unsigned seed) const { return (value + seed) * 2654435761U; }
    bool isEq(const UnitId& other) const { return value == other.value; }
    std::string toText() const { return std::to_string(value); }
};

/// Version that an entry log hands out, one per accepted change; 0 means none.
struct LogVersion {
    std::uint64_t value = 0;

    auto operator<=>(const LogVersion&) const = default;
    std::string toText() const { return std::to_string(value); }
};

/// Count of remove-alls in flight: invalid is none, 0 is one, n is n + 1.
struct MajorVersion {
    static constexpr std::uint64_t kInvalid = std::numeric_limits<std::uint64_t>::max();

    std::uint64_t value = kInvalid;

    bool valid() const { return value != kInvalid; }
    auto operator<=>(const MajorVersion&) const = default;
    std::string toText() const { return std::to_string(value); }
};

/// Version of one change of one key; all bits set in both parts is invalid.
struct EntryVersion {
    std::uint64_t sequence = std::numeric_limits<std::uint64_t>::max();
    std::uint16_t generation = std::numeric_limits<std::uint16_t>::max();

    bool valid() const { return !isEq(EntryVersion{}); }
    bool isEq(const EntryVersion& other) const {
        return sequence == other.sequence && generation == other.generation;
    }
    EntryVersion next() const { return {sequence + 1, generation}; }
    std::string toText() const { return fmt::format("{}.{}", sequence, generation); }
};

/// A software table's identity, one 32-bit value: agent, group and table number.
struct SwTableId {
    std::uint8_t agentId = 0;
    std::uint8_t groupId = 0;
    std::uint16_t tblId = 0;

    constexpr SwTableId() = default;
    constexpr SwTableId(std::uint8_t agent, std::uint8_t group, std::uint16_t table)
        : agentId(agent), groupId(group), tblId(table) {}
    constexpr explicit SwTableId(std::uint32_t whole)
        : agentId(static_cast<std::uint8_t>(whole >> 24U)),
          groupId(static_cast<std::uint8_t>(whole >> 16U)),
          tblId(static_cast<std::uint16_t>(whole)) {}

    constexpr std::uint32_t whole() const {
        return std::uint32_t{agentId} << 24U | std::uint32_t{groupId} << 16U | tblId;
    }
    constexpr std::uint16_t agentAndGroupId() const {
        return static_cast<std::uint16_t>(agentId << 8U | groupId);
    }
    bool operator==(const SwTableId&) const = default;
    auto operator<=>(const SwTableId& other) const { return whole() <=> other.whole(); }
    std::uint32_t hash(unsigned seed) const { return (whole() ^ seed) * 2654435761U; }
    bool isEq(const SwTableId& other) const { return whole() == other.whole(); }
    std::string toText() const {
        return fmt::format("{:02x}:{:02x}:{:04x}", agentId, groupId, tblId);
    }
};

/// A version of a table's log: what a change may need the hardware to hold first.
struct TableVersion {
    SwTableId tableId;
    LogVersion version;

    auto operator<=>(const TableVersion&) const = default;
    std::string toText() const { return version.toText(); }
};

}  // namespace Asic
