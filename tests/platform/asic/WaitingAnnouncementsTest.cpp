// What waits for room in the announcement log: in order, and bounded.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "platform/asic/WaitingAnnouncements.h"

namespace AsicTests {
namespace {

using testing::ElementsAre;

constexpr Asic::SwTableId kActions{0x2C080403};
constexpr Asic::SwTableId kMatches{0x2C080404};
constexpr Asic::SwTableId kCounters{0x2C080501};

Brumo::Ptr<const Asic::NeededEntry> needing(Asic::SwTableId table, std::uint64_t version) {
    auto needed = Brumo::make<Asic::NeededEntry>();
    needed->add({table, {version}});
    return needed;
}

class Waiting : public testing::Test {
protected:
    /// What comes out with so much room: "0403@5" or "0403@5 needs 0404@2".
    std::vector<std::string> out(std::size_t room = std::numeric_limits<std::size_t>::max()) {
        std::vector<std::string> lines;
        waiting.giveOut([&](Asic::SwTableId table, Asic::LogVersion version, const auto& needed) {
            if (room-- == 0)
                return false;
            std::string line = fmt::format("{:04x}@{}", table.tblId, version.value);
            if (needed != nullptr) {
                for (const Asic::TableVersion& each : *needed)
                    line += fmt::format(" needs {:04x}@{}", each.tableId.tblId, each.version.value);
            }
            lines.push_back(line);
            return true;
        });
        return lines;
    }

    void add(Asic::SwTableId table, std::uint64_t version,
             const Brumo::Ptr<const Asic::NeededEntry>& needed) {
        waiting.add(table, {version - 1}, {version}, needed);
    }

    Asic::WaitingAnnouncements waiting;
};

TEST_F(Waiting, ComesOutInOrderWithWhatItNeeds) {
    add(kActions, 7, nullptr);
    add(kMatches, 3, needing(kActions, 7));
    add(kActions, 8, nullptr);
    EXPECT_EQ(waiting.count(), 3U);
    EXPECT_THAT(out(), ElementsAre("0403@7", "0404@3 needs 0403@7", "0403@8"));
    EXPECT_TRUE(waiting.empty());
}

TEST_F(Waiting, StopsWhereThereIsNoRoomAndGoesOn) {
    for (std::uint64_t version = 1; version <= 4; ++version)
        add(kActions, version, nullptr);
    EXPECT_THAT(out(3), ElementsAre("0403@1", "0403@2", "0403@3"));
    EXPECT_EQ(waiting.count(), 1U);
    add(kActions, 5, nullptr);
    EXPECT_THAT(out(), ElementsAre("0403@4", "0403@5"));
}

TEST_F(Waiting, TakesNoMoreMemoryForMillionsOfUpdates) {
    for (std::uint64_t version = 1; version <= 3000000; ++version) {
        waiting.addLatest(kCounters, {version});
        add(kActions, version, needing(kCounters, version));
    }
    EXPECT_EQ(waiting.count(), 3000001U);
    EXPECT_EQ(waiting.runs(), 2U);
    EXPECT_THAT(out(2), ElementsAre("0501@3000000", "0403@1 needs 0501@3000000"));
}

TEST_F(Waiting, NothingWaitsForItsOwnRun) {
    add(kActions, 5, needing(kActions, 4));
    add(kActions, 6, needing(kActions, 5));
    add(kActions, 7, needing(kMatches, 2));
    EXPECT_THAT(out(),
                ElementsAre("0403@5 needs 0403@4 needs 0404@2", "0403@6 needs 0403@4 needs 0404@2",
                            "0403@7 needs 0403@4 needs 0404@2"));
}

TEST_F(Waiting, NothingWaitsForAVersionThatWasGivenUp) {
    waiting.add(kActions, {2}, {5}, needing(kActions, 2));
    add(kActions, 6, needing(kActions, 5));
    EXPECT_THAT(out(), ElementsAre("0403@5 needs 0403@2", "0403@6 needs 0403@2"));
}

TEST_F(Waiting, KeepsTheLastVersionOfATableWithoutALog) {
    waiting.addLatest(kCounters, {1});
    add(kActions, 1, needing(kCounters, 1));
    waiting.addLatest(kCounters, {2});
    add(kActions, 2, needing(kCounters, 2));
    EXPECT_THAT(out(), ElementsAre("0501@2", "0403@1 needs 0501@2", "0403@2 needs 0501@2"));
}

TEST_F(Waiting, OfTablesThatTakeTurnsIsBoundedAndNothingWaitsForWhatComesLater) {
    constexpr std::uint64_t kRounds = 100000;
    std::size_t most = 0;
    for (std::uint64_t version = 1; version <= kRounds; ++version) {
        add(kActions, version, needing(kMatches, version - 1));
        add(kMatches, version, needing(kActions, version));
        most = std::max(most, waiting.runs());
    }
    EXPECT_LE(most, Asic::WaitingAnnouncements::kMostRuns);
    std::map<std::uint16_t, std::uint64_t> last;
    std::uint64_t count = 0;
    waiting.giveOut([&](Asic::SwTableId table, Asic::LogVersion version, const auto& needed) {
        for (const Asic::TableVersion& each : *needed)
            EXPECT_LE(each.version.value, last[each.tableId.tblId]);
        EXPECT_EQ(version.value, ++last[table.tblId]);
        ++count;
        return !testing::Test::HasFailure();
    });
    EXPECT_EQ(count, 2 * kRounds);
}

}  // namespace
}  // namespace AsicTests
