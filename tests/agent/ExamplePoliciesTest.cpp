// The two example policies, compiled, against expectations written by hand.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/PolicyJson.h"

namespace {

using Agent::Json;

Json example(const std::string& name) {
    return Agent::policyJson(
        Agent::loadPolicy(std::string(VORN_SOURCE_DIR) + "/examples/" + name + ".yaml"));
}

/// The one item of that name; null when there is none.
Json named(const Json& list, const std::string& name) {
    for (const Json& item : list) {
        if (item["name"] == name)
            return item;
    }
    return nullptr;
}

/// "RATE/BURST UNIT", "permit" or "drop".
std::string treatment(const Json& policy, const std::string& action) {
    const Json found = named(policy["actions"], action);
    if (found.is_null())
        return "none";
    if (found["disposition"] == "drop")
        return "drop";
    if (!found["policed"].get<bool>())
        return "permit";
    return found["rate"].dump() + "/" + found["burst"].dump() + " " +
           found["mode"].get<std::string>();
}

/// What packets that meet the entry get.
std::string treatmentOf(const Json& policy, const char* table, const std::string& entry) {
    const Json found = named(policy[table], entry);
    if (found.is_null())
        return "none";
    for (const Json& action : policy["actions"]) {
        if (action["key"] == found["action"])
            return treatment(policy, action["name"].get<std::string>());
    }
    return "no action";
}

Json fields(const Json& policy, const char* table, const std::string& entry) {
    return named(policy[table], entry)["fields"];
}

TEST(Rfc6192Policy, HasTheEntriesCountedByHand) {
    const Json policy = example("rfc6192");
    EXPECT_EQ(policy["actions"].size(), 12U);
    // Fragments, ICMP, OSPF, NTP, SSH, SNMP and the rest once; iBGP and DNS 2; eBGP 4 peers x 2;
    // RADIUS 2 servers x 4 ports.
    EXPECT_EQ(policy["ipv4"].size(), 7U + 2 + 2 + 8 + 8);
    EXPECT_EQ(policy["ipv6"].size(), 8U + 2 + 2 + 8 + 8);  // OSPFv3 from the link as well
}

TEST(Rfc6192Policy, PolicesIcmpAndTheRestAndDropsFragments) {
    const Json policy = example("rfc6192");
    EXPECT_EQ(treatmentOf(policy, "ipv4", "icmp"), "500000/64000 bps");
    EXPECT_EQ(treatmentOf(policy, "ipv6", "icmpv6"), "500000/64000 bps");
    EXPECT_EQ(treatmentOf(policy, "ipv4", "other"), "500000/64000 bps");
    EXPECT_EQ(treatmentOf(policy, "ipv6", "other"), "500000/64000 bps");
    EXPECT_EQ(treatmentOf(policy, "ipv4", "fragments"), "drop");
    EXPECT_EQ(fields(policy, "ipv6", "fragments"), (Json{{"fragment", "0x01/0x01"}}));
    EXPECT_EQ(fields(policy, "ipv4", "other"), Json::object());
}

TEST(Rfc6192Policy, PermitsRoutingAndManagementFromKnownPrefixesOnly) {
    const Json policy = example("rfc6192");
    EXPECT_EQ(fields(policy, "ipv4", "ebgp source=198.51.100.25/32 port=destination 179"),
              (Json{{"src", "198.51.100.25/32"}, {"proto", "tcp"}, {"dport", "179"}}));
    EXPECT_EQ(fields(policy, "ipv6", "ibgp port=source 179"),
              (Json{{"src", "2001:db8:1::/48"}, {"proto", "tcp"}, {"sport", "179"}}));
    EXPECT_EQ(fields(policy, "ipv4", "ssh"),
              (Json{{"src", "198.51.100.128/25"}, {"proto", "tcp"}, {"dport", "22"}}));
    EXPECT_EQ(fields(policy, "ipv4", "radius source=198.51.100.9/32 source-port=1812"),
              (Json{{"src", "198.51.100.9/32"}, {"proto", "udp"}, {"sport", "1812"}}));
    for (const char* action : {"ospf", "ibgp", "ebgp", "dns", "ntp", "ssh", "snmp", "radius"})
        EXPECT_EQ(treatment(policy, action), "permit") << action;
}

TEST(LinuxSwitchPolicy, HasTheEntriesCountedByHand) {
    const Json policy = example("linux-switch");
    EXPECT_EQ(policy["actions"].size(), 15U);
    // Sources 4, BFD 3, OSPF 1, BGP 2, ICMP 1, DHCP 2, IGMP 1, the router's addresses 3, the rest.
    EXPECT_EQ(policy["ipv4"].size(), 18U);
    // Sources 4, BFD 3, OSPF 1, BGP 2, router 1 + 1, neighbour 2, multicast 4, other ICMPv6 1,
    // DHCPv6 2, the router's addresses 3, the rest.
    EXPECT_EQ(policy["ipv6"].size(), 25U);
}

TEST(LinuxSwitchPolicy, HasTheRatesOfEachClass) {
    const Json policy = example("linux-switch");
    const std::map<std::string, std::string> expected{
        {"invalid-source", "drop"},       {"bfd", "2000/2000 pps"},
        {"ospf", "2000/2000 pps"},        {"bgp", "2000/2000 pps"},
        {"icmp", "100/40 pps"},           {"dhcp", "100/100 pps"},
        {"igmp", "300/100 pps"},          {"router-solicit", "100/100 pps"},
        {"router-advert", "500/500 pps"}, {"neighbour", "400/400 pps"},
        {"mld", "200/100 pps"},           {"icmpv6", "64/40 pps"},
        {"dhcpv6", "100/100 pps"},        {"router", "1000/1000 pps"},
        {"rest", "400/100 pps"},
    };
    for (const auto& [action, text] : expected)
        EXPECT_EQ(treatment(policy, action), text);
}

TEST(LinuxSwitchPolicy, DropsSourcesThatCannotBeReal) {
    const Json policy = example("linux-switch");
    for (const char* source : {"240.0.0.0/4", "127.0.0.0/8", "255.255.255.255/32", "224.0.0.0/4"}) {
        const std::string entry = std::string("invalid-source source=") + source;
        EXPECT_EQ(fields(policy, "ipv4", entry), (Json{{"src", source}}));
        EXPECT_EQ(treatmentOf(policy, "ipv4", entry), "drop");
    }
    for (const char* source : {"ff00::/8", "::/128", "::ffff:0.0.0.0/96", "::1/128"}) {
        const std::string entry = std::string("invalid-source source=") + source;
        EXPECT_EQ(fields(policy, "ipv6", entry), (Json{{"src", source}}));
    }
}

TEST(LinuxSwitchPolicy, TellsIcmpTypesApart) {
    const Json policy = example("linux-switch");
    EXPECT_EQ(treatmentOf(policy, "ipv6", "neighbour icmp-type=135"), "400/400 pps");
    EXPECT_EQ(treatmentOf(policy, "ipv6", "neighbour icmp-type=136"), "400/400 pps");
    EXPECT_EQ(fields(policy, "ipv6", "router-solicit"),
              (Json{{"proto", "icmpv6"}, {"icmp-type", "133"}}));
    for (const char* type : {"130", "131", "132", "143"}) {
        EXPECT_EQ(fields(policy, "ipv6", std::string("mld icmp-type=") + type),
                  (Json{{"proto", "icmpv6"}, {"icmp-type", type}}));
    }
    EXPECT_EQ(fields(policy, "ipv4", "dhcp protocol=6"),
              (Json{{"proto", "tcp"}, {"dport", "67-68"}}));
    EXPECT_EQ(fields(policy, "ipv6", "dhcpv6 protocol=17"),
              (Json{{"proto", "udp"}, {"dport", "546-547"}}));
}

}  // namespace
