// What a state directory says, beside the tables that wrote it: walks, listings and a followed log.
#include "inspect/State.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inspect/Follow.h"
#include "tests/support/InProcessAgent.h"

namespace {

using Inspect::Damage;
using Inspect::Entry;
using Inspect::LogFollower;
using Inspect::State;
using Inspect::Table;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;

class StateTest : public testing::Test {
protected:
    void write(std::uint32_t id, const std::string& name = "some") {
        VornPolicyCpu::PolicyCpuTcamActionEntry entry;
        entry.key.id = id;
        entry.name = VornPolicyCpu::fixedText<18>(name);
        table->entryWrite(entry.key, entry, nullptr);
        agent.settle();
    }
    void remove(std::uint32_t id) {
        table->entryRemove({id, 0, {}}, nullptr);
        agent.settle();
    }
    State state() const { return State(agent.root()); }
    std::vector<std::string> walkedKeys() const {
        std::vector<std::string> keys;
        const State::Walk<Entry> walk = state().walk(Table::action, 1);
        while (const auto entry = walk(report()))
            keys.push_back(entry->id.key);
        return keys;
    }
    Inspect::Report report() const {
        return [this](const Damage& damage) { damages.push_back(damage); };
    }

    TestSupport::InProcessAgent agent;
    Brumo::Ptr<VornPolicyCpu::PolicyCpuTcamActionSwTable> table = agent.actionTable();
    mutable std::vector<Damage> damages;
};

std::vector<std::string> told(LogFollower& follower, const Inspect::Report& report) {
    std::vector<std::string> changes;
    follower.look(report);
    while (const auto change = follower.next(report)) {
        changes.push_back(fmt::format("{} {} {}", change->version, operationText(change->operation),
                                      change->key));
    }
    return changes;
}

TEST_F(StateTest, WalksTheEntriesThatItLists) {
    for (std::uint32_t id = 1; id <= 20; ++id)
        write(id);
    std::vector<std::string> listed;
    for (const Entry& entry : state().entries(Table::action, 1, report()))
        listed.push_back(entry.id.key);
    EXPECT_EQ(listed.size(), 20U);
    EXPECT_THAT(walkedKeys(), UnorderedElementsAreArray(listed));
    EXPECT_THAT(damages, IsEmpty());
}

TEST_F(StateTest, ListsCommittedEntriesAsTheTableDoes) {
    for (std::uint32_t id = 1; id <= 20; ++id)
        write(id);
    remove(7);
    EXPECT_EQ(state().listing(Table::action, 1, report()), table->getTableEntries_py().lines());
}

TEST_F(StateTest, FollowsALogFromItsOldestRecord) {
    write(1);
    write(2);
    const State own = state();
    LogFollower follower(own, Table::action, std::nullopt);
    EXPECT_THAT(told(follower, report()), ElementsAre("1 write 00000001.0", "2 write 00000002.0"));
    EXPECT_THAT(told(follower, report()), IsEmpty());
    remove(1);
    EXPECT_THAT(told(follower, report()), ElementsAre("3 remove 00000001.0"));
}

TEST_F(StateTest, TellsAVersionWhoseRecordIsGoneByItsValueOrAsLost) {
    write(1);
    write(1, "other");
    write(2);
    const State own = state();
    LogFollower follower(own, Table::action, 1);
    agent.acknowledgeAll();
    EXPECT_THAT(told(follower, report()),
                ElementsAre("1 lost ", "2 write 00000001.0", "3 write 00000002.0"));
}

TEST_F(StateTest, SeesWhatIsPublishedOnlyWhenItLooks) {
    write(1);
    const State own = state();
    LogFollower follower(own, Table::action, std::nullopt);
    EXPECT_TRUE(follower.look(report()));
    write(2);
    EXPECT_EQ(follower.newest(), 1U);
    EXPECT_TRUE(follower.next(report()));
    EXPECT_FALSE(follower.next(report()));
    EXPECT_TRUE(follower.look(report()));
    EXPECT_TRUE(follower.next(report()));
    EXPECT_FALSE(follower.look(report()));
}

}  // namespace
