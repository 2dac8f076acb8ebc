#include "hwside/Tcam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/hwside/AgentSide.h"

namespace HwSide::Test {
namespace {

using VornPolicyCpu::MatchKey;
using V4Entry = V4Types::Entry;
using V6Entry = V6Types::Entry;

Asic::LogVersion version(std::uint64_t value) {
    return {value};
}

V4Entry v4Entry(std::uint32_t rule, std::uint32_t priority) {
    V4Entry entry;
    entry.key = {rule, 0};
    entry.priority = priority;
    entry.actionKey.id = 9;
    entry.label = VornPolicyCpu::fixedText<16>("rule " + std::to_string(rule));
    return entry;
}

Packet v4PacketTo(std::uint16_t port) {
    Packet packet;
    packet.addresses = V4Addresses{0xC0000201, 0xC6336407};
    packet.protocol = kTcp;
    packet.ports = PacketPorts{40000, port};
    packet.tcpFlags = 0x12;
    return packet;
}

bool meets(const V4Entry& entry, const Packet& packet) {
    return matches(entry.toLogEntry(), packet);
}

ActionTypes::LogEntry action(std::uint32_t id, std::uint64_t rate) {
    ActionTypes::Entry entry;
    entry.key.id = id;
    entry.policerClientData.rate = rate;
    entry.name = VornPolicyCpu::fixedText<18>("action " + std::to_string(id));
    return entry.toLogEntry();
}

TEST(TcamMatch, AnEntryMadeFromAKeyAloneMatchesEveryPacketOfItsFamily) {
    const V4Types::LogEntry v4(MatchKey{1, 1});
    const V6Types::LogEntry v6(MatchKey{1, 1});
    Packet packet = v4PacketTo(179);
    EXPECT_TRUE(matches(v4, packet));
    EXPECT_FALSE(matches(v6, packet));
    packet.addresses = V6Addresses{};
    EXPECT_FALSE(matches(v4, packet));
    EXPECT_TRUE(matches(v6, packet));
}

TEST(TcamMatch, ComparesAddressBitsUnderTheMask) {
    V4Entry entry = v4Entry(1, 1);
    entry.addresses = {0xC0000200, 0xFFFFFF00, 0, 0};
    EXPECT_TRUE(meets(entry, v4PacketTo(1)));
    entry.addresses = {0xC0000300, 0xFFFFFF00, 0, 0};
    EXPECT_FALSE(meets(entry, v4PacketTo(1)));
    entry.addresses = {0, 0, 0xC6336407, 0xFFFFFFFF};
    EXPECT_TRUE(meets(entry, v4PacketTo(1)));
}

TEST(TcamMatch, IgnoresValueBitsOutsideTheMask) {
    V4Entry entry = v4Entry(1, 1);
    entry.bytes.ttl = 0xFF;
    EXPECT_TRUE(meets(entry, v4PacketTo(1)));
}

TEST(TcamMatch, TakesBothEndsOfAPortRange) {
    V4Entry entry = v4Entry(1, 1);
    entry.ports.destinationLow = 67;
    entry.ports.destinationHigh = 68;
    EXPECT_FALSE(meets(entry, v4PacketTo(66)));
    EXPECT_TRUE(meets(entry, v4PacketTo(67)));
    EXPECT_TRUE(meets(entry, v4PacketTo(68)));
    EXPECT_FALSE(meets(entry, v4PacketTo(69)));
}

TEST(TcamMatch, AsksNothingOfAFieldThatThePacketLacksUnlessTheEntryNamesIt) {
    Packet packet = v4PacketTo(1);
    packet.ports.reset();
    packet.tcpFlags.reset();
    EXPECT_TRUE(meets(v4Entry(1, 1), packet));
    V4Entry ports = v4Entry(1, 1);
    ports.ports.sourceHigh = 65535;
    EXPECT_FALSE(meets(ports, packet));
    V4Entry flags = v4Entry(1, 1);
    flags.bytes.tcpFlagsMask = 2;
    EXPECT_FALSE(meets(flags, packet));
    V4Entry icmp = v4Entry(1, 1);
    icmp.bytes.icmpTypeMask = 0xFF;
    EXPECT_FALSE(meets(icmp, packet));
}

TEST(TcamMatch, ComparesEveryOneByteField) {
    Packet packet = v4PacketTo(1);
    packet.icmp = PacketIcmp{8, 1};
    packet.dscp = 46;
    packet.ttl = 255;
    packet.fragment = VornPolicyCpu::kIsFragment;
    using Bytes = VornPolicyCpu::MatchBytes;
    const std::vector<Bytes> meeting{
        {.protocol = kTcp, .protocolMask = 0xFF},
        {.dscp = 46, .dscpMask = 0x3F},
        {.ttl = 255, .ttlMask = 0xFF},
        {.tcpFlags = 0x02, .tcpFlagsMask = 0x03},
        {.fragment = 1, .fragmentMask = 1},
        {.icmpType = 8, .icmpTypeMask = 0xFF},
        {.icmpCode = 1, .icmpCodeMask = 0xFF},
    };
    const std::vector<Bytes> missing{
        {.protocol = kUdp, .protocolMask = 0xFF},
        {.dscp = 0, .dscpMask = 0x3F},
        {.ttl = 254, .ttlMask = 0xFF},
        {.tcpFlags = 0x03, .tcpFlagsMask = 0x03},
        {.fragment = 0, .fragmentMask = 1},
        {.icmpType = 0, .icmpTypeMask = 0xFF},
        {.icmpCode = 0, .icmpCodeMask = 0xFF},
    };
    V4Entry entry = v4Entry(1, 1);
    for (const Bytes& bytes : meeting) {
        entry.bytes = bytes;
        EXPECT_TRUE(meets(entry, packet));
    }
    for (const Bytes& bytes : missing) {
        entry.bytes = bytes;
        EXPECT_FALSE(meets(entry, packet));
    }
}

TEST(Tcam, HigherPriorityWins) {
    Tcam tcam;
    tcam.program<V4Types>(kUnit, v4Entry(1, 10).toLogEntry(), version(1));
    tcam.program<V4Types>(kUnit, v4Entry(2, 20).toLogEntry(), version(2));
    EXPECT_EQ(tcam.classify(kUnit, v4PacketTo(1))->key, (MatchKey{2, 0}));
}

TEST(Tcam, LowerKeyWinsAmongEqualPriorities) {
    Tcam tcam;
    tcam.program<V4Types>(kUnit, v4Entry(2, 10).toLogEntry(), version(1));
    tcam.program<V4Types>(kUnit, v4Entry(1, 10).toLogEntry(), version(2));
    EXPECT_EQ(tcam.classify(kUnit, v4PacketTo(1))->key, (MatchKey{1, 0}));
}

TEST(Tcam, AChangedPriorityMovesTheEntry) {
    Tcam tcam;
    tcam.program<V4Types>(kUnit, v4Entry(1, 10).toLogEntry(), version(1));
    tcam.program<V4Types>(kUnit, v4Entry(2, 20).toLogEntry(), version(2));
    tcam.program<V4Types>(kUnit, v4Entry(2, 5).toLogEntry(), version(3));
    EXPECT_EQ(tcam.classify(kUnit, v4PacketTo(1))->key, (MatchKey{1, 0}));
    tcam.remove<V4Types>(kUnit, {1, 0});
    EXPECT_EQ(tcam.classify(kUnit, v4PacketTo(1))->key, (MatchKey{2, 0}));
}

TEST(Tcam, VerdictNamesTheActionBehindTheEntry) {
    Tcam tcam;
    tcam.program<V4Types>(kUnit, v4Entry(1, 10).toLogEntry(), version(7));
    EXPECT_FALSE(tcam.classify(kUnit, v4PacketTo(1))->action);
    EXPECT_EQ(tcam.unresolved(), 1U);
    tcam.program<ActionTypes>(kUnit, action(9, 500), version(3));
    const std::optional<Verdict> verdict = tcam.classify(kUnit, v4PacketTo(1));
    ASSERT_TRUE(verdict && verdict->action);
    EXPECT_EQ(verdict->label, "rule 1");
    EXPECT_EQ(verdict->version, version(7));
    EXPECT_EQ(VornPolicyCpu::textOf(verdict->action->name), "action 9");
    EXPECT_EQ(tcam.unresolved(), 0U);
}

TEST(Tcam, KeepsUnitsApart) {
    Tcam tcam;
    tcam.program<V4Types>(kUnit, v4Entry(1, 10).toLogEntry(), version(1));
    EXPECT_FALSE(tcam.classify(kOtherUnit, v4PacketTo(1)));
    EXPECT_FALSE(tcam.remove<V4Types>(kOtherUnit, {1, 0}));
    EXPECT_EQ(tcam.clearBefore<V4Types>(kOtherUnit, version(9)), 0U);
    EXPECT_EQ(tcam.entries<V4Types>(), 1U);
}

TEST(Tcam, CountsSameContentAsUnchangedButTakesItsVersion) {
    Tcam tcam;
    EXPECT_EQ(tcam.program<ActionTypes>(kUnit, action(9, 500), version(1)), Programmed::added);
    EXPECT_EQ(tcam.program<ActionTypes>(kUnit, action(9, 500), version(2)), Programmed::unchanged);
    EXPECT_EQ(tcam.program<ActionTypes>(kUnit, action(9, 501), version(3)), Programmed::changed);
    EXPECT_TRUE(tcam.remove<ActionTypes>(kUnit, action(9, 0).key));
    EXPECT_FALSE(tcam.remove<ActionTypes>(kUnit, action(9, 0).key));
    EXPECT_EQ(tcam.counters<ActionTypes>(), (ProgramCounters{1, 1, 1, 1}));
    EXPECT_EQ(tcam.counters<V4Types>(), ProgramCounters{});
}

TEST(Tcam, ClearKeepsWhatWasProgrammedAtOrAfterItsVersion) {
    Tcam tcam;
    for (std::uint32_t rule = 1; rule <= 3; ++rule) {
        tcam.program<V4Types>(kUnit, v4Entry(rule, rule).toLogEntry(), version(rule));
    }
    EXPECT_EQ(tcam.clearBefore<V4Types>(kUnit, version(3)), 2U);
    EXPECT_EQ(tcam.classify(kUnit, v4PacketTo(1))->key, (MatchKey{3, 0}));
    EXPECT_EQ(tcam.counters<V4Types>().removed, 2U);
}

/// What the model answers, found by trying every entry.
template <class Types>
struct LinearScan {
    std::vector<typename Types::LogEntry> entries;

    void remove(const MatchKey& key) {
        std::erase_if(entries, [&](const auto& entry) { return entry.key.get() == key; });
    }
    std::optional<MatchKey> classify(const Packet& packet) const {
        std::optional<MatchKey> best;
        std::uint32_t priority = 0;
        for (const auto& entry : entries) {
            if (!matches(entry, packet))
                continue;
            const bool wins = !best || entry.priority > priority ||
                              (entry.priority.get() == priority && entry.key.get() < *best);
            if (wins) {
                best = entry.key;
                priority = entry.priority;
            }
        }
        return best;
    }
};

/// Small value ranges, so that entries overlap and packets meet several.
class RandomTraffic {
public:
    explicit RandomTraffic(unsigned seed) : random_(seed) {}

    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    std::uint8_t byteBelow(unsigned limit) { return static_cast<std::uint8_t>(below(limit)); }
    std::uint8_t mask() { return below(3) == 0 ? byteBelow(4) : std::uint8_t{0}; }

    template <class Entry>
    Entry common() {
        Entry entry;
        entry.key = {below(40), below(2)};
        entry.priority = below(6);
        if (below(3) == 0) {
            entry.ports.destinationLow = static_cast<std::uint16_t>(below(4));
            entry.ports.destinationHigh =
                static_cast<std::uint16_t>(entry.ports.destinationLow + below(3));
        }
        entry.bytes = {.protocol = byteBelow(4),
                       .protocolMask = mask(),
                       .dscp = byteBelow(4),
                       .dscpMask = mask(),
                       .ttl = byteBelow(4),
                       .ttlMask = mask(),
                       .tcpFlags = byteBelow(4),
                       .tcpFlagsMask = mask(),
                       .fragment = byteBelow(4),
                       .fragmentMask = mask(),
                       .icmpType = byteBelow(4),
                       .icmpTypeMask = mask(),
                       .icmpCode = byteBelow(4),
                       .icmpCodeMask = mask()};
        return entry;
    }
    V4Types::LogEntry entry(V4Types /*table*/) {
        auto made = common<V4Entry>();
        made.addresses = {below(4), mask(), below(4), mask()};
        return made.toLogEntry();
    }
    V6Types::LogEntry entry(V6Types /*table*/) {
        auto made = common<V6Entry>();
        made.source.address[0] = byteBelow(4);
        made.source.mask[0] = mask();
        made.destination.address[15] = byteBelow(4);
        made.destination.mask[15] = mask();
        return made.toLogEntry();
    }
    Packet packet(bool isV6) {
        Packet made;
        made.addresses = V4Addresses{below(4), below(4)};
        if (isV6) {
            V6Addresses addresses;
            addresses.source[0] = byteBelow(4);
            addresses.destination[15] = byteBelow(4);
            made.addresses = addresses;
        }
        made.protocol = byteBelow(4);
        made.dscp = byteBelow(4);
        made.ttl = byteBelow(4);
        made.fragment = byteBelow(4);
        if (below(2) == 0)
            made.ports = PacketPorts{1, static_cast<std::uint16_t>(below(6))};
        if (below(2) == 0)
            made.tcpFlags = byteBelow(4);
        if (below(2) == 0)
            made.icmp = PacketIcmp{byteBelow(4), byteBelow(4)};
        return made;
    }

private:
    std::mt19937 random_;
};

template <class Types>
class TcamAgainstScan : public testing::Test {};
using MatchTables = testing::Types<V4Types, V6Types>;
TYPED_TEST_SUITE(TcamAgainstScan, MatchTables);

TYPED_TEST(TcamAgainstScan, AnswersAsTryingEveryEntryDoes) {
    for (unsigned seed = 1; seed <= 30; ++seed) {
        RandomTraffic random(seed);
        Tcam tcam;
        LinearScan<TypeParam> scan;
        std::size_t met = 0;
        for (int step = 0; step < 400; ++step) {
            const auto entry = random.entry(TypeParam{});
            scan.remove(entry.key);
            if (random.below(4) == 0) {
                tcam.remove<TypeParam>(kUnit, entry.key);
            } else {
                tcam.program<TypeParam>(kUnit, entry, version(1));
                scan.entries.push_back(entry);
            }
            ASSERT_EQ(tcam.entries<TypeParam>(), scan.entries.size());
            const Packet packet = random.packet(std::is_same_v<TypeParam, V6Types>);
            const std::optional<Verdict> verdict = tcam.classify(kUnit, packet);
            const std::optional<MatchKey> expected = scan.classify(packet);
            ASSERT_EQ(verdict.has_value(), expected.has_value()) << "seed " << seed;
            if (expected) {
                ASSERT_EQ(verdict->key, *expected) << "seed " << seed << " step " << step;
                ++met;
            }
        }
        EXPECT_GT(met, 50U);
    }
}

}  // namespace
}  // namespace HwSide::Test
