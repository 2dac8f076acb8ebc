#include "process/EntryJson.h"

#include <bit>
#include <string>

#include <fmt/format.h>

#include "process/HeaderText.h"
#include "types/MatchFields.h"

namespace Process {

namespace {

using VornPolicyCpu::MatchBytes;
using VornPolicyCpu::MatchPorts;
using VornPolicyCpu::MatchV6Address;
using VornPolicyCpu::PolicyCpuTcamActionLogEntry;
using VornPolicyCpu::PolicyCpuV4TcamEntryLogEntry;
using VornPolicyCpu::PolicyCpuV6TcamEntryLogEntry;

std::string v4Prefix(std::uint32_t address, std::uint32_t mask) {
    const int length = std::countl_one(mask);
    const bool isPrefix = std::popcount(mask) == length;
    return isPrefix ? fmt::format("{}/{}", v4Text(address), length)
                    : fmt::format("{} mask {}", v4Text(address), v4Text(mask));
}

std::string v6Prefix(const MatchV6Address& address) {
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

Json entryJson(const PolicyCpuTcamActionLogEntry& action) {
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

Json entryJson(const PolicyCpuV4TcamEntryLogEntry& entry) {
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

Json entryJson(const PolicyCpuV6TcamEntryLogEntry& entry) {
    Json fields = Json::object();
    if (entry.source.mask != V6Bytes{})
        fields["src"] = v6Prefix(entry.source);
    if (entry.destination.mask != V6Bytes{})
        fields["dst"] = v6Prefix(entry.destination);
    putCommon(fields, entry.ports, entry.bytes);
    return matchJson(entry, std::move(fields));
}

}  // namespace Process
