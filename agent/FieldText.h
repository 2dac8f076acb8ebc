// Values of a policy as people write them: addresses, ports, protocols, flags, rates.
//
// Pure functions: any thread. Each returns nothing where the text is not of the kind; the constant
// beside it says what was expected, for the error message.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/resources/Keys.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Agent {

/// Decimal, without sign.
std::optional<std::uint64_t> numberFromText(std::string_view text, std::uint64_t max);

struct V4Prefix {
    std::uint32_t address = 0;
    std::uint32_t mask = 0;
};
inline constexpr std::string_view kV4PrefixExpected =
    "an IPv4 address, prefix (192.0.2.0/24) or address/mask, without bits outside of the mask";
std::optional<V4Prefix> v4PrefixFromText(std::string_view text);
std::string toText(const V4Prefix& prefix);

inline constexpr std::string_view kV6PrefixExpected =
    "an IPv6 address, prefix (2001:db8::/32) or address/mask, without bits outside of the mask";
std::optional<VornPolicyCpu::MatchV6Address> v6PrefixFromText(std::string_view text);
std::string toText(const VornPolicyCpu::MatchV6Address& prefix);

struct PortRange {
    std::uint16_t low = 0;
    std::uint16_t high = 0;
};
inline constexpr std::string_view kPortExpected = "a port from 1 to 65535 or a range such as 67-68";
/// "0-N" is a range as well, but for 0-0.
std::optional<PortRange> portRangeFromText(std::string_view text);
std::string toText(const PortRange& range);

inline constexpr std::string_view kProtocolExpected =
    "a protocol name (tcp, udp, icmp, icmpv6, ospf, igmp, ...) or a number up to 255";
std::optional<std::uint8_t> protocolFromText(std::string_view text);

/// A byte and the mask of its bits that must agree.
struct MaskedByte {
    std::uint8_t value = 0;
    std::uint8_t mask = 0;
};
inline constexpr std::string_view kTcpFlagsExpected =
    "TCP flags fin, syn, rst, psh, ack, urg, ece, cwr, each once, with ! where it must be unset";
/// Flags separated by commas or blanks: "syn,!ack".
std::optional<MaskedByte> tcpFlagsFromText(std::string_view text);

inline constexpr std::string_view kFragmentExpected =
    "yes, no, first, non-first or (IPv4) dont-fragment";
std::optional<MaskedByte> fragmentFromText(std::string_view text, bool isV4);

inline constexpr std::string_view kDscpExpected =
    "a DSCP up to 63 or its name (cs0-cs7, af11-af43, ef)";
std::optional<std::uint8_t> dscpFromText(std::string_view text);

inline constexpr std::string_view kTtlExpected = "a number up to 255";

inline constexpr std::string_view kIcmpTypeExpected =
    "an ICMP type of the address family by name (echo-request, ...) or a number up to 255";
std::optional<std::uint8_t> icmpTypeFromText(std::string_view text, bool isV4);

inline constexpr std::string_view kIcmpCodeExpected =
    "an ICMP code of the address family by name (port-unreachable, ...) or a number up to 255";
std::optional<std::uint8_t> icmpCodeFromText(std::string_view text, bool isV4);

struct Quantity {
    std::uint64_t value = 0;
    VornPolicerLib::PolicerMode mode = VornPolicerLib::PolicerMode::none;  ///< none: no unit given
};
inline constexpr std::string_view kRateExpected =
    "a rate such as 2000pps, 500kbit or 10Mbps, from 1 to 10^12 a second";
std::optional<Quantity> rateFromText(std::string_view text);
inline constexpr std::string_view kBurstExpected =
    "a burst in the unit of the rate, such as 100, 100packets, 64kbit or 8kbyte, from 1 to 10^12";
/// In packets or bits; bytes count 8 bits.
std::optional<Quantity> burstFromText(std::string_view text);

}  // namespace Agent
