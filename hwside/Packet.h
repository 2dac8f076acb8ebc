// A packet's header fields as a match sees them, and how they are written as text.
//
// Plain values: any thread. A field that the packet does not have (the ports of a fragment without
// a transport header, the TCP flags of a UDP packet) is absent, which is not the same as zero: only
// an entry that does not ask for the field matches.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "process/HeaderText.h"
#include "types/Protocols.h"

namespace HwSide {

/// IPv4 addresses in host byte order.
struct V4Addresses {
    std::uint32_t source = 0;
    std::uint32_t destination = 0;

    bool operator==(const V4Addresses&) const = default;
};

using V6Address = Process::V6Bytes;

/// IPv6 addresses as they stand on the wire.
struct V6Addresses {
    V6Address source{};
    V6Address destination{};

    bool operator==(const V6Addresses&) const = default;
};

struct PacketPorts {
    std::uint16_t source = 0;
    std::uint16_t destination = 0;

    bool operator==(const PacketPorts&) const = default;
};

struct PacketIcmp {
    std::uint8_t type = 0;
    std::uint8_t code = 0;

    bool operator==(const PacketIcmp&) const = default;
};

struct Packet {
    std::variant<V4Addresses, V6Addresses> addresses;
    std::uint8_t protocol = 0;  ///< IPv6: of the header after all extension headers
    std::uint8_t dscp = 0;
    std::uint8_t ttl = 64;      ///< IPv6: hop limit
    std::uint8_t fragment = 0;  ///< VornPolicyCpu::FragmentBits
    std::optional<PacketPorts> ports;
    std::optional<std::uint8_t> tcpFlags;
    std::optional<PacketIcmp> icmp;

    bool isV6() const { return std::holds_alternative<V6Addresses>(addresses); }
    bool operator==(const Packet&) const = default;
    /// One line: "192.0.2.1 > 198.51.100.7 tcp 1024 > 179 flags 0x02 ttl 1".
    std::string toText() const;
};

using enum VornPolicyCpu::Protocol;
using Process::protocolText;
using Process::v4Text;
using Process::v6Text;
using VornPolicyCpu::protocolHasPorts;

/// From a name or a decimal number up to 255; nothing for other text.
std::optional<std::uint8_t> protocolFromText(std::string_view text);

/// Nothing where the text is no address of the family.
std::optional<std::uint32_t> v4FromText(const std::string& text);
std::optional<V6Address> v6FromText(const std::string& text);

}  // namespace HwSide
