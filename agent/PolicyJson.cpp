#include "agent/PolicyJson.h"

#include <fmt/format.h>

#include "agent/FieldText.h"
#include "types/Protocols.h"

namespace Agent {

namespace {

std::string protocolText(std::uint8_t protocol) {
    const auto name = VornPolicyCpu::nameOfProtocol(protocol);
    return name ? std::string(*name) : std::to_string(protocol);
}

/// "ADDRESS/LENGTH", or "ADDRESS mask MASK" where the mask is no prefix's.
std::string prefixText(std::string text) {
    const std::size_t slash = text.find('/');
    const bool isPrefix = numberFromText(std::string_view(text).substr(slash + 1), 128).has_value();
    return isPrefix ? text : text.replace(slash, 1, " mask ");
}

Json fieldsOf(const VornPolicyCpu::MatchCommon& entry, Json fields) {
    const auto exact = [&](const char* name, std::uint8_t value, std::uint8_t mask) {
        if (mask != 0)
            fields[name] = std::to_string(value);
    };
    const auto masked = [&](const char* name, std::uint8_t value, std::uint8_t mask) {
        if (mask != 0)
            fields[name] = fmt::format("0x{:02x}/0x{:02x}", value, mask);
    };
    const auto range = [&](const char* name, std::uint16_t low, std::uint16_t high) {
        if (high != 0)
            fields[name] = toText(PortRange{low, high});
    };
    const VornPolicyCpu::MatchBytes& bytes = entry.bytes;
    if (bytes.protocolMask != 0)
        fields["proto"] = protocolText(bytes.protocol);
    range("sport", entry.ports.sourceLow, entry.ports.sourceHigh);
    range("dport", entry.ports.destinationLow, entry.ports.destinationHigh);
    masked("tcp-flags", bytes.tcpFlags, bytes.tcpFlagsMask);
    exact("icmp-type", bytes.icmpType, bytes.icmpTypeMask);
    exact("icmp-code", bytes.icmpCode, bytes.icmpCodeMask);
    exact("ttl", bytes.ttl, bytes.ttlMask);
    exact("dscp", bytes.dscp, bytes.dscpMask);
    masked("fragment", bytes.fragment, bytes.fragmentMask);
    return fields;
}

Json addressesOf(const V4Entry& entry) {
    Json fields = Json::object();
    const VornPolicyCpu::MatchV4Addresses& a = entry.addresses;
    if (a.sourceMask != 0)
        fields["src"] = prefixText(toText(V4Prefix{a.source, a.sourceMask}));
    if (a.destinationMask != 0)
        fields["dst"] = prefixText(toText(V4Prefix{a.destination, a.destinationMask}));
    return fields;
}

Json addressesOf(const V6Entry& entry) {
    Json fields = Json::object();
    const std::array<std::uint8_t, 16> any{};
    if (entry.source.mask != any)
        fields["src"] = prefixText(toText(entry.source));
    if (entry.destination.mask != any)
        fields["dst"] = prefixText(toText(entry.destination));
    return fields;
}

template <class Entry>
Json matchesJson(const std::vector<Named<Entry>>& entries) {
    Json list = Json::array();
    for (const Named<Entry>& named : entries) {
        const Entry& entry = named.entry;
        list.push_back({{"name", named.name},
                        {"key", entry.key.toText()},
                        {"label", VornPolicyCpu::textOf(entry.label)},
                        {"priority", entry.priority},
                        {"action", entry.actionKey.toText()},
                        {"fields", fieldsOf(entry, addressesOf(entry))}});
    }
    return list;
}

Json actionJson(const Named<ActionEntry>& named) {
    const ActionEntry& entry = named.entry;
    const VornPolicerLib::PolicerIndexRequestClientData& policer = entry.policerClientData;
    using VornPolicerLib::PolicerMode;
    return {
        {"key", entry.key.toText()},
        {"name", named.name},
        {"disposition", entry.disposition == VornPolicyCpu::Disposition::drop ? "drop" : "permit"},
        {"counted", entry.counterRequestKey.requestId != 0},
        {"policed", entry.policerRequestKey.requestId != 0},
        {"rate", policer.rate.get()},
        {"burst", policer.burst.get()},
        {"mode", policer.mode.get() == PolicerMode::packets ? "pps"
                 : policer.mode.get() == PolicerMode::bits  ? "bps"
                                                            : "none"}};
}

}  // namespace

Json policyJson(const CompiledPolicy& policy) {
    Json actions = Json::array();
    for (const Named<ActionEntry>& named : policy.actions)
        actions.push_back(actionJson(named));
    return {{"file", policy.file},
            {"actions", std::move(actions)},
            {"ipv4", matchesJson(policy.ipv4)},
            {"ipv6", matchesJson(policy.ipv6)}};
}

}  // namespace Agent
