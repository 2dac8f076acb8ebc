#include "agent/FieldText.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <span>

#include <fmt/format.h>

#include "process/HeaderText.h"
#include "types/Protocols.h"

namespace Agent {

namespace {

struct Name {
    std::string_view text;
    std::uint8_t value;
};

std::optional<std::uint8_t> byName(std::span<const Name> names, std::string_view text) {
    for (const Name& name : names) {
        if (name.text == text)
            return name.value;
    }
    return std::nullopt;
}

std::optional<std::uint8_t> byteFromText(std::string_view text, std::uint64_t max = 255) {
    const auto number = numberFromText(text, max);
    if (!number)
        return std::nullopt;
    return static_cast<std::uint8_t>(*number);
}

std::optional<std::uint8_t> byNameOrNumber(std::span<const Name> names, std::string_view text) {
    const auto named = byName(names, text);
    return named ? named : byteFromText(text);
}

std::optional<std::uint32_t> v4FromText(std::string_view text) {
    in_addr address{};
    if (text.find('\0') != std::string_view::npos)
        return std::nullopt;
    if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

using Process::V6Bytes;
using Process::v6Text;

std::optional<V6Bytes> v6FromText(std::string_view text) {
    V6Bytes bytes{};
    if (text.find('\0') != std::string_view::npos)
        return std::nullopt;
    if (inet_pton(AF_INET6, std::string(text).c_str(), bytes.data()) != 1)
        return std::nullopt;
    return bytes;
}

constexpr std::uint32_t v4Mask(std::uint64_t length) {
    return length == 0 ? 0 : ~std::uint32_t{0} << (32U - length);
}

V6Bytes v6Mask(std::uint64_t length) {
    V6Bytes mask{};
    for (std::uint64_t bit = 0; bit < length; ++bit)
        mask[bit / 8] = static_cast<std::uint8_t>(mask[bit / 8] | 0x80U >> bit % 8);
    return mask;
}

/// Of a mask; nothing where it is no prefix's.
std::optional<std::uint8_t> prefixLength(const V6Bytes& mask) {
    for (std::uint8_t length = 0; length <= 128; ++length) {
        if (v6Mask(length) == mask)
            return length;
    }
    return std::nullopt;
}

std::uint8_t bits(unsigned value) {
    return static_cast<std::uint8_t>(value);
}

}  // namespace

std::optional<std::uint64_t> numberFromText(std::string_view text, std::uint64_t max) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || number > max)
        return std::nullopt;
    return number;
}

std::optional<V4Prefix> v4PrefixFromText(std::string_view text) {
    const std::size_t slash = text.find('/');
    const auto address = v4FromText(text.substr(0, slash));
    if (!address)
        return std::nullopt;
    V4Prefix prefix{*address, v4Mask(32)};
    if (slash != std::string_view::npos) {
        const std::string_view rest = text.substr(slash + 1);
        const auto length = numberFromText(rest, 32);
        const auto mask = length ? std::optional(v4Mask(*length)) : v4FromText(rest);
        if (!mask)
            return std::nullopt;
        prefix.mask = *mask;
    }
    if ((prefix.address & ~prefix.mask) != 0)
        return std::nullopt;
    return prefix;
}

std::string toText(const V4Prefix& prefix) {
    const auto dotted = [](std::uint32_t a) {
        return fmt::format("{}.{}.{}.{}", a >> 24U, a >> 16U & 255U, a >> 8U & 255U, a & 255U);
    };
    for (unsigned length = 0; length <= 32; ++length) {
        if (v4Mask(length) == prefix.mask)
            return fmt::format("{}/{}", dotted(prefix.address), length);
    }
    return dotted(prefix.address) + "/" + dotted(prefix.mask);
}

std::optional<VornPolicyCpu::MatchV6Address> v6PrefixFromText(std::string_view text) {
    const std::size_t slash = text.find('/');
    const auto address = v6FromText(text.substr(0, slash));
    if (!address)
        return std::nullopt;
    VornPolicyCpu::MatchV6Address prefix{
        .prefixLength = 128, .address = *address, .mask = v6Mask(128)};
    if (slash != std::string_view::npos) {
        const std::string_view rest = text.substr(slash + 1);
        const auto length = numberFromText(rest, 128);
        const auto mask = length ? std::optional(v6Mask(*length)) : v6FromText(rest);
        if (!mask)
            return std::nullopt;
        prefix.mask = *mask;
        prefix.prefixLength = prefixLength(*mask).value_or(0);
    }
    for (std::size_t i = 0; i < prefix.mask.size(); ++i) {
        if ((prefix.address[i] & ~prefix.mask[i]) != 0)
            return std::nullopt;
    }
    return prefix;
}

std::string toText(const VornPolicyCpu::MatchV6Address& prefix) {
    const auto length = prefixLength(prefix.mask);
    return v6Text(prefix.address) + "/" + (length ? std::to_string(*length) : v6Text(prefix.mask));
}

std::optional<PortRange> portRangeFromText(std::string_view text) {
    const std::size_t dash = text.find('-');
    const auto low = numberFromText(text.substr(0, dash), 65535);
    const auto high =
        dash == std::string_view::npos ? low : numberFromText(text.substr(dash + 1), 65535);
    if (!low || !high || *low > *high || *high == 0)
        return std::nullopt;
    return PortRange{static_cast<std::uint16_t>(*low), static_cast<std::uint16_t>(*high)};
}

std::string toText(const PortRange& range) {
    return range.low == range.high ? std::to_string(range.low)
                                   : fmt::format("{}-{}", range.low, range.high);
}

std::optional<std::uint8_t> protocolFromText(std::string_view text) {
    const auto named = VornPolicyCpu::protocolByName(text);
    // Protocol 0 with its mask would match, but is an extension header's number, not a protocol.
    return named ? named : byteFromText(text);
}

std::optional<MaskedByte> tcpFlagsFromText(std::string_view text) {
    static constexpr auto kNames = std::to_array<Name>({{"fin", 1},
                                                        {"syn", 2},
                                                        {"rst", 4},
                                                        {"psh", 8},
                                                        {"ack", 16},
                                                        {"urg", 32},
                                                        {"ece", 64},
                                                        {"cwr", 128}});
    MaskedByte flags;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find_first_of(", "), text.size());
        std::string_view word = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (word.empty())
            continue;
        const bool unset = word.front() == '!';
        if (unset)
            word.remove_prefix(1);
        const auto flag = byName(kNames, word);
        if (!flag || (flags.mask & *flag) != 0)
            return std::nullopt;
        flags.mask = bits(flags.mask | *flag);
        if (!unset)
            flags.value = bits(flags.value | *flag);
    }
    return flags.mask == 0 ? std::nullopt : std::optional(flags);
}

std::optional<MaskedByte> fragmentFromText(std::string_view text, bool isV4) {
    using namespace VornPolicyCpu;
    if (text == "yes")
        return MaskedByte{kIsFragment, kIsFragment};
    if (text == "no")
        return MaskedByte{0, kIsFragment};
    if (text == "first")
        return MaskedByte{kIsFragment, bits(kIsFragment | kNonFirstFragment)};
    if (text == "non-first")
        return MaskedByte{kNonFirstFragment, kNonFirstFragment};
    if (text == "dont-fragment" && isV4)
        return MaskedByte{kDontFragment, kDontFragment};
    return std::nullopt;
}

std::optional<std::uint8_t> dscpFromText(std::string_view text) {
    if (text == "ef")
        return bits(46);
    if (text.size() == 3 && text.starts_with("cs") && text[2] >= '0' && text[2] <= '7')
        return bits(static_cast<unsigned>(text[2] - '0') << 3U);
    if (text.size() == 4 && text.starts_with("af") && text[2] >= '1' && text[2] <= '4' &&
        text[3] >= '1' && text[3] <= '3') {
        return bits(static_cast<unsigned>(text[2] - '0') << 3U |
                    static_cast<unsigned>(text[3] - '0') << 1U);
    }
    return byteFromText(text, 63);
}

std::optional<std::uint8_t> icmpTypeFromText(std::string_view text, bool isV4) {
    static constexpr auto kV4 = std::to_array<Name>({{"echo-reply", 0},
                                                     {"destination-unreachable", 3},
                                                     {"source-quench", 4},
                                                     {"redirect", 5},
                                                     {"echo-request", 8},
                                                     {"router-advertisement", 9},
                                                     {"router-solicitation", 10},
                                                     {"time-exceeded", 11},
                                                     {"parameter-problem", 12},
                                                     {"timestamp-request", 13},
                                                     {"timestamp-reply", 14}});
    static constexpr auto kV6 = std::to_array<Name>({{"destination-unreachable", 1},
                                                     {"packet-too-big", 2},
                                                     {"time-exceeded", 3},
                                                     {"parameter-problem", 4},
                                                     {"echo-request", 128},
                                                     {"echo-reply", 129},
                                                     {"multicast-listener-query", 130},
                                                     {"multicast-listener-report", 131},
                                                     {"multicast-listener-done", 132},
                                                     {"router-solicitation", 133},
                                                     {"router-advertisement", 134},
                                                     {"neighbour-solicitation", 135},
                                                     {"neighbour-advertisement", 136},
                                                     {"neighbor-solicitation", 135},
                                                     {"neighbor-advertisement", 136},
                                                     {"redirect", 137},
                                                     {"multicast-listener-report-v2", 143}});
    return byNameOrNumber(isV4 ? std::span<const Name>(kV4) : std::span<const Name>(kV6), text);
}

std::optional<std::uint8_t> icmpCodeFromText(std::string_view text, bool isV4) {
    static constexpr auto kV4 = std::to_array<Name>({{"network-unreachable", 0},
                                                     {"host-unreachable", 1},
                                                     {"protocol-unreachable", 2},
                                                     {"port-unreachable", 3},
                                                     {"fragmentation-needed", 4},
                                                     {"ttl-exceeded", 0},
                                                     {"reassembly-time-exceeded", 1},
                                                     {"administratively-prohibited", 13}});
    static constexpr auto kV6 = std::to_array<Name>({{"no-route", 0},
                                                     {"administratively-prohibited", 1},
                                                     {"beyond-scope", 2},
                                                     {"address-unreachable", 3},
                                                     {"port-unreachable", 4},
                                                     {"hop-limit-exceeded", 0},
                                                     {"reassembly-time-exceeded", 1}});
    return byNameOrNumber(isV4 ? std::span<const Name>(kV4) : std::span<const Name>(kV6), text);
}

namespace {

struct Unit {
    std::string_view text;
    VornPolicerLib::PolicerMode mode;
    std::uint64_t factor;
};

constexpr std::uint64_t kMaxQuantity = 1'000'000'000'000;

/// NUMBER [blank] [k|M|G] UNIT.
std::optional<Quantity> quantityFromText(std::string_view text, std::span<const Unit> units) {
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = numberFromText(text.substr(0, digits), kMaxQuantity);
    if (!number || *number == 0)
        return std::nullopt;
    std::string_view rest = text.substr(digits);
    if (rest.empty())
        return Quantity{*number, VornPolicerLib::PolicerMode::none};
    if (rest.front() == ' ')
        rest.remove_prefix(1);
    const auto scaled = [&](std::uint64_t scale, std::string_view name) -> std::optional<Quantity> {
        for (const Unit& unit : units) {
            if (unit.text == name && *number <= kMaxQuantity / (scale * unit.factor))
                return Quantity{*number * scale * unit.factor, unit.mode};
        }
        return std::nullopt;
    };
    if (const auto plain = scaled(1, rest))
        return plain;
    static constexpr std::string_view kScales = "kMG";
    const std::size_t scale = rest.empty() ? std::string_view::npos : kScales.find(rest.front());
    if (scale == std::string_view::npos)
        return std::nullopt;
    static constexpr std::array<std::uint64_t, 3> kFactors{1000, 1000000, 1000000000};
    return scaled(kFactors[scale], rest.substr(1));
}

}  // namespace

std::optional<Quantity> rateFromText(std::string_view text) {
    using VornPolicerLib::PolicerMode;
    static constexpr auto kUnits = std::to_array<Unit>({{"pps", PolicerMode::packets, 1},
                                                        {"packets/s", PolicerMode::packets, 1},
                                                        {"packets", PolicerMode::packets, 1},
                                                        {"bps", PolicerMode::bits, 1},
                                                        {"bit", PolicerMode::bits, 1},
                                                        {"bit/s", PolicerMode::bits, 1}});
    const auto rate = quantityFromText(text, kUnits);
    return rate && rate->mode != PolicerMode::none ? rate : std::nullopt;
}

std::optional<Quantity> burstFromText(std::string_view text) {
    using VornPolicerLib::PolicerMode;
    static constexpr auto kUnits = std::to_array<Unit>({{"packets", PolicerMode::packets, 1},
                                                        {"bit", PolicerMode::bits, 1},
                                                        {"bits", PolicerMode::bits, 1},
                                                        {"byte", PolicerMode::bits, 8},
                                                        {"bytes", PolicerMode::bits, 8}});
    return quantityFromText(text, kUnits);
}

}  // namespace Agent
