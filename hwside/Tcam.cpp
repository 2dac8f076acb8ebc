#include "hwside/Tcam.h"

#include <algorithm>

namespace HwSide {

namespace {

using VornPolicyCpu::MatchBytes;
using VornPolicyCpu::MatchPorts;

bool agree(unsigned value, unsigned wanted, unsigned mask) {
    return ((value ^ wanted) & mask) == 0;
}

/// A field that the packet lacks meets only an entry that does not ask for it.
template <class Field>
bool agree(const std::optional<Field>& value, unsigned wanted, unsigned mask) {
    return mask == 0 || (value && agree(unsigned{*value}, wanted, mask));
}

bool bytesMatch(const MatchBytes& bytes, const Packet& packet) {
    std::optional<std::uint8_t> type;
    std::optional<std::uint8_t> code;
    if (packet.icmp) {
        type = packet.icmp->type;
        code = packet.icmp->code;
    }
    return agree(packet.protocol, bytes.protocol, bytes.protocolMask) &&
           agree(packet.dscp, bytes.dscp, bytes.dscpMask) &&
           agree(packet.ttl, bytes.ttl, bytes.ttlMask) &&
           agree(packet.fragment, bytes.fragment, bytes.fragmentMask) &&
           agree(packet.tcpFlags, bytes.tcpFlags, bytes.tcpFlagsMask) &&
           agree(type, bytes.icmpType, bytes.icmpTypeMask) &&
           agree(code, bytes.icmpCode, bytes.icmpCodeMask);
}

bool inRange(std::uint16_t port, std::uint16_t low, std::uint16_t high) {
    return (low == 0 && high == 0) || (low <= port && port <= high);
}

bool portsMatch(const MatchPorts& ports, const Packet& packet) {
    if (ports == MatchPorts{})
        return true;
    return packet.ports && inRange(packet.ports->source, ports.sourceLow, ports.sourceHigh) &&
           inRange(packet.ports->destination, ports.destinationLow, ports.destinationHigh);
}

bool addressMatches(const VornPolicyCpu::MatchV6Address& wanted, const V6Address& address) {
    for (std::size_t i = 0; i < address.size(); ++i) {
        if (!agree(address.at(i), wanted.address.at(i), wanted.mask.at(i)))
            return false;
    }
    return true;
}

}  // namespace

bool matches(const VornPolicyCpu::PolicyCpuV4TcamEntryLogEntry& entry, const Packet& packet) {
    const auto* addresses = std::get_if<V4Addresses>(&packet.addresses);
    if (addresses == nullptr)
        return false;
    const VornPolicyCpu::MatchV4Addresses wanted = entry.addresses;
    return agree(addresses->source, wanted.source, wanted.sourceMask) &&
           agree(addresses->destination, wanted.destination, wanted.destinationMask) &&
           bytesMatch(entry.bytes, packet) && portsMatch(entry.ports, packet);
}

bool matches(const VornPolicyCpu::PolicyCpuV6TcamEntryLogEntry& entry, const Packet& packet) {
    const auto* addresses = std::get_if<V6Addresses>(&packet.addresses);
    if (addresses == nullptr)
        return false;
    return bytesMatch(entry.bytes, packet) && portsMatch(entry.ports, packet) &&
           addressMatches(entry.source, addresses->source) &&
           addressMatches(entry.destination, addresses->destination);
}

template <class Types>
Programmed TcamTable<Types>::program(const LogEntry& entry, Asic::LogVersion version) {
    const Key key = entry.key;
    const auto [at, isNew] = entries_.try_emplace(key, Held{entry, version});
    Held& held = at->second;
    if (isNew) {
        rank(key, held);
        return Programmed::added;
    }
    held.version = version;
    if (held.entry.isEq(entry))
        return Programmed::unchanged;
    unrank(key, held);
    held.entry = entry;
    rank(key, held);
    return Programmed::changed;
}

template <class Types>
bool TcamTable<Types>::remove(const Key& key) {
    const auto at = entries_.find(key);
    if (at == entries_.end())
        return false;
    unrank(key, at->second);
    entries_.erase(at);
    return true;
}

template <class Types>
std::size_t TcamTable<Types>::removeIf(const std::function<bool(const Key&, const Held&)>& isLost) {
    std::size_t removed = 0;
    for (auto at = entries_.begin(); at != entries_.end();) {
        if (!isLost(at->first, at->second)) {
            ++at;
            continue;
        }
        unrank(at->first, at->second);
        at = entries_.erase(at);
        ++removed;
    }
    return removed;
}

template <class Types>
const typename TcamTable<Types>::Held* TcamTable<Types>::find(const Key& key) const {
    const auto at = entries_.find(key);
    return at == entries_.end() ? nullptr : &at->second;
}

template <class Types>
const typename TcamTable<Types>::Held* TcamTable<Types>::match(const Packet& packet) const {
    if constexpr (kRanked) {
        for (const Rank& rank : ranks_) {
            if (matches(rank.held->entry, packet))
                return rank.held;
        }
    }
    return nullptr;
}

template <class Types>
void TcamTable<Types>::rank(const Key& key, const Held& held) {
    if constexpr (kRanked)
        ranks_.insert({held.entry.priority, key, &held});
}

template <class Types>
void TcamTable<Types>::unrank(const Key& key, const Held& held) {
    if constexpr (kRanked)
        ranks_.erase({held.entry.priority, key, &held});
}

template class TcamTable<ActionTypes>;
template class TcamTable<V4Types>;
template class TcamTable<V6Types>;

void Tcam::count(ProgramCounters& counters, Programmed done) {
    switch (done) {
        case Programmed::added:
            ++counters.added;
            break;
        case Programmed::changed:
            ++counters.changed;
            break;
        case Programmed::unchanged:
            ++counters.unchanged;
            break;
    }
}

std::optional<Verdict> Tcam::classify(Asic::UnitId unit, const Packet& packet) const {
    const auto at = units_.find(unit);
    if (at == units_.end())
        return std::nullopt;
    const Unit& tables = at->second;
    const auto verdict = [&](const auto* held) -> std::optional<Verdict> {
        if (held == nullptr)
            return std::nullopt;
        Verdict found;
        found.key = held->entry.key;
        found.label = VornPolicyCpu::textOf(held->entry.label);
        found.priority = held->entry.priority;
        found.actionKey.id = held->entry.actionId;
        found.actionKey.sub = held->entry.actionSub;
        found.version = held->version;
        const auto* action = tables.table<ActionTypes>().find(found.actionKey);
        if (action != nullptr)
            found.action = action->entry;
        return found;
    };
    return packet.isV6() ? verdict(tables.table<V6Types>().match(packet))
                         : verdict(tables.table<V4Types>().match(packet));
}

std::size_t Tcam::unresolved() const {
    std::size_t count = 0;
    for (const auto& [unit, tables] : units_) {
        const auto& actions = tables.table<ActionTypes>();
        const auto lacksAction = [&](const auto& item) {
            const auto& entry = item.second.entry;
            return actions.find({entry.actionId, entry.actionSub, {}}) == nullptr;
        };
        const auto v4 = std::ranges::count_if(tables.table<V4Types>().entries(), lacksAction);
        const auto v6 = std::ranges::count_if(tables.table<V6Types>().entries(), lacksAction);
        count += static_cast<std::size_t>(v4 + v6);
    }
    return count;
}

}  // namespace HwSide
