// From policy text to table entries, field by field.

#include <gtest/gtest.h>

#include "agent/PolicyCompiler.h"
#include "agent/StableHash.h"

namespace {

using Agent::CompiledPolicy;
using VornPolicyCpu::textOf;

CompiledPolicy compile(const std::string& text) {
    return Agent::policyFromText(text, "p.yaml");
}

Agent::V4Entry only(const std::string& fields) {
    const auto policy = compile(
        "actions: [{name: a}]\nipv4:\n- {name: r, action: a, priority: 7, " + fields + "}\n");
    EXPECT_EQ(policy.ipv4.size(), 1U);
    return policy.ipv4.at(0).entry;
}

Agent::V6Entry only6(const std::string& fields) {
    const auto policy = compile(
        "actions: [{name: a}]\nipv6:\n- {name: r, action: a, priority: 7, " + fields + "}\n");
    EXPECT_EQ(policy.ipv6.size(), 1U);
    return policy.ipv6.at(0).entry;
}

std::vector<std::string> names(const std::string& fields) {
    const auto policy = compile(
        "variables: {peers: [192.0.2.1, 192.0.2.2]}\nactions: [{name: a}]\nipv4:\n"
        "- {name: r, action: a, priority: 7, " +
        fields + "}\n");
    std::vector<std::string> result;
    for (const auto& named : policy.ipv4)
        result.push_back(named.name);
    return result;
}

TEST(PolicyCompiler, AcceptsAPolicyWithoutEntries) {
    const auto policy = compile("{}");
    EXPECT_TRUE(policy.actions.empty());
    EXPECT_TRUE(policy.ipv4.empty());
    EXPECT_TRUE(policy.ipv6.empty());
}

TEST(PolicyCompiler, MakesAnEntryThatMatchesEverythingFromARuleWithoutFields) {
    const auto policy =
        compile("actions: [{name: a}]\nipv4: [{name: r, action: a, priority: 7}]\n");
    ASSERT_EQ(policy.ipv4.size(), 1U);
    Agent::V4Entry expected;
    expected.key = Agent::matchKeyOf("r");
    expected.actionKey.id = Agent::actionIdOf("a");
    expected.priority = 7;
    expected.label = VornPolicyCpu::fixedText<16>("r");
    EXPECT_TRUE(policy.ipv4[0].entry.isEq(expected));
}

TEST(PolicyCompiler, CutsLongNamesToTheirFields) {
    const auto policy = compile(
        "actions: [{name: a-name-of-more-than-18-letters}]\n"
        "ipv4: [{name: another-name-that-is-long, action: a-name-of-more-than-18-letters, "
        "priority: 1}]\n");
    EXPECT_EQ(textOf(policy.actions[0].entry.name), "a-name-of-more-tha");
    EXPECT_EQ(textOf(policy.ipv4[0].entry.label), "another-name-tha");
    EXPECT_EQ(policy.ipv4[0].name, "another-name-that-is-long");
}

TEST(PolicyCompiler, ReadsIpv4Prefixes) {
    const auto host = only("source: 192.0.2.1").addresses;
    EXPECT_EQ(host.source, 0xC0000201U);
    EXPECT_EQ(host.sourceMask, 0xFFFFFFFFU);
    EXPECT_EQ(host.destinationMask, 0U);
    const auto prefix = only("destination: 198.51.100.128/25").addresses;
    EXPECT_EQ(prefix.destination, 0xC6336480U);
    EXPECT_EQ(prefix.destinationMask, 0xFFFFFF80U);
    const auto masked = only("source: 192.0.0.5/255.255.0.255").addresses;
    EXPECT_EQ(masked.source, 0xC0000005U);
    EXPECT_EQ(masked.sourceMask, 0xFFFF00FFU);
    EXPECT_EQ(only("source: 0.0.0.0/0").addresses, VornPolicyCpu::MatchV4Addresses{});
}

TEST(PolicyCompiler, ReadsIpv6Prefixes) {
    const auto prefix = only6("source: 2001:db8:1::/48").source;
    EXPECT_EQ(prefix.prefixLength, 48);
    EXPECT_EQ(prefix.address[5], 1);
    EXPECT_EQ(prefix.mask[5], 0xFF);
    EXPECT_EQ(prefix.mask[6], 0);
    const auto host = only6("destination: '::1'").destination;
    EXPECT_EQ(host.prefixLength, 128);
    EXPECT_EQ(host.address[15], 1);
    EXPECT_EQ(host.mask[15], 0xFF);
    const auto odd = only6("source: 2001:db8::5/ffff:ffff::f").source;
    EXPECT_EQ(odd.prefixLength, 0);
    EXPECT_EQ(odd.mask[3], 0xFF);
    EXPECT_EQ(odd.mask[15], 0x0F);
    const auto ten = only6("source: fe80::/10").source;
    EXPECT_EQ(ten.mask[0], 0xFF);
    EXPECT_EQ(ten.mask[1], 0xC0);
}

TEST(PolicyCompiler, ReadsPortsAndRanges) {
    const auto ports = only("protocol: udp, source-port: 53, destination-port: 1024-65535").ports;
    EXPECT_EQ(ports, (VornPolicyCpu::MatchPorts{53, 53, 1024, 65535}));
}

TEST(PolicyCompiler, ReadsOneByteFields) {
    const auto bytes =
        only("protocol: tcp, tcp-flags: 'syn,!ack', ttl: 255, dscp: cs6, fragment: no").bytes;
    EXPECT_EQ(bytes.protocol, 6);
    EXPECT_EQ(bytes.protocolMask, 0xFF);
    EXPECT_EQ(bytes.tcpFlags, 2);
    EXPECT_EQ(bytes.tcpFlagsMask, 0x12);
    EXPECT_EQ(bytes.ttl, 255);
    EXPECT_EQ(bytes.ttlMask, 0xFF);
    EXPECT_EQ(bytes.dscp, 48);
    EXPECT_EQ(bytes.dscpMask, 0x3F);
    EXPECT_EQ(bytes.fragment, 0);
    EXPECT_EQ(bytes.fragmentMask, VornPolicyCpu::kIsFragment);
}

TEST(PolicyCompiler, ReadsFragmentKinds) {
    const auto bits = [](const std::string& kind) {
        const auto bytes = only("fragment: " + kind).bytes;
        return std::pair<int, int>(bytes.fragment, bytes.fragmentMask);
    };
    EXPECT_EQ(bits("yes"), std::pair(1, 1));
    EXPECT_EQ(bits("first"), std::pair(1, 3));
    EXPECT_EQ(bits("non-first"), std::pair(2, 2));
    EXPECT_EQ(bits("dont-fragment"), std::pair(4, 4));
}

TEST(PolicyCompiler, ReadsDscpNames) {
    EXPECT_EQ(only("dscp: ef").bytes.dscp, 46);
    EXPECT_EQ(only("dscp: af41").bytes.dscp, 34);
    EXPECT_EQ(only("dscp: 10").bytes.dscp, 10);
}

TEST(PolicyCompiler, ReadsIcmpNamesOfTheFamily) {
    const auto v4 =
        only("protocol: icmp, icmp-type: destination-unreachable, icmp-code: port-unreachable");
    EXPECT_EQ(v4.bytes.icmpType, 3);
    EXPECT_EQ(v4.bytes.icmpTypeMask, 0xFF);
    EXPECT_EQ(v4.bytes.icmpCode, 3);
    EXPECT_EQ(v4.bytes.icmpCodeMask, 0xFF);
    const auto v6 =
        only6("protocol: icmpv6, icmp-type: destination-unreachable, icmp-code: port-unreachable");
    EXPECT_EQ(v6.bytes.icmpType, 1);
    EXPECT_EQ(v6.bytes.icmpCode, 4);
    EXPECT_EQ(only6("hop-limit: 255").bytes.ttl, 255);
}

TEST(PolicyCompiler, ExpandsListsToEntriesNamedByTheirValues) {
    EXPECT_EQ(names("source: $peers, protocol: [tcp, udp], destination-port: 53"),
              (std::vector<std::string>{
                  "r source=192.0.2.1/32 protocol=6", "r source=192.0.2.1/32 protocol=17",
                  "r source=192.0.2.2/32 protocol=6", "r source=192.0.2.2/32 protocol=17"}));
}

TEST(PolicyCompiler, NamesTheValueOfAListOfOne) {
    EXPECT_EQ(names("source: [192.0.2.1]"), std::vector<std::string>{"r source=192.0.2.1/32"});
    EXPECT_EQ(names("source: 192.0.2.1"), std::vector<std::string>{"r"});
}

TEST(PolicyCompiler, MatchesAPortInBothDirections) {
    const auto policy = compile(
        "actions: [{name: a}]\n"
        "ipv4: [{name: r, action: a, priority: 1, protocol: tcp, port: 179}]\n");
    ASSERT_EQ(policy.ipv4.size(), 2U);
    EXPECT_EQ(policy.ipv4[0].name, "r port=source 179");
    EXPECT_EQ(policy.ipv4[0].entry.ports, (VornPolicyCpu::MatchPorts{179, 179, 0, 0}));
    EXPECT_EQ(policy.ipv4[1].name, "r port=destination 179");
    EXPECT_EQ(policy.ipv4[1].entry.ports, (VornPolicyCpu::MatchPorts{0, 0, 179, 179}));
}

TEST(PolicyCompiler, KeepsKeysWhenFieldsChangeAndListsGrow) {
    const auto key = [](const std::string& fields, std::size_t index) {
        const auto policy = compile(
            "actions: [{name: a}]\nipv4: [{name: r, action: a, priority: 1, " + fields + "}]\n");
        return policy.ipv4.at(index).entry.key;
    };
    EXPECT_EQ(key("source: 192.0.2.1", 0), key("source: 192.0.2.2, ttl: 1", 0));
    EXPECT_EQ(key("source: [192.0.2.1]", 0), key("source: [192.0.2.9, 192.0.2.1]", 1));
    EXPECT_NE(key("source: [192.0.2.1]", 0), key("source: [192.0.2.2]", 0));
}

TEST(PolicyCompiler, DerivesKeysThatStayTheSameFromReleaseToRelease) {
    EXPECT_EQ(Agent::actionIdOf("icmp"), 0x258FF7CEU);
    EXPECT_EQ(Agent::stableHash64(""), 0xEFD01F60BA992926ULL);
}

TEST(PolicyCompiler, RequestsACounterOfItsOwnASharedOneOrNone) {
    const auto policy = compile(
        "actions:\n- {name: a, counter: yes}\n- {name: b, counter: no}\n- {name: c}\n"
        "- {name: d, counter: x}\n- {name: e, counter: x}\n");
    const auto request = [&](std::size_t i) { return policy.actions[i].entry.counterRequestKey; };
    EXPECT_NE(request(0).requestId, 0U);
    EXPECT_EQ(request(1), VornCountersLib::CrpsIndexRequestEntryKey{});
    EXPECT_EQ(request(2), VornCountersLib::CrpsIndexRequestEntryKey{});
    EXPECT_NE(request(3), request(0));
    EXPECT_EQ(request(3), request(4));
}

TEST(PolicyCompiler, RequestsAPolicerOfItsOwnASharedOneOrNone) {
    const auto policy = compile(
        "policers: [{name: p, rate: 10pps, burst: 5}]\n"
        "actions:\n- {name: a, policer: {rate: 500kbit, burst: 8kbyte}}\n- {name: b}\n"
        "- {name: c, policer: p}\n- {name: d, policer: p}\n");
    using VornPolicerLib::PolicerMode;
    const auto& a = policy.actions[0].entry;
    EXPECT_EQ(a.policerClientData.rate.get(), 500000U);
    EXPECT_EQ(a.policerClientData.burst.get(), 64000U);
    EXPECT_EQ(a.policerClientData.mode.get(), PolicerMode::bits);
    EXPECT_EQ(textOf(a.policerClientData.name), "a");
    EXPECT_EQ(policy.actions[1].entry.policerRequestKey,
              VornPolicerLib::PolicerIndexRequestEntryKey{});
    EXPECT_EQ(policy.actions[1].entry.policerClientData,
              VornPolicerLib::PolicerIndexRequestClientData{});
    const auto& c = policy.actions[2].entry;
    const auto& d = policy.actions[3].entry;
    EXPECT_NE(c.policerRequestKey, a.policerRequestKey);
    EXPECT_EQ(c.policerRequestKey, d.policerRequestKey);
    EXPECT_EQ(c.policerClientData, d.policerClientData);
    EXPECT_EQ(c.policerClientData.mode.get(), PolicerMode::packets);
    EXPECT_EQ(c.policerClientData.rate.get(), 10U);
    EXPECT_EQ(textOf(c.policerClientData.name), "p");
}

TEST(PolicyCompiler, ReadsRatesInAllTheirUnits) {
    const auto rate = [](const std::string& text) {
        const auto policy =
            compile("actions: [{name: a, policer: {rate: " + text + ", burst: 1}}]\n");
        const auto& data = policy.actions[0].entry.policerClientData;
        return std::pair(data.rate.get(), data.mode.get());
    };
    using VornPolicerLib::PolicerMode;
    EXPECT_EQ(rate("2000pps"), std::pair(std::uint64_t{2000}, PolicerMode::packets));
    EXPECT_EQ(rate("2 kpps"), std::pair(std::uint64_t{2000}, PolicerMode::packets));
    EXPECT_EQ(rate("30packets/s"), std::pair(std::uint64_t{30}, PolicerMode::packets));
    EXPECT_EQ(rate("500kbit"), std::pair(std::uint64_t{500000}, PolicerMode::bits));
    EXPECT_EQ(rate("500kbps"), std::pair(std::uint64_t{500000}, PolicerMode::bits));
    EXPECT_EQ(rate("1000Gbit/s"), std::pair(std::uint64_t{1000000000000}, PolicerMode::bits));
}

TEST(PolicyCompiler, MakesRequestsForAUnitOnlyWhereThereAreAny) {
    const auto policy = compile("actions:\n- {name: a, counter: yes}\n");
    const auto entry = Agent::forUnit(policy.actions[0].entry, {5});
    EXPECT_EQ(entry.counterRequestKey.unit, 5);
    EXPECT_EQ(entry.policerRequestKey, VornPolicerLib::PolicerIndexRequestEntryKey{});
}

}  // namespace
