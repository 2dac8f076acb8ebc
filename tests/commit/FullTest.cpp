// A hardware side that is away: the announcement log fills up, changes wait, and nothing ends.
#include <gtest/gtest.h>

#include <numeric>

#include "platform/asic/Constants.h"
#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

constexpr std::uint64_t kSlots = 64;

class FullAnnouncements : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    FullAnnouncements() : SwTableFixture({.capacityCeiling = kSlots, .counters = 32}) {}

    /// Reads what is announced, in order, and says that it is done.
    void hardwareTakesAll() {
        const auto log = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
            agent.root(), Asic::Constants::announcementsPath(canonicalGroupName())));
        while (const auto next = log->next(position + 1)) {
            position = next->position;
            agent.hardware().ackIs(next->tableId, next->version);
            if (next->tableId == PolicyCpuTcamActionBinding::kTableId.whole())
                announced.push_back(next->version);
        }
        agent.hardware().announceIdentityIs(log->identity());
        agent.hardware().consumedIs(position);
        agent.group()->acknowledgementsArrived();
        agent.settle();
    }
    void hardwareTakesAllThereIs() {
        for (std::size_t before = 1; before != announced.size();) {
            before = announced.size();
            hardwareTakesAll();
        }
    }
    static std::vector<std::uint64_t> upTo(std::uint64_t last) {
        std::vector<std::uint64_t> versions(last);
        std::iota(versions.begin(), versions.end(), 1);
        return versions;
    }
    /// Announces until only what cannot wait still goes out.
    void fill() {
        while (agent.group()->hasRoom())
            committed(1);
    }

    std::uint64_t position = 0;
    std::vector<std::uint64_t> announced;
};

TEST_F(FullAnnouncements, HoldEveryChangeBackAndLetThemGoOnInOrder) {
    std::vector<Brumo::Ptr<const Handle>> handles;
    constexpr std::uint32_t kWrites = 3 * kSlots;
    for (std::uint32_t number = 0; number < kWrites; ++number)
        handles.push_back(write(1 + number % 16, number));
    agent.settle();
    EXPECT_LT(version(), kSlots);
    EXPECT_EQ(agent.group()->announcementsWaiting(), 0U);
    EXPECT_EQ(handles.back()->entryState(), State::created);
    hardwareTakesAllThereIs();
    EXPECT_EQ(announced, upTo(kWrites));
    for (const auto& handle : handles)
        EXPECT_EQ(handle->entryState(), State::complete);
    EXPECT_EQ(table->entryFromConfig(key(16)), entry(16, kWrites - 1));
}

TEST_F(FullAnnouncements, StillTakeTheUpdatesOfAResourceThatMovesAndATableClear) {
    const auto request = actionEntry(1, 5);
    table->entryWrite(actionKey(1), request, nullptr);
    agent.settle();
    fill();
    const std::uint64_t before = version();
    ASSERT_TRUE(agent.counters()->move(request.counterRequestKey));
    agent.settle();
    EXPECT_EQ(table->entryFromConfig(actionKey(1)).counterIndex,
              agent.counters()->keys().at(0).index);
    table->clearTable(true);
    EXPECT_EQ(table->entrys(), 0U);
    EXPECT_EQ(version(), before + 2);
    hardwareTakesAllThereIs();
    EXPECT_EQ(announced, upTo(before + 2));
}

TEST_F(FullAnnouncements, TakeAnyNumberOfMovesInNoMoreMemoryAndTellOfThemLater) {
    const auto request = actionEntry(1, 5);
    table->entryWrite(actionKey(1), request, nullptr);
    agent.settle();
    fill();
    constexpr std::uint64_t kMoves = 20 * kSlots;
    std::uint64_t moves = 0;
    for (std::uint64_t i = 0; i < kMoves; ++i) {
        // Replaced indexes return when the hardware has what replaced them: they run out.
        moves += agent.counters()->move(request.counterRequestKey) ? 1 : 0;
        agent.settle();
        agent.counters()->fail(request.counterRequestKey);
        agent.counters()->restore(request.counterRequestKey);
        agent.settle();
    }
    EXPECT_EQ(moves, 31U);
    hardwareTakesAllThereIs();
    EXPECT_EQ(announced, upTo(version()));
    EXPECT_EQ(agent.group()->announcementsWaiting(), 0U);
    EXPECT_EQ(agent.counters()->pool(), (Asic::ResourcePoolFigures{32, 1, 0}));
}

}  // namespace
