#include "hwside/Json.h"

#include <bit>
#include <limits>

#include <fmt/format.h>

#include "types/MatchFields.h"

namespace HwSide {

namespace {

using VornPolicyCpu::MatchBytes;
using VornPolicyCpu::MatchPorts;

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

std::string v4Prefix(std::uint32_t address, std::uint32_t mask) {
    const int length = std::countl_one(mask);
    const bool isPrefix = std::popcount(mask) == length;
    return isPrefix ? fmt::format("{}/{}", v4Text(address), length)
                    : fmt::format("{} mask {}", v4Text(address), v4Text(mask));
}

std::string v6Prefix(const VornPolicyCpu::MatchV6Address& address) {
    int length = 0;
    int ones = 0;
    for (std::size_t i = 0; i < address.mask.size(); ++i) {
        const std::uint8_t byte = address.mask.at(i);
        if (length == static_cast<int>(i) * 8)
            length += std::countl_one(byte);
        ones += std::popcount(byte);
    }
    return length == ones
               ? fmt::format("{}/{}", v6Text(address.address), length)
               : fmt::format("{} mask {}", v6Text(address.address), v6Text(address.mask));
}

void putRange(Json& fields, const char* name, std::uint16_t low, std::uint16_t high) {
    if (low == 0 && high == 0)
        return;
    fields[name] = low == high ? std::to_string(low) : fmt::format("{}-{}", low, high);
}

void putMasked(Json& fields, const char* name, unsigned value, unsigned mask, unsigned all = 0xFF) {
    if (mask == 0)
        return;
    fields[name] =
        (mask & all) == all ? std::to_string(value) : fmt::format("0x{:02x}/0x{:02x}", value, mask);
}

void putCommon(Json& fields, const MatchPorts& ports, const MatchBytes& bytes) {
    putMasked(fields, "proto", bytes.protocol, bytes.protocolMask);
    if (bytes.protocolMask == 0xFF)
        fields["proto"] = protocolText(bytes.protocol);
    putRange(fields, "sport", ports.sourceLow, ports.sourceHigh);
    putRange(fields, "dport", ports.destinationLow, ports.destinationHigh);
    if (bytes.tcpFlagsMask != 0) {
        fields["tcp-flags"] = fmt::format("0x{:02x}/0x{:02x}", bytes.tcpFlags, bytes.tcpFlagsMask);
    }
    putMasked(fields, "icmp-type", bytes.icmpType, bytes.icmpTypeMask);
    putMasked(fields, "icmp-code", bytes.icmpCode, bytes.icmpCodeMask);
    putMasked(fields, "ttl", bytes.ttl, bytes.ttlMask);
    putMasked(fields, "dscp", bytes.dscp, bytes.dscpMask, 0x3F);
    if (bytes.fragmentMask != 0) {
        fields["fragment"] = fmt::format("0x{:02x}/0x{:02x}", bytes.fragment, bytes.fragmentMask);
    }
}

template <class LogEntry>
Json matchJson(const LogEntry& entry, Json fields) {
    const VornPolicyCpu::MatchKey key = entry.key;
    const VornPolicyCpu::PolicyCpuTcamActionEntryKey action{entry.actionId, entry.actionSub, {}};
    return {{"key", key.toText()},
            {"label", VornPolicyCpu::textOf(entry.label)},
            {"priority", entry.priority.get()},
            {"action", action.toText()},
            {"fields", std::move(fields)}};
}

std::string_view modeText(VornPolicerLib::PolicerMode mode) {
    switch (mode) {
        case VornPolicerLib::PolicerMode::packets:
            return "pps";
        case VornPolicerLib::PolicerMode::bits:
            return "bps";
        case VornPolicerLib::PolicerMode::none:
            break;
    }
    return "none";
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

Json entryJson(const ActionTypes::LogEntry& action) {
    const VornPolicyCpu::PolicyCpuTcamActionEntryKey key = action.key;
    const VornPolicerLib::PolicerIndexRequestClientData& policer = action.policerClientData;
    const std::uint32_t counter = action.counterIndex;
    const std::uint16_t policerIndex = action.policerIndex;
    const bool drops = action.disposition == VornPolicyCpu::Disposition::drop;
    Json object{{"key", key.toText()},
                {"name", VornPolicyCpu::textOf(action.name)},
                {"disposition", drops ? "drop" : "permit"},
                {"counter", nullptr},
                {"policer", nullptr},
                {"rate", policer.rate.get()},
                {"burst", policer.burst.get()},
                {"mode", modeText(policer.mode)}};
    if (counter != VornPolicyCpu::kNoCounterIndex)
        object["counter"] = counter;
    if (policerIndex != VornPolicyCpu::kNoPolicerIndex)
        object["policer"] = policerIndex;
    return object;
}

Json entryJson(const V4Types::LogEntry& entry) {
    const VornPolicyCpu::MatchV4Addresses addresses = entry.addresses;
    Json fields = Json::object();
    if (addresses.sourceMask != 0) {
        fields["src"] = v4Prefix(addresses.source, addresses.sourceMask);
    }
    if (addresses.destinationMask != 0) {
        fields["dst"] = v4Prefix(addresses.destination, addresses.destinationMask);
    }
    putCommon(fields, entry.ports, entry.bytes);
    return matchJson(entry, std::move(fields));
}

Json entryJson(const V6Types::LogEntry& entry) {
    Json fields = Json::object();
    if (entry.source.mask != V6Address{})
        fields["src"] = v6Prefix(entry.source);
    if (entry.destination.mask != V6Address{})
        fields["dst"] = v6Prefix(entry.destination);
    putCommon(fields, entry.ports, entry.bytes);
    return matchJson(entry, std::move(fields));
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
