#include "hwside/Packet.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>

#include <fmt/format.h>

#include "types/MatchFields.h"

namespace HwSide {

namespace {

std::string fragmentText(std::uint8_t bits) {
    std::string text;
    if ((bits & VornPolicyCpu::kNonFirstFragment) != 0) {
        text = " later-fragment";
    } else if ((bits & VornPolicyCpu::kIsFragment) != 0) {
        text = " first-fragment";
    }
    if ((bits & VornPolicyCpu::kDontFragment) != 0)
        text += " df";
    return text;
}

}  // namespace

std::optional<std::uint8_t> protocolFromText(std::string_view text) {
    if (const auto named = VornPolicyCpu::protocolByName(text))
        return named;
    std::uint8_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || rest != end)
        return std::nullopt;
    return number;
}

std::optional<std::uint32_t> v4FromText(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::optional<V6Address> v6FromText(const std::string& text) {
    V6Address address{};
    if (inet_pton(AF_INET6, text.c_str(), address.data()) != 1)
        return std::nullopt;
    return address;
}

std::string Packet::toText() const {
    std::string source;
    std::string destination;
    if (const auto* v4 = std::get_if<V4Addresses>(&addresses)) {
        source = v4Text(v4->source);
        destination = v4Text(v4->destination);
    } else if (const auto* v6 = std::get_if<V6Addresses>(&addresses)) {
        source = v6Text(v6->source);
        destination = v6Text(v6->destination);
    }
    std::string text = fmt::format("{} > {} {}", source, destination, protocolText(protocol));
    if (ports)
        text += fmt::format(" {} > {}", ports->source, ports->destination);
    if (tcpFlags)
        text += fmt::format(" flags 0x{:02x}", *tcpFlags);
    if (icmp)
        text += fmt::format(" type {} code {}", icmp->type, icmp->code);
    if (dscp != 0)
        text += fmt::format(" dscp {}", dscp);
    return text + fmt::format(" ttl {}{}", ttl, fragmentText(fragment));
}

}  // namespace HwSide
