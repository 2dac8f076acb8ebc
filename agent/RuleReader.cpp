#include <algorithm>
#include <iterator>
#include <limits>

#include <fmt/format.h>

#include "agent/FieldText.h"
#include "agent/PolicyReader.h"
#include "types/Protocols.h"

namespace Agent {

namespace {

constexpr std::uint64_t kMaxPriority = std::numeric_limits<std::uint32_t>::max();

const auto asNumber = [](std::uint8_t value) { return std::to_string(value); };
const auto asMasked = [](const MaskedByte& byte) {
    return fmt::format("{:#04x}/{:#04x}", byte.value, byte.mask);
};
const auto asText = [](const auto& value) { return toText(value); };

}  // namespace

template <class Types>
std::vector<Rule<Types>> RuleReader<Types>::read(const MapReader::Field& field) {
    std::vector<Rule<Types>> rules;
    forEachItem(field, "match entries", errors_, [&](const YAML::Node& node, const Position& at) {
        rules.push_back(readRule(node, at));
    });
    return rules;
}

template <class Types>
Rule<Types> RuleReader<Types>::readRule(const YAML::Node& node, const Position& at) {
    MapReader map(node, at, "a match entry", errors_);
    Rule<Types> rule;
    rule.at = at;
    if (const auto name = map.takeRequired("name", kNameExpected)) {
        rule.at = name->at;
        if (checkName(*name, errors_))
            rule.name = name->text;
    }
    if (const auto action = map.takeRequired("action", "the name of an action")) {
        rule.actionAt = action->at;
        rule.action = action->text;
    }
    constexpr std::string_view kPriority = "a priority up to 4294967295, the higher wins";
    if (const auto priority = map.takeRequired("priority", kPriority)) {
        if (const auto number = numberFromText(priority->text, kMaxPriority))
            rule.priority = static_cast<std::uint32_t>(*number);
        else
            reportValue(errors_, *priority, kPriority);
    }
    readAddresses(map, rule);
    dimension(
        map, rule, "protocol", kProtocolExpected, protocolFromText,
        [](Entry& entry, std::uint8_t protocol) {
            entry.bytes.protocol = protocol;
            entry.bytes.protocolMask = 0xFF;
        },
        asNumber);
    readPorts(map, rule);
    readBytes(map, rule);
    readIcmp(map, rule);
    map.finish();
    checkProtocols(rule);
    return rule;
}

template <class Types>
template <class Parse, class Apply, class Show>
void RuleReader<Types>::dimension(MapReader& map, Rule<Types>& rule, std::string_view field,
                                  std::string_view expected, const Parse& parse, const Apply& apply,
                                  const Show& show) {
    const auto found = map.take(std::string(field));
    if (!found)
        return;
    const Variables::List list = variables_.expand(found->node, found->at(), expected, errors_);
    Dimension<Entry> result{.field = field, .listed = list.listed, .alternatives = {}};
    for (const Text& text : list.values) {
        const auto value = parse(std::string_view(text.text));
        if (!value) {
            reportValue(errors_, text, expected);
            continue;
        }
        result.alternatives.push_back(
            {show(*value), text.at,
             [apply, value = *value](Entry& entry) { apply(entry, value); }});
    }
    rule.dimensions.push_back(std::move(result));
}

template <class Types>
void RuleReader<Types>::readAddresses(MapReader& map, Rule<Types>& rule) {
    if constexpr (kIsV4) {
        dimension(
            map, rule, "source", kV4PrefixExpected, v4PrefixFromText,
            [](Entry& entry, const V4Prefix& prefix) {
                entry.addresses.source = prefix.address;
                entry.addresses.sourceMask = prefix.mask;
            },
            asText);
        dimension(
            map, rule, "destination", kV4PrefixExpected, v4PrefixFromText,
            [](Entry& entry, const V4Prefix& prefix) {
                entry.addresses.destination = prefix.address;
                entry.addresses.destinationMask = prefix.mask;
            },
            asText);
    } else {
        using VornPolicyCpu::MatchV6Address;
        dimension(
            map, rule, "source", kV6PrefixExpected, v6PrefixFromText,
            [](Entry& entry, const MatchV6Address& prefix) { entry.source = prefix; }, asText);
        dimension(
            map, rule, "destination", kV6PrefixExpected, v6PrefixFromText,
            [](Entry& entry, const MatchV6Address& prefix) { entry.destination = prefix; }, asText);
    }
}

template <class Types>
void RuleReader<Types>::readPorts(MapReader& map, Rule<Types>& rule) {
    const auto setSource = [](Entry& entry, const PortRange& range) {
        entry.ports.sourceLow = range.low;
        entry.ports.sourceHigh = range.high;
    };
    const auto setDestination = [](Entry& entry, const PortRange& range) {
        entry.ports.destinationLow = range.low;
        entry.ports.destinationHigh = range.high;
    };
    const std::size_t before = rule.dimensions.size();
    dimension(map, rule, "source-port", kPortExpected, portRangeFromText, setSource, asText);
    dimension(map, rule, "destination-port", kPortExpected, portRangeFromText, setDestination,
              asText);
    const bool oneWay = rule.dimensions.size() > before;
    const std::size_t either = rule.dimensions.size();
    const auto field = map.take("port");
    if (!field)
        return;
    if (oneWay) {
        errors_.add(field->keyAt,
                    "expected either 'port' or 'source-port' and 'destination-port', not both");
        return;
    }
    // A port in both directions: an entry for each.
    dimension(map, rule, "port", kPortExpected, portRangeFromText, setSource,
              [](const PortRange& range) { return "source " + toText(range); });
    dimension(map, rule, "port", kPortExpected, portRangeFromText, setDestination,
              [](const PortRange& range) { return "destination " + toText(range); });
    Dimension<Entry>& both = rule.dimensions[either];
    Dimension<Entry>& second = rule.dimensions[either + 1];
    both.listed = true;
    std::move(second.alternatives.begin(), second.alternatives.end(),
              std::back_inserter(both.alternatives));
    rule.dimensions.pop_back();
}

template <class Types>
void RuleReader<Types>::readBytes(MapReader& map, Rule<Types>& rule) {
    dimension(
        map, rule, "tcp-flags", kTcpFlagsExpected, tcpFlagsFromText,
        [](Entry& entry, const MaskedByte& flags) {
            entry.bytes.tcpFlags = flags.value;
            entry.bytes.tcpFlagsMask = flags.mask;
        },
        asMasked);
    dimension(
        map, rule, kIsV4 ? "ttl" : "hop-limit", kTtlExpected,
        [](std::string_view text) -> std::optional<std::uint8_t> {
            const auto number = numberFromText(text, 255);
            return number ? std::optional(static_cast<std::uint8_t>(*number)) : std::nullopt;
        },
        [](Entry& entry, std::uint8_t ttl) {
            entry.bytes.ttl = ttl;
            entry.bytes.ttlMask = 0xFF;
        },
        asNumber);
    dimension(
        map, rule, "dscp", kDscpExpected, dscpFromText,
        [](Entry& entry, std::uint8_t dscp) {
            entry.bytes.dscp = dscp;
            entry.bytes.dscpMask = 0x3F;
        },
        asNumber);
    dimension(
        map, rule, "fragment", kFragmentExpected,
        [](std::string_view text) { return fragmentFromText(text, kIsV4); },
        [](Entry& entry, const MaskedByte& fragment) {
            entry.bytes.fragment = fragment.value;
            entry.bytes.fragmentMask = fragment.mask;
        },
        asMasked);
}

template <class Types>
void RuleReader<Types>::readIcmp(MapReader& map, Rule<Types>& rule) {
    dimension(
        map, rule, "icmp-type", kIcmpTypeExpected,
        [](std::string_view text) { return icmpTypeFromText(text, kIsV4); },
        [](Entry& entry, std::uint8_t type) {
            entry.bytes.icmpType = type;
            entry.bytes.icmpTypeMask = 0xFF;
        },
        asNumber);
    dimension(
        map, rule, "icmp-code", kIcmpCodeExpected,
        [](std::string_view text) { return icmpCodeFromText(text, kIsV4); },
        [](Entry& entry, std::uint8_t code) {
            entry.bytes.icmpCode = code;
            entry.bytes.icmpCodeMask = 0xFF;
        },
        asNumber);
}

/// A field that only some protocols have never matches beside another protocol: a mistake.
template <class Types>
void RuleReader<Types>::checkProtocols(const Rule<Types>& rule) {
    std::vector<std::uint8_t> protocols;
    bool given = false;
    for (const Dimension<Entry>& dimension : rule.dimensions) {
        if (dimension.field != "protocol")
            continue;
        given = true;
        for (const Alternative<Entry>& alternative : dimension.alternatives) {
            Entry entry;
            alternative.apply(entry);
            protocols.push_back(entry.bytes.protocol);
        }
    }
    const auto need = [&](const Dimension<Entry>& dimension, std::string_view names,
                          const auto& has) {
        const bool wrong = given ? !std::all_of(protocols.begin(), protocols.end(), has) : true;
        if (!wrong || dimension.alternatives.empty())
            return;
        errors_.add(dimension.alternatives.front().at,
                    fmt::format("expected protocol {} beside '{}'", names, dimension.field));
    };
    const std::uint8_t icmp = kIsV4 ? VornPolicyCpu::kIcmp : VornPolicyCpu::kIcmpV6;
    for (const Dimension<Entry>& dimension : rule.dimensions) {
        if (dimension.field.ends_with("port"))
            need(dimension, "tcp, udp, sctp, dccp or udplite", VornPolicyCpu::protocolHasPorts);
        else if (dimension.field == "tcp-flags")
            need(dimension, "tcp", [](std::uint8_t p) { return p == VornPolicyCpu::kTcp; });
        else if (dimension.field.starts_with("icmp"))
            need(dimension, kIsV4 ? "icmp" : "icmpv6", [&](std::uint8_t p) { return p == icmp; });
    }
}

template class RuleReader<V4Types>;
template class RuleReader<V6Types>;

}  // namespace Agent
