#include "hwside/Json.h"

#include <limits>

#include <fmt/format.h>

#include "types/MatchFields.h"

namespace HwSide {

namespace {

constexpr std::array<std::string_view, 12> kPacketMembers{
    "src",       "dst",       "proto", "sport", "dport",    "tcp-flags",
    "icmp-type", "icmp-code", "ttl",   "dscp",  "fragment", "df"};

bool isNull(const Json& object, std::string_view name) {
    const auto at = object.find(name);
    return at != object.end() && at->is_null();
}

/// An unsigned number up to `limit`; nothing when the member is not there or null.
std::optional<unsigned> number(const Json& object, std::string_view name, unsigned limit) {
    const auto at = object.find(name);
    if (at == object.end() || at->is_null())
        return std::nullopt;
    if (!at->is_number_unsigned() || at->get<std::uint64_t>() > limit) {
        throw RequestError(fmt::format("packet: {}: expected a number from 0 to {}, got {}", name,
                                       limit, at->dump()));
    }
    return at->get<unsigned>();
}

std::string text(const Json& object, std::string_view name) {
    const auto at = object.find(name);
    if (at == object.end())
        throw RequestError(fmt::format("packet: {} is missing", name));
    if (!at->is_string()) {
        throw RequestError(fmt::format("packet: {}: expected text, got {}", name, at->dump()));
    }
    return at->get<std::string>();
}

void readAddresses(const Json& object, Packet& packet) {
    const std::string source = text(object, "src");
    const std::string destination = text(object, "dst");
    const auto v4Source = v4FromText(source);
    const auto v4Destination = v4FromText(destination);
    const auto v6Source = v6FromText(source);
    const auto v6Destination = v6FromText(destination);
    if (!v4Source && !v6Source) {
        throw RequestError(fmt::format("packet: src: \"{}\" is no IP address", source));
    }
    if (!v4Destination && !v6Destination) {
        throw RequestError(fmt::format("packet: dst: \"{}\" is no IP address", destination));
    }
    if (v4Source && v4Destination) {
        packet.addresses = V4Addresses{*v4Source, *v4Destination};
    } else if (v6Source && v6Destination) {
        packet.addresses = V6Addresses{*v6Source, *v6Destination};
    } else {
        throw RequestError("packet: src and dst are addresses of different families");
    }
}

std::uint8_t readProtocol(const Json& object) {
    const auto at = object.find("proto");
    if (at == object.end())
        return 0;
    if (at->is_string()) {
        const auto protocol = protocolFromText(at->get<std::string>());
        if (protocol)
            return *protocol;
        throw RequestError(
            fmt::format("packet: proto: {} is no protocol known by name, and no "
                        "number from 0 to 255",
                        at->dump()));
    }
    const auto protocol = number(object, "proto", 255);
    if (!protocol) {
        throw RequestError("packet: proto: expected a protocol by name or number, got null");
    }
    return static_cast<std::uint8_t>(*protocol);
}

std::uint8_t readFragment(const Json& object, const Packet& packet) {
    unsigned bits = 0;
    if (object.contains("fragment")) {
        const std::string fragment = text(object, "fragment");
        if (fragment == "first") {
            bits = VornPolicyCpu::kIsFragment;
        } else if (fragment == "later") {
            bits = VornPolicyCpu::kIsFragment | VornPolicyCpu::kNonFirstFragment;
        } else if (fragment != "none") {
            throw RequestError(fmt::format(
                "packet: fragment: expected \"none\", \"first\" or \"later\", got \"{}\"",
                fragment));
        }
    }
    const auto at = object.find("df");
    if (at != object.end()) {
        if (!at->is_boolean()) {
            throw RequestError(
                fmt::format("packet: df: expected true or false, got {}", at->dump()));
        }
        if (*at && packet.isV6())
            throw RequestError("packet: df: IPv6 has no such bit");
        if (*at)
            bits |= VornPolicyCpu::kDontFragment;
    }
    return static_cast<std::uint8_t>(bits);
}

void readTransport(const Json& object, Packet& packet) {
    const auto sourcePort = number(object, "sport", 65535);
    const auto destinationPort = number(object, "dport", 65535);
    const auto flags = number(object, "tcp-flags", 255);
    const auto type = number(object, "icmp-type", 255);
    const auto code = number(object, "icmp-code", 255);
    const bool hasHeader = (packet.fragment & VornPolicyCpu::kNonFirstFragment) == 0;
    const bool hasPorts = hasHeader && protocolHasPorts(packet.protocol) &&
                          !isNull(object, "sport") && !isNull(object, "dport");
    const bool hasFlags = hasHeader && packet.protocol == kTcp && !isNull(object, "tcp-flags");
    const bool hasIcmp = hasHeader && packet.protocol == (packet.isV6() ? kIcmpV6 : kIcmp) &&
                         !isNull(object, "icmp-type") && !isNull(object, "icmp-code");
    const auto refuse = [&](std::string_view name) {
        throw RequestError(fmt::format("packet: {}: a packet of protocol {}{} has no such field",
                                       name, protocolText(packet.protocol),
                                       hasHeader ? "" : " that is a later fragment"));
    };
    if (sourcePort && !hasPorts)
        refuse("sport");
    if (destinationPort && !hasPorts)
        refuse("dport");
    if (flags && !hasFlags)
        refuse("tcp-flags");
    if (type && !hasIcmp)
        refuse("icmp-type");
    if (code && !hasIcmp)
        refuse("icmp-code");
    if (hasPorts) {
        packet.ports = PacketPorts{static_cast<std::uint16_t>(sourcePort.value_or(0)),
                                   static_cast<std::uint16_t>(destinationPort.value_or(0))};
    }
    if (hasFlags)
        packet.tcpFlags = static_cast<std::uint8_t>(flags.value_or(0));
    if (hasIcmp) {
        packet.icmp = PacketIcmp{static_cast<std::uint8_t>(type.value_or(0)),
                                 static_cast<std::uint8_t>(code.value_or(0))};
    }
}

/// What the protocol has and the packet lacks becomes null.
void putTransport(Json& object, const Packet& packet) {
    if ((packet.fragment & VornPolicyCpu::kNonFirstFragment) != 0)
        return;
    if (packet.ports) {
        object["sport"] = packet.ports->source;
        object["dport"] = packet.ports->destination;
    } else if (protocolHasPorts(packet.protocol)) {
        object["sport"] = nullptr;
        object["dport"] = nullptr;
    }
    if (packet.tcpFlags) {
        object["tcp-flags"] = *packet.tcpFlags;
    } else if (packet.protocol == kTcp) {
        object["tcp-flags"] = nullptr;
    }
    if (packet.icmp) {
        object["icmp-type"] = packet.icmp->type;
        object["icmp-code"] = packet.icmp->code;
    } else if (packet.protocol == (packet.isV6() ? kIcmpV6 : kIcmp)) {
        object["icmp-type"] = nullptr;
        object["icmp-code"] = nullptr;
    }
}

}  // namespace

Packet packetFromJson(const Json& object) {
    if (!object.is_object())
        throw RequestError("packet: expected an object");
    for (const auto& [name, value] : object.items()) {
        if (std::ranges::find(kPacketMembers, name) == kPacketMembers.end()) {
            throw RequestError(fmt::format("packet: there is no field \"{}\"", name));
        }
    }
    Packet packet;
    readAddresses(object, packet);
    packet.protocol = readProtocol(object);
    packet.ttl = static_cast<std::uint8_t>(number(object, "ttl", 255).value_or(64));
    packet.dscp = static_cast<std::uint8_t>(number(object, "dscp", 63).value_or(0));
    packet.fragment = readFragment(object, packet);
    readTransport(object, packet);
    return packet;
}

Json packetToJson(const Packet& packet) {
    Json object;
    if (const auto* v4 = std::get_if<V4Addresses>(&packet.addresses)) {
        object = {{"src", v4Text(v4->source)}, {"dst", v4Text(v4->destination)}};
    } else if (const auto* v6 = std::get_if<V6Addresses>(&packet.addresses)) {
        object = {{"src", v6Text(v6->source)}, {"dst", v6Text(v6->destination)}};
    }
    object["proto"] = packet.protocol;
    object["ttl"] = packet.ttl;
    object["dscp"] = packet.dscp;
    putTransport(object, packet);
    if ((packet.fragment & VornPolicyCpu::kNonFirstFragment) != 0) {
        object["fragment"] = "later";
    } else if ((packet.fragment & VornPolicyCpu::kIsFragment) != 0) {
        object["fragment"] = "first";
    }
    if ((packet.fragment & VornPolicyCpu::kDontFragment) != 0)
        object["df"] = true;
    return object;
}

Json verdictJson(const std::optional<Verdict>& verdict) {
    if (!verdict)
        return nullptr;
    return {{"key", verdict->key.toText()},
            {"label", verdict->label},
            {"priority", verdict->priority},
            {"version", verdict->version.value},
            {"actionKey", verdict->actionKey.toText()},
            {"action", verdict->action ? entryJson(*verdict->action) : Json(nullptr)}};
}

}  // namespace HwSide
