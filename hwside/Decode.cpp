#include "hwside/Decode.h"

#include <algorithm>

#include "types/MatchFields.h"

namespace HwSide {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kEthernetHeader_bytes = 14;
constexpr std::size_t kCookedHeader_bytes = 16;
constexpr std::size_t kVlanTag_bytes = 4;
constexpr std::size_t kV4Header_bytes = 20;
constexpr std::size_t kV6Header_bytes = 40;
constexpr std::size_t kFragmentHeader_bytes = 8;
constexpr std::uint8_t kHopByHop = 0;
constexpr std::uint8_t kRouting = 43;
constexpr std::uint8_t kFragmentHeader = 44;
constexpr std::uint8_t kDestinationOptions = 60;
constexpr std::uint8_t kMobility = 135;
constexpr std::uint8_t kHostIdentity = 139;
constexpr std::uint8_t kShim6 = 140;

std::uint16_t read16(Bytes bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8U | bytes[at + 1]);
}

std::uint32_t read32(Bytes bytes, std::size_t at) {
    return std::uint32_t{read16(bytes, at)} << 16U | read16(bytes, at + 2);
}

Decoded failed(DecodeOutcome outcome, std::string_view reason) {
    return {outcome, reason, {}};
}

/// What follows the network headers: `bytes` were captured, `claimed_bytes` are in the packet.
struct Transport {
    Bytes bytes;
    std::size_t claimed_bytes;
};

/// Fills in the transport fields; false where the capture ends within them.
bool readTransport(Packet& packet, const Transport& transport) {
    if ((packet.fragment & VornPolicyCpu::kNonFirstFragment) != 0)
        return true;
    const Bytes bytes = transport.bytes;
    const auto missing = [&](std::size_t end) {
        return bytes.size() < end && transport.claimed_bytes >= end;
    };
    const bool icmp = packet.protocol == (packet.isV6() ? kIcmpV6 : kIcmp);
    const bool ports = protocolHasPorts(packet.protocol);
    const bool tcp = packet.protocol == kTcp;
    if ((icmp && missing(2)) || (ports && missing(4)) || (tcp && missing(14)))
        return false;
    if (icmp && bytes.size() >= 2)
        packet.icmp = PacketIcmp{bytes[0], bytes[1]};
    if (ports && bytes.size() >= 4)
        packet.ports = PacketPorts{read16(bytes, 0), read16(bytes, 2)};
    if (tcp && bytes.size() >= 14)
        packet.tcpFlags = bytes[13];
    return true;
}

Decoded finish(Packet packet, const Transport& transport) {
    if (!readTransport(packet, transport)) {
        return failed(DecodeOutcome::truncated, "the capture ends within the transport header");
    }
    const bool needsPorts = protocolHasPorts(packet.protocol);
    const bool needsIcmp = packet.protocol == (packet.isV6() ? kIcmpV6 : kIcmp);
    const bool whole = (!needsPorts || packet.ports) && (!needsIcmp || packet.icmp) &&
                       (packet.protocol != kTcp || packet.tcpFlags);
    if (!whole && (packet.fragment & VornPolicyCpu::kIsFragment) == 0) {
        return failed(DecodeOutcome::malformed, "the packet ends within its transport header");
    }
    return {DecodeOutcome::ok, {}, packet};
}

Decoded decodeV4(Bytes bytes) {
    if (bytes.size() < kV4Header_bytes) {
        return failed(DecodeOutcome::truncated, "the capture ends within the IPv4 header");
    }
    const std::size_t header_bytes = (bytes[0] & 0xFU) * std::size_t{4};
    const std::size_t total_bytes = read16(bytes, 2);
    if (header_bytes < kV4Header_bytes || total_bytes < header_bytes) {
        return failed(DecodeOutcome::malformed, "the IPv4 header's lengths contradict each other");
    }
    if (bytes.size() < header_bytes) {
        return failed(DecodeOutcome::truncated, "the capture ends within the IPv4 options");
    }
    Packet packet;
    packet.addresses = V4Addresses{read32(bytes, 12), read32(bytes, 16)};
    packet.dscp = static_cast<std::uint8_t>(bytes[1] >> 2U);
    packet.ttl = bytes[8];
    packet.protocol = bytes[9];
    const unsigned fragment = read16(bytes, 6);
    unsigned bits = 0;
    if ((fragment & 0x4000U) != 0)
        bits |= VornPolicyCpu::kDontFragment;
    if ((fragment & 0x3FFFU) != 0)
        bits |= VornPolicyCpu::kIsFragment;
    if ((fragment & 0x1FFFU) != 0)
        bits |= VornPolicyCpu::kNonFirstFragment;
    packet.fragment = static_cast<std::uint8_t>(bits);
    const Bytes rest = bytes.subspan(header_bytes);
    const std::size_t claimed_bytes = total_bytes - header_bytes;
    return finish(packet, {rest.first(std::min(rest.size(), claimed_bytes)), claimed_bytes});
}

bool isExtension(std::uint8_t nextHeader) {
    return nextHeader == kHopByHop || nextHeader == kRouting || nextHeader == kFragmentHeader ||
           nextHeader == kAh || nextHeader == kDestinationOptions || nextHeader == kMobility ||
           nextHeader == kHostIdentity || nextHeader == kShim6;
}

std::size_t extensionSize_bytes(std::uint8_t nextHeader, Bytes header) {
    if (nextHeader == kFragmentHeader)
        return kFragmentHeader_bytes;
    if (nextHeader == kAh)
        return (header[1] + std::size_t{2}) * 4;
    return (header[1] + std::size_t{1}) * 8;
}

/// Walks the extension headers; leaves the upper-layer protocol and the fragment bits in `packet`
/// and what follows in `rest`. Every header is at least 8 bytes, so the walk ends.
Decoded walkExtensions(Packet packet, Transport rest) {
    while (isExtension(packet.protocol) &&
           (packet.fragment & VornPolicyCpu::kNonFirstFragment) == 0) {
        if (rest.claimed_bytes < 8) {
            return failed(DecodeOutcome::malformed, "the packet ends within an extension header");
        }
        if (rest.bytes.size() < 8) {
            return failed(DecodeOutcome::truncated, "the capture ends within an extension header");
        }
        const std::size_t size_bytes = extensionSize_bytes(packet.protocol, rest.bytes);
        if (rest.claimed_bytes < size_bytes) {
            return failed(DecodeOutcome::malformed,
                          "an extension header is longer than its packet");
        }
        if (rest.bytes.size() < size_bytes) {
            return failed(DecodeOutcome::truncated, "the capture ends within an extension header");
        }
        if (packet.protocol == kFragmentHeader) {
            const unsigned fragment = read16(rest.bytes, 2);
            unsigned bits = packet.fragment;
            if ((fragment & 0xFFF9U) != 0)
                bits |= VornPolicyCpu::kIsFragment;
            if ((fragment & 0xFFF8U) != 0)
                bits |= VornPolicyCpu::kNonFirstFragment;
            packet.fragment = static_cast<std::uint8_t>(bits);
        }
        packet.protocol = rest.bytes[0];
        rest = {rest.bytes.subspan(size_bytes), rest.claimed_bytes - size_bytes};
    }
    return finish(packet, rest);
}

Decoded decodeV6(Bytes bytes) {
    if (bytes.size() < kV6Header_bytes) {
        return failed(DecodeOutcome::truncated, "the capture ends within the IPv6 header");
    }
    Packet packet;
    V6Addresses addresses;
    std::copy_n(bytes.begin() + 8, 16, addresses.source.begin());
    std::copy_n(bytes.begin() + 24, 16, addresses.destination.begin());
    packet.addresses = addresses;
    packet.dscp = static_cast<std::uint8_t>((bytes[0] & 0xFU) << 2U | bytes[1] >> 6U);
    packet.protocol = bytes[6];
    packet.ttl = bytes[7];
    const Bytes rest = bytes.subspan(kV6Header_bytes);
    std::size_t claimed_bytes = read16(bytes, 4);
    // A jumbo packet states its length in a hop-by-hop option; the capture's end has to do.
    if (claimed_bytes == 0 && packet.protocol == kHopByHop)
        claimed_bytes = rest.size();
    return walkExtensions(packet,
                          {rest.first(std::min(rest.size(), claimed_bytes)), claimed_bytes});
}

/// Decodes what follows an EtherType that stands at `typeAt`.
Decoded decodeTyped(Bytes frame, std::size_t typeAt) {
    while (true) {
        if (frame.size() < typeAt + 2) {
            return failed(DecodeOutcome::truncated, "the capture ends within a VLAN tag");
        }
        const unsigned type = read16(frame, typeAt);
        const Bytes rest = frame.subspan(typeAt + 2);
        if (type == 0x8100 || type == 0x88A8 || type == 0x9100) {
            typeAt += kVlanTag_bytes;
            continue;
        }
        if (type != 0x0800 && type != 0x86DD)
            return failed(DecodeOutcome::notIp, "not IP");
        if (!rest.empty() && (rest[0] >> 4U) != (type == 0x0800 ? 4 : 6)) {
            return failed(DecodeOutcome::malformed, "the IP version contradicts the frame's type");
        }
        return decodeIp(rest);
    }
}

}  // namespace

std::string_view outcomeText(DecodeOutcome outcome) {
    switch (outcome) {
        case DecodeOutcome::ok:
            return "ok";
        case DecodeOutcome::notIp:
            return "not IP";
        case DecodeOutcome::truncated:
            return "truncated";
        case DecodeOutcome::malformed:
            break;
    }
    return "malformed";
}

Decoded decodeEthernet(Bytes frame) {
    if (frame.size() < kEthernetHeader_bytes) {
        return failed(DecodeOutcome::truncated, "the capture ends within the Ethernet header");
    }
    return decodeTyped(frame, kEthernetHeader_bytes - 2);
}

Decoded decodeLinuxCooked(Bytes frame) {
    if (frame.size() < kCookedHeader_bytes) {
        return failed(DecodeOutcome::truncated, "the capture ends within the cooked header");
    }
    return decodeTyped(frame, kCookedHeader_bytes - 2);
}

Decoded decodeIp(Bytes packet) {
    if (packet.empty())
        return failed(DecodeOutcome::truncated, "there are no bytes");
    const unsigned version = packet[0] >> 4U;
    if (version == 4)
        return decodeV4(packet);
    if (version == 6)
        return decodeV6(packet);
    return failed(DecodeOutcome::malformed, "the IP version is neither 4 nor 6");
}

}  // namespace HwSide
