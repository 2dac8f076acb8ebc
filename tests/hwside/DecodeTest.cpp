#include "hwside/Decode.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/hwside/PacketBytes.h"
#include "types/MatchFields.h"

namespace HwSide::Test {
namespace {

constexpr std::uint16_t kTypeV4 = 0x0800;
constexpr std::uint16_t kTypeV6 = 0x86DD;
constexpr std::uint16_t kDontFragmentFlag = 0x4000;
constexpr std::uint16_t kMoreFragmentsFlag = 0x2000;

Packet decoded(const Decoded& result) {
    EXPECT_EQ(result.outcome, DecodeOutcome::ok) << result.reason;
    EXPECT_TRUE(result.reason.empty());
    return result.packet;
}

TEST(Decode, ReadsFieldsOfATcpPacket) {
    const Packet packet = decoded(decodeEthernet(ethernet(
        kTypeV4, v4Packet({.protocol = kTcp, .tos = 0xC0, .ttl = 1, .fragment = kDontFragmentFlag},
                          tcpHeader(1024, 179, 0x02)))));
    Packet expected;
    expected.addresses = V4Addresses{0xC0000201, 0xC6336407};
    expected.protocol = kTcp;
    expected.dscp = 48;
    expected.ttl = 1;
    expected.fragment = VornPolicyCpu::kDontFragment;
    expected.ports = PacketPorts{1024, 179};
    expected.tcpFlags = 0x02;
    EXPECT_EQ(packet, expected) << packet.toText();
    EXPECT_EQ(packet.toText(),
              "192.0.2.1 > 198.51.100.7 tcp 1024 > 179 flags 0x02 dscp 48 ttl 1 df");
}

TEST(Decode, SkipsOptionsOfTheIpv4Header) {
    const Packet packet =
        decoded(decodeIp(v4Packet({.options = {0x94, 4, 0, 0}}, udpHeader(68, 67))));
    EXPECT_EQ(packet.ports, (PacketPorts{68, 67}));
}

TEST(Decode, ReadsIcmpTypeAndCode) {
    const Packet packet = decoded(decodeIp(v4Packet({.protocol = kIcmp}, {3, 4, 0, 0})));
    EXPECT_EQ(packet.icmp, (PacketIcmp{3, 4}));
    EXPECT_FALSE(packet.ports);
}

TEST(Decode, TakesIcmpv6InIpv4ForNoIcmp) {
    EXPECT_FALSE(decoded(decodeIp(v4Packet({.protocol = kIcmpV6}, {135, 0, 0, 0}))).icmp);
}

TEST(Decode, LeavesVlanTagsOut) {
    for (std::size_t tags = 1; tags <= 4; ++tags) {
        const Packet packet =
            decoded(decodeEthernet(ethernet(kTypeV4, v4Packet({}, udpHeader(1, 2)), tags)));
        EXPECT_EQ(packet.ports, (PacketPorts{1, 2}));
    }
}

TEST(Decode, ReadsLinuxCookedFrames) {
    Bytes frame(14, 0);
    append16(frame, kTypeV6);
    append(frame, v6Packet({}, udpHeader(546, 547)));
    EXPECT_EQ(decoded(decodeLinuxCooked(frame)).ports, (PacketPorts{546, 547}));
}

TEST(Decode, ReadsFieldsOfAnIpv6Packet) {
    const Packet packet = decoded(decodeIp(
        v6Packet({.nextHeader = kIcmpV6, .trafficClass = 0xE3, .hopLimit = 255}, {135, 0, 0, 0})));
    EXPECT_TRUE(packet.isV6());
    EXPECT_EQ(packet.dscp, 56);
    EXPECT_EQ(packet.ttl, 255);
    EXPECT_EQ(packet.icmp, (PacketIcmp{135, 0}));
    EXPECT_EQ(packet.toText(),
              "2001:db8::1 > 2001:db8:7::2 icmpv6 type 135 code 0 dscp 56 ttl 255");
}

TEST(Decode, FindsTheUpperLayerBehindExtensionHeaders) {
    const Packet packet =
        decoded(decodeIp(v6Packet({.nextHeader = 0}, joined({extensionHeader(60, 2),
                                                             extensionHeader(43, 3),
                                                             extensionHeader(kIcmpV6),
                                                             {143, 0, 0, 0}}))));
    EXPECT_EQ(packet.protocol, kIcmpV6);
    EXPECT_EQ(packet.icmp, (PacketIcmp{143, 0}));
    EXPECT_EQ(packet.fragment, 0);
}

TEST(Decode, CountsTheAuthenticationHeaderInFourByteUnits) {
    Bytes authentication(24, 0);
    authentication[0] = kTcp;
    authentication[1] = 4;
    const Packet packet = decoded(
        decodeIp(v6Packet({.nextHeader = kAh}, joined({authentication, tcpHeader(5, 179, 0x10)}))));
    EXPECT_EQ(packet.ports, (PacketPorts{5, 179}));
}

TEST(Decode, GivesTheFirstFragmentItsPorts) {
    const Packet v4 =
        decoded(decodeIp(v4Packet({.fragment = kMoreFragmentsFlag}, udpHeader(53, 99))));
    EXPECT_EQ(v4.fragment, VornPolicyCpu::kIsFragment);
    EXPECT_EQ(v4.ports, (PacketPorts{53, 99}));
    const Packet v6 = decoded(decodeIp(
        v6Packet({.nextHeader = 44}, joined({fragmentHeader(kUdp, 1), udpHeader(53, 99)}))));
    EXPECT_EQ(v6.fragment, VornPolicyCpu::kIsFragment);
    EXPECT_EQ(v6.ports, (PacketPorts{53, 99}));
}

TEST(Decode, GivesLaterFragmentsNoPorts) {
    constexpr auto kLater = VornPolicyCpu::kIsFragment | VornPolicyCpu::kNonFirstFragment;
    const Packet v4 = decoded(decodeIp(v4Packet({.fragment = 100}, udpHeader(53, 99))));
    EXPECT_EQ(v4.fragment, kLater);
    EXPECT_FALSE(v4.ports);
    const Packet v6 = decoded(decodeIp(v6Packet(
        {.nextHeader = 44}, joined({fragmentHeader(kUdp, 100 << 3U), udpHeader(53, 99)}))));
    EXPECT_EQ(v6.fragment, kLater);
    EXPECT_EQ(v6.protocol, kUdp);
    EXPECT_FALSE(v6.ports);
}

TEST(Decode, TakesAFragmentHeaderOfAWholePacketForNoFragment) {
    const Packet packet = decoded(
        decodeIp(v6Packet({.nextHeader = 44}, joined({fragmentHeader(kUdp, 0), udpHeader(1, 2)}))));
    EXPECT_EQ(packet.fragment, 0);
    EXPECT_EQ(packet.ports, (PacketPorts{1, 2}));
}

TEST(Decode, LeavesOutWhatATinyFirstFragmentDoesNotReach) {
    Bytes tiny = tcpHeader(1, 179, 0x02);
    tiny.resize(8);
    const Packet packet =
        decoded(decodeIp(v4Packet({.protocol = kTcp, .fragment = kMoreFragmentsFlag}, tiny)));
    EXPECT_EQ(packet.ports, (PacketPorts{1, 179}));
    EXPECT_FALSE(packet.tcpFlags);
}

TEST(Decode, CallsAPacketThatIsTooShortForItsTransportMalformed) {
    Bytes tiny = tcpHeader(1, 179, 0x02);
    tiny.resize(8);
    EXPECT_EQ(decodeIp(v4Packet({.protocol = kTcp}, tiny)).outcome, DecodeOutcome::malformed);
}

TEST(Decode, DoesNotReadEthernetPaddingAsTransport) {
    Bytes frame = ethernet(kTypeV4, v4Packet({.protocol = kUdp}, {}));
    frame.resize(60, 0xEE);
    EXPECT_EQ(decodeEthernet(frame).outcome, DecodeOutcome::malformed);
}

TEST(Decode, NamesWhatIsNotIp) {
    EXPECT_EQ(decodeEthernet(ethernet(0x0806, Bytes(28, 0))).outcome, DecodeOutcome::notIp);
    EXPECT_EQ(decodeEthernet(ethernet(0x0040, Bytes(64, 0))).outcome, DecodeOutcome::notIp);
}

TEST(Decode, RefusesContradictingVersionsAndLengths) {
    EXPECT_EQ(decodeEthernet(ethernet(kTypeV6, v4Packet({}, udpHeader(1, 2)))).outcome,
              DecodeOutcome::malformed);
    EXPECT_EQ(decodeIp(Bytes(40, 0x50)).outcome, DecodeOutcome::malformed);
    Bytes shortHeader = v4Packet({}, udpHeader(1, 2));
    shortHeader[0] = 0x44;
    EXPECT_EQ(decodeIp(shortHeader).outcome, DecodeOutcome::malformed);
    Bytes shortTotal = v4Packet({}, udpHeader(1, 2));
    shortTotal[3] = 19;
    EXPECT_EQ(decodeIp(shortTotal).outcome, DecodeOutcome::malformed);
    Bytes longExtension = v6Packet({.nextHeader = 60}, extensionHeader(kUdp));
    longExtension[41] = 200;
    EXPECT_EQ(decodeIp(longExtension).outcome, DecodeOutcome::malformed);
}

std::vector<Bytes> frames() {
    return {
        ethernet(kTypeV4, v4Packet({.protocol = kTcp}, tcpHeader(1, 179, 2)), 2),
        ethernet(kTypeV4, v4Packet({.protocol = kIcmp, .options = Bytes(40, 1)}, {8, 0, 0, 0})),
        ethernet(kTypeV6, v6Packet({.nextHeader = 0},
                                   joined({extensionHeader(44), fragmentHeader(60, 1),
                                           extensionHeader(kTcp, 3), tcpHeader(1, 2, 3)}))),
        ethernet(kTypeV6, v6Packet({.nextHeader = kIcmpV6}, {135, 0, 0, 0}), 1),
    };
}

/// Every shorter copy lies in a block of its own, so that a read behind its end is seen.
TEST(Decode, CallsEveryCaptureThatEndsWithinAHeaderTruncated) {
    for (const Bytes& frame : frames()) {
        ASSERT_EQ(decodeEthernet(frame).outcome, DecodeOutcome::ok);
        for (std::size_t length = 0; length < frame.size(); ++length) {
            const Bytes cut(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length));
            const Decoded result = decodeEthernet(cut);
            // What a header does not need (rest of a TCP header, of an ICMP message) may be cut.
            if (result.outcome == DecodeOutcome::ok) {
                EXPECT_EQ(result.packet, decodeEthernet(frame).packet);
                EXPECT_GT(length + 8, frame.size());
            } else {
                EXPECT_EQ(result.outcome, DecodeOutcome::truncated) << length;
                EXPECT_FALSE(result.reason.empty());
            }
        }
    }
}

TEST(Decode, SurvivesAnyBytes) {
    std::mt19937 random(20240611);
    const std::vector<Bytes> seeds = frames();
    std::array<std::size_t, 4> seen{};
    for (int round = 0; round < 200000; ++round) {
        Bytes bytes = seeds[random() % seeds.size()];
        for (auto changes = random() % 6; changes > 0; --changes) {
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
        }
        bytes.resize(random() % (bytes.size() + 1));
        bytes.shrink_to_fit();
        ++seen.at(static_cast<std::size_t>(decodeEthernet(bytes).outcome));
        decodeLinuxCooked(bytes);
        decodeIp(bytes);
    }
    for (const std::size_t count : seen)
        EXPECT_GT(count, 0U);
}

}  // namespace
}  // namespace HwSide::Test
