// Values of packet headers as people write them.
//
// Any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace Process {

/// An IPv6 address as it stands on the wire.
using V6Bytes = std::array<std::uint8_t, 16>;

/// "tcp", or the number where the protocol has no name here.
std::string protocolText(std::uint8_t protocol);
/// Of an address in host byte order.
std::string v4Text(std::uint32_t address);
/// As RFC 5952 shortens it.
std::string v6Text(const V6Bytes& address);

}  // namespace Process
