// The fields of entries by name, for texts that hold all of an entry.
//
// Plain values: any thread.
#pragma once

#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Recording {

/// An IPv4 address in an entry, in host byte order.
struct V4Address {
    std::uint32_t& value;
};

/// Calls `visit(name, field)` for each field but the key, in the order in which people read them.
template <class Visit>
void forEachField(VornPolicyCpu::PolicyCpuTcamActionEntry& entry, Visit&& visit) {
    auto& policer = entry.policerClientData;
    visit("name", entry.name);
    visit("disposition", entry.disposition);
    visit("redirect", entry.redirect);
    visit("counter", entry.counterRequestKey);
    visit("policer", entry.policerRequestKey);
    visit("policer-name", policer.name);
    visit("mode", policer.mode);
    visit("rate", policer.rate);
    visit("burst", policer.burst);
    visit("counter-index", entry.counterIndex);
    visit("policer-index", entry.policerIndex);
    visit("feature", entry.featureId);
}

template <class Visit>
void forEachCommonField(VornPolicyCpu::MatchCommon& entry, Visit&& visit) {
    auto& bytes = entry.bytes;
    visit("protocol", bytes.protocol);
    visit("protocol-mask", bytes.protocolMask);
    visit("source-port", entry.ports.sourceLow);
    visit("source-port-high", entry.ports.sourceHigh);
    visit("destination-port", entry.ports.destinationLow);
    visit("destination-port-high", entry.ports.destinationHigh);
    visit("dscp", bytes.dscp);
    visit("dscp-mask", bytes.dscpMask);
    visit("ttl", bytes.ttl);
    visit("ttl-mask", bytes.ttlMask);
    visit("tcp-flags", bytes.tcpFlags);
    visit("tcp-flags-mask", bytes.tcpFlagsMask);
    visit("fragment", bytes.fragment);
    visit("fragment-mask", bytes.fragmentMask);
    visit("icmp-type", bytes.icmpType);
    visit("icmp-type-mask", bytes.icmpTypeMask);
    visit("icmp-code", bytes.icmpCode);
    visit("icmp-code-mask", bytes.icmpCodeMask);
}

template <class Visit>
void forEachField(VornPolicyCpu::PolicyCpuV4TcamEntryEntry& entry, Visit&& visit) {
    visit("label", entry.label);
    visit("priority", entry.priority);
    visit("action", entry.actionKey);
    visit("source", V4Address{entry.addresses.source});
    visit("source-mask", V4Address{entry.addresses.sourceMask});
    visit("destination", V4Address{entry.addresses.destination});
    visit("destination-mask", V4Address{entry.addresses.destinationMask});
    forEachCommonField(entry, visit);
}

template <class Visit>
void forEachField(VornPolicyCpu::PolicyCpuV6TcamEntryEntry& entry, Visit&& visit) {
    visit("label", entry.label);
    visit("priority", entry.priority);
    visit("action", entry.actionKey);
    visit("source", entry.source.address);
    visit("source-mask", entry.source.mask);
    visit("source-length", entry.source.prefixLength);
    visit("destination", entry.destination.address);
    visit("destination-mask", entry.destination.mask);
    visit("destination-length", entry.destination.prefixLength);
    forEachCommonField(entry, visit);
}

}  // namespace Recording
