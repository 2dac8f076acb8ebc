// Packets through the programmed hardware, against what the policy files say when read by hand.

#include <gtest/gtest.h>

#include "tests/endtoend/TestedSystem.h"

namespace {

using TestSupport::Json;
using TestSupport::TestedSystem;

struct Expectation {
    const char* what;
    const char* packet;
    const char* action;
};

void expectAll(const char* example, const std::vector<Expectation>& expectations) {
    TestedSystem system;
    system.policyIsExample(example);
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1)) << system.agent().standardError();
    for (const Expectation& expected : expectations) {
        for (const int unit : {1, 2}) {
            const Json answer = system.askHardware(
                {{"cmd", "classify"}, {"unit", unit}, {"packet", Json::parse(expected.packet)}});
            ASSERT_EQ(answer["ok"], true) << expected.what << ": " << answer;
            ASSERT_FALSE(answer["match"].is_null()) << expected.what;
            EXPECT_EQ(answer["match"]["action"]["name"], expected.action) << expected.what;
        }
    }
}

TEST(Classification, FollowsTheRouterPolicy) {
    expectAll(
        "rfc6192",
        {
            {"ping", R"({"src":"203.0.113.1","dst":"192.0.2.9","proto":"icmp","icmp-type":8})",
             "icmp"},
            {"fragmented ping, later part",
             R"({"src":"203.0.113.1","dst":"192.0.2.9","proto":"icmp","fragment":"later"})",
             "fragments"},
            {"first fragment of BGP from a peer",
             R"({"src":"198.51.100.25","dst":"192.0.2.9","proto":"tcp","sport":1024,"dport":179,
                 "fragment":"first"})",
             "fragments"},
            {"OSPF from the backbone",
             R"({"src":"192.0.2.200","dst":"224.0.0.5","proto":"ospf","ttl":1})", "ospf"},
            {"OSPF from elsewhere",
             R"({"src":"198.51.100.200","dst":"224.0.0.5","proto":"ospf","ttl":1})", "other"},
            {"iBGP", R"({"src":"192.0.2.7","dst":"192.0.2.9","proto":"tcp","sport":179,
                         "dport":4000})",
             "ibgp"},
            {"eBGP, opened by the peer",
             R"({"src":"198.51.100.31","dst":"192.0.2.9","proto":"tcp","sport":4000,"dport":179})",
             "ebgp"},
            {"BGP from the address between two peers",
             R"({"src":"198.51.100.28","dst":"192.0.2.9","proto":"tcp","sport":4000,"dport":179})",
             "other"},
            {"BGP port over UDP from a peer",
             R"({"src":"198.51.100.31","dst":"192.0.2.9","proto":"udp","sport":4000,"dport":179})",
             "other"},
            {"DNS answer", R"({"src":"198.51.100.2","dst":"192.0.2.9","proto":"udp","sport":53,
                               "dport":4000})",
             "dns"},
            {"DNS answer over TCP", R"({"src":"198.51.100.3","dst":"192.0.2.9","proto":"tcp",
                                        "sport":53,"dport":4000})",
             "dns"},
            {"DNS question", R"({"src":"198.51.100.2","dst":"192.0.2.9","proto":"udp","sport":4000,
                                 "dport":53})",
             "other"},
            {"NTP", R"({"src":"198.51.100.7","dst":"192.0.2.9","proto":"udp","sport":123,
                        "dport":123})",
             "ntp"},
            {"NTP from outside of the prefix",
             R"({"src":"198.51.100.8","dst":"192.0.2.9","proto":"udp","sport":123,"dport":123})",
             "other"},
            {"SSH", R"({"src":"198.51.100.128","dst":"192.0.2.9","proto":"tcp","sport":4000,
                        "dport":22})",
             "ssh"},
            {"SSH from a stranger",
             R"({"src":"198.51.100.127","dst":"192.0.2.9","proto":"tcp","sport":4000,"dport":22})",
             "other"},
            {"SNMP", R"({"src":"198.51.100.255","dst":"192.0.2.9","proto":"udp","sport":4000,
                         "dport":161})",
             "snmp"},
            {"RADIUS accounting",
             R"({"src":"198.51.100.10","dst":"192.0.2.9","proto":"udp","sport":1813,"dport":4000})",
             "radius"},
            {"ping over IPv6",
             R"({"src":"2001:db8:9::1","dst":"2001:db8:1::1","proto":"icmpv6","icmp-type":128})",
             "icmpv6"},
            {"OSPFv3", R"({"src":"fe80::5","dst":"ff02::5","proto":"ospf"})", "ospf"},
            {"eBGP over IPv6", R"({"src":"2001:db8:100::27","dst":"2001:db8:1::1","proto":"tcp",
                                   "sport":179,"dport":4000})",
             "ebgp"},
            {"SSH over IPv6", R"({"src":"2001:db8:100:3::77","dst":"2001:db8:1::1","proto":"tcp",
                                  "sport":4000,"dport":22})",
             "ssh"},
            {"anything over IPv6", R"({"src":"2001:db8:9::1","dst":"2001:db8:1::1","proto":"udp",
                                       "sport":1,"dport":2})",
             "other"},
        });
}

TEST(Classification, FollowsTheSwitchPolicy) {
    expectAll(
        "linux-switch",
        {
            {"BFD from the loopback network",
             R"({"src":"127.1.2.3","dst":"192.0.2.1","proto":"udp","sport":1,"dport":3784})",
             "invalid-source"},
            {"from broadcast", R"({"src":"255.255.255.255","dst":"192.0.2.1","proto":"icmp"})",
             "invalid-source"},
            {"from multicast", R"({"src":"239.1.1.1","dst":"192.0.2.1","proto":"igmp"})",
             "invalid-source"},
            {"BFD control", R"({"src":"198.51.100.9","dst":"198.51.100.1","proto":"udp",
                                "sport":50000,"dport":3784})",
             "bfd"},
            {"BFD multi-hop", R"({"src":"203.0.113.9","dst":"198.51.100.1","proto":"udp",
                                  "sport":50000,"dport":4784})",
             "bfd"},
            {"BFD port over TCP", R"({"src":"203.0.113.9","dst":"198.51.100.1","proto":"tcp",
                                      "sport":50000,"dport":4784})",
             "router"},
            {"OSPF", R"({"src":"198.51.100.9","dst":"224.0.0.5","proto":"ospf"})", "ospf"},
            {"BGP to us", R"({"src":"198.51.100.9","dst":"198.51.100.1","proto":"tcp",
                              "sport":50000,"dport":179})",
             "bgp"},
            {"BGP to others", R"({"src":"198.51.100.1","dst":"198.51.100.9","proto":"tcp",
                                  "sport":179,"dport":50000})",
             "bgp"},
            {"ping to us", R"({"src":"198.51.100.9","dst":"192.0.2.1","proto":"icmp",
                               "icmp-type":8})",
             "icmp"},
            {"DHCP", R"({"src":"0.0.0.0","dst":"255.255.255.255","proto":"udp","sport":68,
                         "dport":67})",
             "dhcp"},
            {"IGMP", R"({"src":"198.51.100.9","dst":"224.0.0.22","proto":"igmp"})", "igmp"},
            {"SSH to us", R"({"src":"198.51.100.9","dst":"203.0.113.1","proto":"tcp",
                              "sport":50000,"dport":22})",
             "router"},
            {"passing by", R"({"src":"198.51.100.9","dst":"203.0.113.2","proto":"tcp",
                               "sport":50000,"dport":22})",
             "rest"},
            {"from ::1", R"({"src":"::1","dst":"2001:db8::1","proto":"tcp","dport":179})",
             "invalid-source"},
            {"from the unspecified address",
             R"({"src":"::","dst":"ff02::1:ff00:1","proto":"icmpv6","icmp-type":135})",
             "invalid-source"},
            {"from a mapped address",
             R"({"src":"::ffff:192.0.2.1","dst":"2001:db8::1","proto":"udp"})", "invalid-source"},
            {"router solicitation",
             R"({"src":"fe80::9","dst":"ff02::2","proto":"icmpv6","icmp-type":133})",
             "router-solicit"},
            {"router advertisement",
             R"({"src":"fe80::9","dst":"ff02::1","proto":"icmpv6","icmp-type":134})",
             "router-advert"},
            {"neighbour advertisement",
             R"({"src":"fe80::9","dst":"ff02::1","proto":"icmpv6","icmp-type":136})", "neighbour"},
            {"multicast report",
             R"({"src":"fe80::9","dst":"ff02::16","proto":"icmpv6","icmp-type":143})", "mld"},
            {"ping to us over IPv6",
             R"({"src":"2001:db8:9::1","dst":"2001:db8::1","proto":"icmpv6","icmp-type":128})",
             "icmpv6"},
            {"DHCPv6", R"({"src":"fe80::9","dst":"ff02::1:2","proto":"udp","sport":546,
                           "dport":547})",
             "dhcpv6"},
            {"BFD over IPv6", R"({"src":"fe80::9","dst":"fe80::1","proto":"udp","sport":50000,
                                  "dport":3785})",
             "bfd"},
            {"SSH to us over IPv6", R"({"src":"2001:db8:9::1","dst":"fe80::1","proto":"tcp",
                                        "sport":50000,"dport":22})",
             "router"},
            {"passing by over IPv6", R"({"src":"2001:db8:9::1","dst":"2001:db8:9::2","proto":"tcp",
                                         "sport":50000,"dport":22})",
             "rest"},
        });
}

}  // namespace
