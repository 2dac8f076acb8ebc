// Types of the IPv4 match table.
//
// Plain values. The log entry lies in shared memory; its layout is pinned below.
#pragma once

#include "platform/brumo/Layout.h"
#include "platform/brumo/Unaligned.h"
#include "types/MatchFields.h"

namespace VornPolicyCpu {

using PolicyCpuV4TcamEntryEntryKey = MatchKey;
using PolicyCpuV4TcamEntryResourceKeys = NoResourceKeys;

/// IPv4 addresses in host byte order, each with the mask of the bits that must agree.
struct MatchV4Addresses {
    std::uint32_t source = 0;
    std::uint32_t sourceMask = 0;
    std::uint32_t destination = 0;
    std::uint32_t destinationMask = 0;

    bool operator==(const MatchV4Addresses&) const = default;
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf(
            {offsetof(MatchV4Addresses, source), offsetof(MatchV4Addresses, sourceMask),
             offsetof(MatchV4Addresses, destination), offsetof(MatchV4Addresses, destinationMask)});
    }
};
static_assert(sizeof(MatchV4Addresses) == 16);

/// The match entry as shared memory holds it: 111 bytes, the key at 52.
///
///   0      8           24      32         36      50         52    60       64    65      81   111
///   | head | addresses | ports | priority | bytes | reserved | key | action | sub | label | rsvd |
struct PolicyCpuV4TcamEntryLogEntry {
    Brumo::Unaligned<LogEntryHead> head = LogEntryHead{.revision = 1, .origin = 0};
    Brumo::Unaligned<MatchV4Addresses> addresses;
    Brumo::Unaligned<MatchPorts> ports;
    Brumo::Unaligned<std::uint32_t> priority;
    MatchBytes bytes;
    std::array<std::uint8_t, 2> reserved{};
    Brumo::Unaligned<PolicyCpuV4TcamEntryEntryKey> key;
    Brumo::Unaligned<std::uint32_t> actionId;
    std::uint8_t actionSub = 0;
    std::array<char, 16> label{};
    std::array<std::uint8_t, 30> reservedTail{};

    PolicyCpuV4TcamEntryLogEntry() = default;
    explicit PolicyCpuV4TcamEntryLogEntry(const PolicyCpuV4TcamEntryEntryKey& k) : key(k) {}

    std::uint32_t word() const { return actionId; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({Brumo::layoutOf<LogEntryHead>(),
                                Brumo::layoutOf<MatchV4Addresses>(), Brumo::layoutOf<MatchPorts>(),
                                Brumo::layoutOf<MatchBytes>(),
                                Brumo::layoutOf<PolicyCpuV4TcamEntryEntryKey>(),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, head),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, addresses),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, ports),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, priority),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, bytes),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, key),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, actionId),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, actionSub),
                                offsetof(PolicyCpuV4TcamEntryLogEntry, label)});
    }
    bool isEq(const PolicyCpuV4TcamEntryLogEntry& other) const {
        return std::memcmp(this, &other, sizeof(*this)) == 0;
    }
    std::string toText() const;
};
static_assert(sizeof(PolicyCpuV4TcamEntryLogEntry) == 111);
static_assert(offsetof(PolicyCpuV4TcamEntryLogEntry, key) == 52);
static_assert(offsetof(PolicyCpuV4TcamEntryLogEntry, actionId) == 60);

/// The match entry as feature code writes it.
struct PolicyCpuV4TcamEntryEntry : MatchCommon {
    MatchV4Addresses addresses;

    bool operator==(const PolicyCpuV4TcamEntryEntry&) const = default;
    bool isEq(const PolicyCpuV4TcamEntryEntry& other) const { return *this == other; }

    PolicyCpuV4TcamEntryLogEntry toLogEntry() const {
        PolicyCpuV4TcamEntryLogEntry log;
        copyTo(log);
        log.addresses = addresses;
        return log;
    }
    NoResourceKeys resourceKeys() const { return {}; }
    static PolicyCpuV4TcamEntryEntry from(const PolicyCpuV4TcamEntryLogEntry& log,
                                          const NoResourceKeys& /*rsrcKeys*/) {
        PolicyCpuV4TcamEntryEntry entry;
        entry.logEntryIs(log, {});
        return entry;
    }
    /// Becomes what `from` returns.
    void logEntryIs(const PolicyCpuV4TcamEntryLogEntry& log, const NoResourceKeys& /*rsrcKeys*/) {
        copyFrom(log);
        addresses = log.addresses;
    }
};

inline std::string PolicyCpuV4TcamEntryLogEntry::toText() const {
    return PolicyCpuV4TcamEntryEntry::from(*this, {}).toText();
}

struct PolicyCpuV4TcamEntryTypes {
    static constexpr std::string_view kName = "PolicyCpuV4TcamEntry";
    static constexpr Asic::SwTableId kTableId{0x2C080404};
    using Key = PolicyCpuV4TcamEntryEntryKey;
    using Entry = PolicyCpuV4TcamEntryEntry;
    using LogEntry = PolicyCpuV4TcamEntryLogEntry;
    using ResourceKeys = NoResourceKeys;
};
static_assert(TableTypes<PolicyCpuV4TcamEntryTypes>);

using PolicyCpuV4TcamEntryLogShimoEntry = LogShimoEntry<PolicyCpuV4TcamEntryEntryKey>;
static_assert(sizeof(PolicyCpuV4TcamEntryLogShimoEntry) == 32);
using PolicyCpuV4TcamEntryConfigShimoEntry =
    ConfigShimoEntry<PolicyCpuV4TcamEntryEntryKey, PolicyCpuV4TcamEntryLogEntry, NoResourceKeys>;

}  // namespace VornPolicyCpu
