#include "process/HeaderText.h"

#include <arpa/inet.h>

#include <fmt/format.h>

#include "types/Protocols.h"

namespace Process {

std::string protocolText(std::uint8_t protocol) {
    const auto name = VornPolicyCpu::nameOfProtocol(protocol);
    return name ? std::string(*name) : std::to_string(protocol);
}

std::string v4Text(std::uint32_t address) {
    return fmt::format("{}.{}.{}.{}", address >> 24U, address >> 16U & 0xFFU, address >> 8U & 0xFFU,
                       address & 0xFFU);
}

std::string v6Text(const V6Bytes& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, address.data(), text.data(), text.size());
    return text.data();
}

}  // namespace Process
