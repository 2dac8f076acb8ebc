#include "hwside/Json.h"

#include <gtest/gtest.h>

#include "types/MatchFields.h"

namespace HwSide::Test {
namespace {

std::string refusalOf(const char* packet) {
    try {
        packetFromJson(Json::parse(packet));
    } catch (const RequestError& error) {
        return error.what();
    }
    return "none";
}

TEST(PacketJson, GivesWhatIsLeftOutItsDefault) {
    const Packet packet =
        packetFromJson(Json::parse(R"({"src":"192.0.2.1","dst":"198.51.100.7","proto":"tcp",
                                       "dport":179})"));
    Packet expected;
    expected.addresses = V4Addresses{0xC0000201, 0xC6336407};
    expected.protocol = kTcp;
    expected.ports = PacketPorts{0, 179};
    expected.tcpFlags = 0;
    EXPECT_EQ(packet, expected);
}

TEST(PacketJson, KnowsEveryProtocolThatAPolicyMayName) {
    for (const char* const name : {"rsvp", "eigrp", "isis"}) {
        const Packet packet =
            packetFromJson({{"src", "192.0.2.1"}, {"dst", "192.0.2.2"}, {"proto", name}});
        EXPECT_EQ(protocolText(packet.protocol), name);
    }
}

TEST(PacketJson, SurvivesTheWayThereAndBack) {
    std::vector<Packet> packets(4);
    packets[0].addresses = V6Addresses{{0x20, 1}, {0xFE, 0x80}};
    packets[0].protocol = kIcmpV6;
    packets[0].icmp = PacketIcmp{135, 0};
    packets[0].ttl = 255;
    packets[1].protocol = kTcp;
    packets[1].dscp = 48;
    packets[1].ports = PacketPorts{1, 65535};
    packets[1].tcpFlags = 0x12;
    packets[1].fragment = VornPolicyCpu::kDontFragment;
    packets[2].protocol = kUdp;
    packets[2].fragment = VornPolicyCpu::kIsFragment | VornPolicyCpu::kNonFirstFragment;
    packets[3].protocol = kTcp;  // a first fragment that ends behind its ports
    packets[3].fragment = VornPolicyCpu::kIsFragment;
    packets[3].ports = PacketPorts{1, 179};
    for (const Packet& packet : packets) {
        EXPECT_EQ(packetFromJson(packetToJson(packet)), packet) << packetToJson(packet);
    }
}

TEST(PacketJson, SaysWhichMemberIsWrong) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {R"([])", "packet: expected an object"},
        {R"({"dst":"192.0.2.1"})", "packet: src is missing"},
        {R"({"src":"192.0.2","dst":"192.0.2.1"})", "packet: src: \"192.0.2\" is no IP address"},
        {R"({"src":"::1","dst":7})", "packet: dst: expected text, got 7"},
        {R"({"src":"::1","dst":"192.0.2.1"})",
         "packet: src and dst are addresses of different families"},
        {R"({"src":"::1","dst":"::","size":1})", "packet: there is no field \"size\""},
        {R"({"src":"::1","dst":"::","ttl":256})",
         "packet: ttl: expected a number from 0 to 255, got 256"},
        {R"({"src":"::1","dst":"::","ttl":-1})",
         "packet: ttl: expected a number from 0 to 255, got -1"},
        {R"({"src":"::1","dst":"::","proto":"bgp"})",
         "packet: proto: \"bgp\" is no protocol known by name, and no number from 0 to 255"},
        {R"({"src":"::1","dst":"::","proto":null})",
         "packet: proto: expected a protocol by name or number, got null"},
        {R"({"src":"::1","dst":"::","proto":"icmpv6","dport":1})",
         "packet: dport: a packet of protocol icmpv6 has no such field"},
        {R"({"src":"::1","dst":"::","proto":6,"fragment":"later","dport":1})",
         "packet: dport: a packet of protocol tcp that is a later fragment has no such field"},
        {R"({"src":"::1","dst":"::","fragment":"middle"})",
         "packet: fragment: expected \"none\", \"first\" or \"later\", got \"middle\""},
        {R"({"src":"::1","dst":"::","df":true})", "packet: df: IPv6 has no such bit"},
        {R"({"src":"1.1.1.1","dst":"1.1.1.2","df":1})",
         "packet: df: expected true or false, got 1"},
    };
    for (const auto& [packet, refusal] : cases)
        EXPECT_EQ(refusalOf(packet), refusal);
}

TEST(EntryJson, LeavesOutFieldsThatMatchAnything) {
    const V4Types::LogEntry entry(VornPolicyCpu::MatchKey{1, 2});
    EXPECT_EQ(entryJson(entry).dump(),
              R"({"key":"00000001.00000002","label":"","priority":0,"action":"00000000.0",)"
              R"("fields":{}})");
}

TEST(EntryJson, WritesFieldsAsPeopleDo) {
    V4Types::Entry v4;
    v4.addresses = {0xC0000200, 0xFFFFFF00, 0x7F000001, 0xFF0000FF};
    v4.bytes.protocol = kTcp;
    v4.bytes.protocolMask = 0xFF;
    v4.bytes.dscp = 48;
    v4.bytes.dscpMask = 0x3F;
    v4.bytes.tcpFlags = 2;
    v4.bytes.tcpFlagsMask = 0x12;
    v4.ports = {0, 0, 67, 68};
    EXPECT_EQ(entryJson(v4.toLogEntry()).at("fields").dump(),
              R"({"src":"192.0.2.0/24","dst":"127.0.0.1 mask 255.0.0.255","proto":"tcp",)"
              R"("dport":"67-68","tcp-flags":"0x02/0x12","dscp":"48"})");
    V6Types::Entry v6;
    v6.source.address = v6FromText("fe80::").value();
    v6.source.mask = v6FromText("ffc0::").value();
    v6.destination.mask = v6FromText("::1").value();
    v6.bytes.icmpType = 134;
    v6.bytes.icmpTypeMask = 0xFE;
    v6.ports.sourceLow = v6.ports.sourceHigh = 547;
    EXPECT_EQ(entryJson(v6.toLogEntry()).at("fields").dump(),
              R"({"src":"fe80::/10","dst":":: mask ::1","sport":"547","icmp-type":"0x86/0xfe"})");
}

TEST(EntryJson, LeavesTheIndexesOfAnActionWithoutResourcesOut) {
    ActionTypes::Entry action;
    action.key.id = 7;
    action.name = VornPolicyCpu::fixedText<18>("drop");
    action.disposition = VornPolicyCpu::Disposition::drop;
    EXPECT_EQ(entryJson(action.toLogEntry()).dump(),
              R"({"key":"00000007.0","name":"drop","disposition":"drop","counter":null,)"
              R"("policer":null,"rate":0,"burst":0,"mode":"none"})");
}

}  // namespace
}  // namespace HwSide::Test
