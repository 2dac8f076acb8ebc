// The protocols above IP that have a name: in policies, in requests and in what is printed.
//
// Plain values and pure functions: any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace VornPolicyCpu {

enum Protocol : std::uint8_t {
    kIcmp = 1,
    kIgmp = 2,
    kTcp = 6,
    kUdp = 17,
    kDccp = 33,
    kRsvp = 46,
    kGre = 47,
    kEsp = 50,
    kAh = 51,
    kIcmpV6 = 58,
    kEigrp = 88,
    kOspf = 89,
    kPim = 103,
    kVrrp = 112,
    kIsis = 124,
    kSctp = 132,
    kUdpLite = 136,
};

struct ProtocolName {
    std::string_view name;
    Protocol protocol;
};
inline constexpr auto kProtocolNames = std::to_array<ProtocolName>({
    {"icmp", kIcmp},
    {"igmp", kIgmp},
    {"tcp", kTcp},
    {"udp", kUdp},
    {"dccp", kDccp},
    {"rsvp", kRsvp},
    {"gre", kGre},
    {"esp", kEsp},
    {"ah", kAh},
    {"icmpv6", kIcmpV6},
    {"eigrp", kEigrp},
    {"ospf", kOspf},
    {"pim", kPim},
    {"vrrp", kVrrp},
    {"isis", kIsis},
    {"sctp", kSctp},
    {"udplite", kUdpLite},
});

constexpr std::optional<std::uint8_t> protocolByName(std::string_view name) {
    for (const ProtocolName& known : kProtocolNames) {
        if (known.name == name)
            return known.protocol;
    }
    return std::nullopt;
}

/// Nothing where the protocol has no name here.
constexpr std::optional<std::string_view> nameOfProtocol(std::uint8_t protocol) {
    for (const ProtocolName& known : kProtocolNames) {
        if (known.protocol == protocol)
            return known.name;
    }
    return std::nullopt;
}

/// Whether packets of the protocol begin with a source and a destination port.
constexpr bool protocolHasPorts(std::uint8_t protocol) {
    return protocol == kTcp || protocol == kUdp || protocol == kDccp || protocol == kSctp ||
           protocol == kUdpLite;
}

}  // namespace VornPolicyCpu
