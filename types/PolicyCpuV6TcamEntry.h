// Types of the IPv6 match table.
//
// Plain values. The log entry lies in shared memory; its layout is pinned below.
#pragma once

#include "platform/brumo/Layout.h"
#include "platform/brumo/Unaligned.h"
#include "types/MatchFields.h"

namespace VornPolicyCpu {

using PolicyCpuV6TcamEntryEntryKey = MatchKey;
using PolicyCpuV6TcamEntryResourceKeys = NoResourceKeys;

/// An IPv6 address as it stands on the wire, with the mask of the bits that must agree.
///
///   0     1         17     33
///   | len | address | mask |
struct MatchV6Address {
    std::uint8_t prefixLength = 0;  ///< of the mask, for people; 0 where the mask is no prefix
    std::array<std::uint8_t, 16> address{};
    std::array<std::uint8_t, 16> mask{};

    bool operator==(const MatchV6Address&) const = default;
};
static_assert(sizeof(MatchV6Address) == 33);

/// The match entry as shared memory holds it: 139 bytes, the key at 28, addresses at 72 and 105.
///
///   0      8       16     20     28    36       40    41      55      71  72       105    138 139
///   | head | ports | prio | rsvd | key | action | sub | bytes | label | r | source | dest | r |
struct PolicyCpuV6TcamEntryLogEntry {
    Brumo::Unaligned<LogEntryHead> head = LogEntryHead{.revision = 1, .origin = 0};
    Brumo::Unaligned<MatchPorts> ports;
    Brumo::Unaligned<std::uint32_t> priority;
    std::array<std::uint8_t, 8> reserved{};
    Brumo::Unaligned<PolicyCpuV6TcamEntryEntryKey> key;
    Brumo::Unaligned<std::uint32_t> actionId;
    std::uint8_t actionSub = 0;
    MatchBytes bytes;
    std::array<char, 16> label{};
    std::uint8_t reservedBeforeAddresses = 0;
    MatchV6Address source;
    MatchV6Address destination;
    std::uint8_t reservedTail = 0;

    PolicyCpuV6TcamEntryLogEntry() = default;
    explicit PolicyCpuV6TcamEntryLogEntry(const PolicyCpuV6TcamEntryEntryKey& k) : key(k) {}

    std::uint32_t word() const { return actionId; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({Brumo::layoutOf<LogEntryHead>(), Brumo::layoutOf<MatchV6Address>(),
                                Brumo::layoutOf<MatchPorts>(), Brumo::layoutOf<MatchBytes>(),
                                Brumo::layoutOf<PolicyCpuV6TcamEntryEntryKey>(),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, head),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, ports),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, priority),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, key),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, actionId),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, actionSub),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, bytes),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, label),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, source),
                                offsetof(PolicyCpuV6TcamEntryLogEntry, destination)});
    }
    bool isEq(const PolicyCpuV6TcamEntryLogEntry& other) const {
        return std::memcmp(this, &other, sizeof(*this)) == 0;
    }
    std::string toText() const;
};
static_assert(sizeof(PolicyCpuV6TcamEntryLogEntry) == 139);
static_assert(offsetof(PolicyCpuV6TcamEntryLogEntry, key) == 28);
static_assert(offsetof(PolicyCpuV6TcamEntryLogEntry, actionId) == 36);
static_assert(offsetof(PolicyCpuV6TcamEntryLogEntry, source) == 72);
static_assert(offsetof(PolicyCpuV6TcamEntryLogEntry, destination) == 105);
static_assert(offsetof(PolicyCpuV6TcamEntryLogEntry, reservedTail) == 138);

/// The match entry as feature code writes it.
struct PolicyCpuV6TcamEntryEntry : MatchCommon {
    MatchV6Address source;
    MatchV6Address destination;

    bool operator==(const PolicyCpuV6TcamEntryEntry&) const = default;
    bool isEq(const PolicyCpuV6TcamEntryEntry& other) const { return *this == other; }

    PolicyCpuV6TcamEntryLogEntry toLogEntry() const {
        PolicyCpuV6TcamEntryLogEntry log;
        copyTo(log);
        log.source = source;
        log.destination = destination;
        return log;
    }
    NoResourceKeys resourceKeys() const { return {}; }
    static PolicyCpuV6TcamEntryEntry from(const PolicyCpuV6TcamEntryLogEntry& log,
                                          const NoResourceKeys& /*rsrcKeys*/) {
        PolicyCpuV6TcamEntryEntry entry;
        entry.logEntryIs(log, {});
        return entry;
    }
    /// Becomes what `from` returns.
    void logEntryIs(const PolicyCpuV6TcamEntryLogEntry& log, const NoResourceKeys& /*rsrcKeys*/) {
        copyFrom(log);
        source = log.source;
        destination = log.destination;
    }
};

inline std::string PolicyCpuV6TcamEntryLogEntry::toText() const {
    return PolicyCpuV6TcamEntryEntry::from(*this, {}).toText();
}

struct PolicyCpuV6TcamEntryTypes {
    static constexpr std::string_view kName = "PolicyCpuV6TcamEntry";
    static constexpr Asic::SwTableId kTableId{0x2C080405};
    using Key = PolicyCpuV6TcamEntryEntryKey;
    using Entry = PolicyCpuV6TcamEntryEntry;
    using LogEntry = PolicyCpuV6TcamEntryLogEntry;
    using ResourceKeys = NoResourceKeys;
};
static_assert(TableTypes<PolicyCpuV6TcamEntryTypes>);

using PolicyCpuV6TcamEntryLogShimoEntry = LogShimoEntry<PolicyCpuV6TcamEntryEntryKey>;
static_assert(sizeof(PolicyCpuV6TcamEntryLogShimoEntry) == 32);
using PolicyCpuV6TcamEntryConfigShimoEntry =
    ConfigShimoEntry<PolicyCpuV6TcamEntryEntryKey, PolicyCpuV6TcamEntryLogEntry, NoResourceKeys>;

}  // namespace VornPolicyCpu
