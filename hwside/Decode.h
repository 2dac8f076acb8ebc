// From bytes on the wire to header fields.
//
// Any thread. Reads nothing beyond the bytes given, whatever lengths the packet claims for itself.
// Fields of a packet that could not be decoded are not to be used.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "hwside/Packet.h"

namespace HwSide {

enum class DecodeOutcome : std::uint8_t {
    ok,
    notIp,      ///< another network protocol
    truncated,  ///< the bytes end before a header that the packet has
    malformed,  ///< lengths or versions that contradict each other
};

struct Decoded {
    DecodeOutcome outcome = DecodeOutcome::ok;
    std::string_view reason;  ///< empty when ok; a literal
    Packet packet;
};

std::string_view outcomeText(DecodeOutcome outcome);

/// An Ethernet frame without its check sequence; any number of VLAN tags.
Decoded decodeEthernet(std::span<const std::uint8_t> frame);
/// A frame in the "cooked" form of captures on all Linux interfaces (16-byte header).
Decoded decodeLinuxCooked(std::span<const std::uint8_t> frame);
/// A packet that begins with its IPv4 or IPv6 header.
///
/// The first fragment of a packet may end within its transport header: the fields that it does not
/// reach are absent. A fragment header that makes no fragment of its packet (offset 0, none to
/// follow) sets no fragment bit.
Decoded decodeIp(std::span<const std::uint8_t> packet);

}  // namespace HwSide
