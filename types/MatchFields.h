// What the IPv4 and the IPv6 match entries have in common: the fields besides the addresses.
//
// Plain values. Zero means "any" everywhere: a mask of zero matches every value, a port range of
// 0-0 every port.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>

#include "platform/brumo/Layout.h"
#include "types/PolicyCpuTcamAction.h"
#include "types/Records.h"

namespace VornPolicyCpu {

/// Key of a match entry; fills all 8 bytes.
struct MatchKey {
    std::uint32_t rule = 0;
    std::uint32_t term = 0;

    auto operator<=>(const MatchKey&) const = default;
    bool isEq(const MatchKey& other) const { return *this == other; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(MatchKey, rule), offsetof(MatchKey, term)});
    }
    std::uint32_t hash(unsigned seed) const {
        return Asic::hashOf64(std::uint64_t{rule} << 32U | term, seed);
    }
    std::string toText() const { return fmt::format("{:08x}.{:08x}", rule, term); }
};
static_assert(sizeof(MatchKey) == 8);

/// One-byte header fields, each with the mask of the bits that must agree.
struct MatchBytes {
    std::uint8_t protocol = 0;  ///< IPv6: next header
    std::uint8_t protocolMask = 0;
    std::uint8_t dscp = 0;
    std::uint8_t dscpMask = 0;
    std::uint8_t ttl = 0;  ///< IPv6: hop limit
    std::uint8_t ttlMask = 0;
    std::uint8_t tcpFlags = 0;  ///< bits as in the TCP header, FIN is 1 (RFC 9293)
    std::uint8_t tcpFlagsMask = 0;
    std::uint8_t fragment = 0;  ///< FragmentBits
    std::uint8_t fragmentMask = 0;
    std::uint8_t icmpType = 0;
    std::uint8_t icmpTypeMask = 0;
    std::uint8_t icmpCode = 0;
    std::uint8_t icmpCodeMask = 0;

    bool operator==(const MatchBytes&) const = default;
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(MatchBytes, protocol), offsetof(MatchBytes, protocolMask),
                                offsetof(MatchBytes, dscp), offsetof(MatchBytes, dscpMask),
                                offsetof(MatchBytes, ttl), offsetof(MatchBytes, ttlMask),
                                offsetof(MatchBytes, tcpFlags), offsetof(MatchBytes, tcpFlagsMask),
                                offsetof(MatchBytes, fragment), offsetof(MatchBytes, fragmentMask),
                                offsetof(MatchBytes, icmpType), offsetof(MatchBytes, icmpTypeMask),
                                offsetof(MatchBytes, icmpCode),
                                offsetof(MatchBytes, icmpCodeMask)});
    }
};
static_assert(sizeof(MatchBytes) == 14);

/// Bits of the `fragment` field.
enum FragmentBits : std::uint8_t {
    kIsFragment = 1,        ///< any fragment, the first included
    kNonFirstFragment = 2,  ///< fragment offset is not 0: there is no transport header
    kDontFragment = 4,      ///< IPv4 only
};

/// Port ranges, both ends included; 0-0 is any port.
struct MatchPorts {
    std::uint16_t sourceLow = 0;
    std::uint16_t sourceHigh = 0;
    std::uint16_t destinationLow = 0;
    std::uint16_t destinationHigh = 0;

    bool operator==(const MatchPorts&) const = default;
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(MatchPorts, sourceLow), offsetof(MatchPorts, sourceHigh),
                                offsetof(MatchPorts, destinationLow),
                                offsetof(MatchPorts, destinationHigh)});
    }
};
static_assert(sizeof(MatchPorts) == 8);

/// Fields of a match entry besides the addresses, as feature code writes them.
struct MatchCommon {
    MatchKey key;
    PolicyCpuTcamActionEntryKey actionKey;  ///< the action of what matches
    std::uint32_t priority = 0;             ///< the higher wins; equal ones: the lower key
    MatchPorts ports;
    MatchBytes bytes;
    std::array<char, 16> label{};  ///< for people; zero-padded

    bool operator==(const MatchCommon&) const = default;

    /// Copies between an entry and a log entry, whose members have the same names.
    template <class LogEntry>
    void copyTo(LogEntry& log) const {
        log.key = key;
        log.actionId = actionKey.id;
        log.actionSub = actionKey.sub;
        log.priority = priority;
        log.ports = ports;
        log.bytes = bytes;
        log.label = label;
    }
    template <class LogEntry>
    void copyFrom(const LogEntry& log) {
        key = log.key;
        actionKey = {};
        actionKey.id = log.actionId;
        actionKey.sub = log.actionSub;
        priority = log.priority;
        ports = log.ports;
        bytes = log.bytes;
        label = log.label;
    }
    std::string toText() const {
        return fmt::format("key {} {} priority {} action {}", key, textOf(label), priority,
                           actionKey);
    }
};

}  // namespace VornPolicyCpu
