// What a load writes and removes, in which order, and what becomes of loads that overlap or fail.

#include <algorithm>
#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/FakeTables.h"

namespace {

using Agent::LoadFigures;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::FakeTable;
using TestSupport::Journal;

std::shared_ptr<const Agent::CompiledPolicy> policy(const std::string& text) {
    return std::make_shared<const Agent::CompiledPolicy>(Agent::policyFromText(text, "p.yaml"));
}

/// Actions by name and entries as "name action", all of IPv4.
std::shared_ptr<const Agent::CompiledPolicy> simple(const std::vector<std::string>& actions,
                                                    const std::vector<std::string>& entries) {
    std::string text = "actions:" + std::string(actions.empty() ? " []" : "") + "\n";
    for (const std::string& name : actions)
        text += "- {name: " + name + ", counter: yes}\n";
    text += "ipv4:" + std::string(entries.empty() ? " []" : "") + "\n";
    for (const std::string& entry : entries) {
        const std::size_t blank = entry.find(' ');
        text += "- {name: " + entry.substr(0, blank) + ", action: " + entry.substr(blank + 1) +
                ", priority: 1}\n";
    }
    return policy(text);
}

std::uint64_t actionKey(const std::string& name) {
    return Agent::packed(
        VornPolicyCpu::PolicyCpuTcamActionEntryKey{Agent::actionIdOf(name), 0, {}});
}
std::uint64_t entryKey(const std::string& name) {
    return Agent::packed(Agent::matchKeyOf(name));
}

class PolicyLoaderTest : public testing::Test {
protected:
    Journal journal_;
    Brumo::Ptr<FakeTable<Agent::ActionTypes>> actions_ =
        Brumo::make<FakeTable<Agent::ActionTypes>>("action", Asic::UnitId{1}, journal_);
    Brumo::Ptr<FakeTable<Agent::V4Types>> ipv4_ =
        Brumo::make<FakeTable<Agent::V4Types>>("ipv4", Asic::UnitId{1}, journal_);
    Brumo::Ptr<FakeTable<Agent::V6Types>> ipv6_ =
        Brumo::make<FakeTable<Agent::V6Types>>("ipv6", Asic::UnitId{1}, journal_);
    std::vector<LoadFigures> finished_;
    std::unique_ptr<Agent::PolicyLoader> loader_ = std::make_unique<Agent::PolicyLoader>(
        std::vector<Agent::UnitTables>{{{1}, actions_, ipv4_, ipv6_}},
        [this](const LoadFigures& figures) { finished_.push_back(figures); });

    /// A loader whose loads wait with more changes in progress than these.
    void mostInProgressIs(std::uint64_t most) {
        loader_ = std::make_unique<Agent::PolicyLoader>(
            std::vector<Agent::UnitTables>{{{1}, actions_, ipv4_, ipv6_}},
            [this](const LoadFigures& figures) { finished_.push_back(figures); }, most);
    }

    /// Loads and completes everything.
    void settle(const std::shared_ptr<const Agent::CompiledPolicy>& wanted) {
        loader_->load(wanted);
        journal_.completeAll();
        finished_.clear();
        journal_.calls.clear();
    }
};

TEST_F(PolicyLoaderTest, WritesActionsBeforeTheEntriesThatDependOnThem) {
    const auto& figures = loader_->load(simple({"a", "b"}, {"x a", "y b"}));
    EXPECT_THAT(journal_.texts(),
                ElementsAre("write action", "write action", "write ipv4", "write ipv4"));
    EXPECT_EQ(journal_.calls[2].dependency.get(), journal_.calls[0].handle.get());
    EXPECT_EQ(journal_.calls[3].dependency.get(), journal_.calls[1].handle.get());
    EXPECT_EQ(figures.written, 4U);
    EXPECT_EQ(figures.inProgress, 4U);
}

TEST_F(PolicyLoaderTest, MakesResourceRequestsForTheUnitOfTheTable) {
    loader_->load(simple({"a"}, {}));
    EXPECT_EQ(actions_->entries.begin()->second.counterRequestKey.unit, 1);
}

TEST_F(PolicyLoaderTest, WritesEntriesOfHigherPriorityFirst) {
    loader_->load(
        policy("actions: [{name: a}]\nipv4:\n- {name: low, action: a, priority: 1}\n"
               "- {name: high, action: a, priority: 9}\n"));
    EXPECT_EQ(journal_.calls[1].key, entryKey("high"));
    EXPECT_EQ(journal_.calls[2].key, entryKey("low"));
}

TEST_F(PolicyLoaderTest, WritesNothingWhenTheTablesHoldThePolicy) {
    settle(simple({"a"}, {"x a"}));
    const auto& figures = loader_->load(simple({"a"}, {"x a"}));
    EXPECT_THAT(journal_.texts(), IsEmpty());
    EXPECT_EQ(figures.unchanged, 2U);
    EXPECT_EQ(figures.inProgress, 0U);
}

TEST_F(PolicyLoaderTest, TakesResolvedIndexesForNoDifference) {
    settle(simple({"a"}, {}));
    auto& held = actions_->entries.begin()->second;
    held.counterIndex = 17;
    held.policerIndex = 3;
    held.featureId = 9;
    EXPECT_EQ(loader_->load(simple({"a"}, {})).unchanged, 1U);
    EXPECT_THAT(journal_.texts(), IsEmpty());
}

TEST_F(PolicyLoaderTest, WritesOnlyTheEntryThatChanged) {
    settle(simple({"a", "b"}, {"x a", "y b"}));
    const auto& figures = loader_->load(simple({"a", "b"}, {"x a", "y a"}));
    EXPECT_THAT(journal_.texts(), ElementsAre("write ipv4"));
    EXPECT_EQ(journal_.calls[0].key, entryKey("y"));
    EXPECT_EQ(journal_.calls[0].dependency, nullptr);
    EXPECT_EQ(figures.written, 1U);
    EXPECT_EQ(figures.unchanged, 3U);
}

TEST_F(PolicyLoaderTest, RemovesStaleActionsOnlyAfterAllEntriesAreDone) {
    settle(simple({"a", "b"}, {"x a", "y b"}));
    loader_->load(simple({"a"}, {"x a", "z a"}));
    EXPECT_THAT(journal_.texts(), ElementsAre("write ipv4", "remove ipv4"));
    EXPECT_EQ(loader_->figures().removed, 2U);
    EXPECT_EQ(loader_->figures().inProgress, 3U);
    journal_.complete(0);
    EXPECT_EQ(journal_.calls.size(), 2U);
    journal_.complete(1);
    ASSERT_EQ(journal_.calls.size(), 3U);
    EXPECT_EQ(journal_.calls[2].what, "remove action");
    EXPECT_EQ(journal_.calls[2].key, actionKey("b"));
    EXPECT_THAT(finished_, IsEmpty());
    journal_.complete(2);
    ASSERT_EQ(finished_.size(), 1U);
    EXPECT_EQ(finished_[0].complete, 3U);
}

TEST_F(PolicyLoaderTest, RemovesStaleActionsAtOnceWhenNoEntryChanges) {
    settle(simple({"a", "b"}, {"x a"}));
    loader_->load(simple({"a"}, {"x a"}));
    EXPECT_THAT(journal_.texts(), ElementsAre("remove action"));
}

TEST_F(PolicyLoaderTest, RemovesWithoutDependency) {
    settle(simple({"a"}, {"x a"}));
    loader_->load(simple({"a"}, {}));
    ASSERT_THAT(journal_.texts(), ElementsAre("remove ipv4"));
    EXPECT_EQ(journal_.calls[0].dependency, nullptr);
}

TEST_F(PolicyLoaderTest, ComparesALaterLoadWithWhatIsStaged) {
    loader_->load(simple({"a"}, {"x a"}));
    const auto& figures = loader_->load(simple({"a"}, {"x a", "y a"}));
    EXPECT_EQ(figures.unchanged, 2U);
    EXPECT_THAT(journal_.texts(), ElementsAre("write action", "write ipv4", "write ipv4"));
    // The action's write is still in progress: what is new depends on it all the same.
    EXPECT_EQ(journal_.calls[2].dependency.get(), journal_.calls[0].handle.get());
}

TEST_F(PolicyLoaderTest, StagesABoundedNumberOfChangesHoweverManyLoadsNobodyAcknowledges) {
    mostInProgressIs(10);
    for (int round = 0; round < 1000; ++round)
        loader_->load(simple({"a"}, {round % 2 == 0 ? "x a" : "y a"}));
    EXPECT_LE(journal_.calls.size(), 13U);
    EXPECT_EQ(loader_->figures().waiting, "p.yaml");
}

TEST_F(PolicyLoaderTest, MakesTheLastOfTheLoadsThatWaitedWhenChangesAreAcknowledged) {
    mostInProgressIs(1);
    loader_->load(simple({"a"}, {"x a"}));
    loader_->load(simple({"a"}, {"y a"}));
    loader_->load(simple({"a"}, {"x a", "z a"}));
    EXPECT_THAT(journal_.texts(), ElementsAre("write action", "write ipv4"));
    journal_.complete(0);
    EXPECT_THAT(journal_.texts(2), ElementsAre("write ipv4"));
    EXPECT_EQ(journal_.calls[2].key, entryKey("z"));
    EXPECT_EQ(loader_->figures().waiting, "");
    EXPECT_EQ(loader_->figures().unchanged, 2U);
    journal_.completeAll();
    ASSERT_EQ(finished_.size(), 1U);
    EXPECT_EQ(finished_[0].complete, 1U);
}

TEST_F(PolicyLoaderTest, CountsNothingAsInProgressThatALaterLoadHasTakenOver) {
    mostInProgressIs(4);
    for (int round = 0; round < 10; ++round) {
        settle(simple({"a", "b"}, {"x a"}));
        loader_->load(simple({"a"}, {"y a"}));  // still has to remove action b
        loader_->load(simple({"a", "b"}, {"y a"}));
        EXPECT_EQ(loader_->figures().waiting, "") << round;
        journal_.completeAll();
    }
}

TEST_F(PolicyLoaderTest, DoesNotDependOnAnActionThatIsComplete) {
    loader_->load(simple({"a"}, {"x a"}));
    journal_.complete(0);
    loader_->load(simple({"a"}, {"x a", "y a"}));
    EXPECT_EQ(journal_.calls[2].dependency, nullptr);
}

TEST_F(PolicyLoaderTest, KeepsAnActionThatALaterLoadWantsAgain) {
    settle(simple({"a", "b"}, {"x a", "y b"}));
    loader_->load(simple({"a"}, {"x a"}));  // "b" is to go when "y" has gone
    loader_->load(simple({"a", "b"}, {"x a", "z b"}));
    journal_.completeAll();
    EXPECT_EQ(journal_.find("remove action", actionKey("b")), journal_.calls.size());
    EXPECT_TRUE(actions_->has({Agent::actionIdOf("b"), 0, {}}));
}

TEST_F(PolicyLoaderTest, WaitsForEntriesOfAnEarlierLoadBeforeItRemovesTheirAction) {
    settle(simple({"a", "b"}, {"x a", "y b"}));
    loader_->load(simple({"a", "b"}, {"x a"}));  // call 0: "y" goes
    loader_->load(simple({"a"}, {"x a"}));       // "b" goes after it
    EXPECT_THAT(journal_.texts(), ElementsAre("remove ipv4"));
    journal_.complete(0);
    EXPECT_THAT(journal_.texts(), ElementsAre("remove ipv4", "remove action"));
}

TEST_F(PolicyLoaderTest, WritesAnActionAgainWhoseRemovalIsInProgress) {
    settle(simple({"a", "b"}, {"x a"}));
    loader_->load(simple({"a"}, {"x a"}));
    loader_->load(simple({"a", "b"}, {"x a", "y b"}));
    EXPECT_THAT(journal_.texts(), ElementsAre("remove action", "write action", "write ipv4"));
    EXPECT_EQ(journal_.calls[2].dependency.get(), journal_.calls[1].handle.get());
}

TEST_F(PolicyLoaderTest, ReportsOnlyTheLastOfOverlappingLoads) {
    loader_->load(simple({"a"}, {"x a"}));
    loader_->load(simple({"a"}, {"x a", "y a"}));
    journal_.completeAll();
    ASSERT_EQ(finished_.size(), 1U);
    EXPECT_EQ(finished_[0].number, 2U);
    EXPECT_EQ(finished_[0].complete, 1U);
}

TEST_F(PolicyLoaderTest, CountsFailuresAndNamesTheFirst) {
    loader_->load(simple({"a"}, {"x a"}));
    journal_.fail(0);
    journal_.fail(1);
    ASSERT_EQ(finished_.size(), 1U);
    EXPECT_EQ(finished_[0].failed, 2U);
    EXPECT_EQ(finished_[0].complete, 0U);
    EXPECT_EQ(finished_[0].firstFailure, "action a of unit 1");
}

TEST_F(PolicyLoaderTest, WritesFailedEntriesAgainAtTheNextLoadThoughTheyAreStillStaged) {
    const auto wanted = simple({"a"}, {"x a"});
    loader_->load(wanted);
    actions_->entries.clear();  // a failed action is not staged any more, its entries are
    journal_.fail(0);
    journal_.fail(1);
    journal_.calls.clear();
    loader_->load(wanted);
    EXPECT_THAT(journal_.texts(), ElementsAre("write action", "write ipv4"));
    journal_.completeAll();
    journal_.calls.clear();
    EXPECT_EQ(loader_->load(wanted).unchanged, 2U);
    EXPECT_THAT(journal_.texts(), IsEmpty());
}

TEST_F(PolicyLoaderTest, KeepsAStaleActionThatAnEntryNamesWhoseReplacementFailed) {
    settle(simple({"a"}, {"x a"}));
    loader_->load(simple({"b"}, {"x b"}));  // "x" is to move from "a" to "b"
    ASSERT_THAT(journal_.texts(), ElementsAre("write action", "write ipv4"));
    actions_->entries.erase({Agent::actionIdOf("b"), 0, {}});
    journal_.fail(0);
    journal_.fail(1);  // the hardware still has "x" with "a"
    EXPECT_EQ(journal_.calls.size(), 2U);
    EXPECT_EQ(loader_->figures().removed, 0U);
    loader_->load(simple({"b"}, {"x b"}));
    journal_.completeAll();
    EXPECT_EQ(journal_.calls.back().what, "remove action");
    EXPECT_EQ(journal_.calls.back().key, actionKey("a"));
}

TEST_F(PolicyLoaderTest, RemovesStaleActionsThatNoFailedEntryNames) {
    settle(simple({"a", "c"}, {"x a"}));
    loader_->load(simple({"a", "b"}, {"x a", "y b"}));  // "b" needs what "c" has
    journal_.fail(0);
    journal_.fail(1);
    EXPECT_EQ(journal_.calls.back().what, "remove action");
    EXPECT_EQ(journal_.calls.back().key, actionKey("c"));
}

TEST_F(PolicyLoaderTest, RemembersTheFailureOfALaterWriteOverTheSuccessOfAnEarlierOne) {
    loader_->load(simple({"a"}, {"x a"}));
    loader_->load(simple({"a", "b"}, {"x b"}));
    ASSERT_THAT(journal_.texts(),
                ElementsAre("write action", "write ipv4", "write action", "write ipv4"));
    journal_.complete(0);
    journal_.fail(2);
    journal_.fail(3);
    journal_.complete(1);  // acknowledged after the later write had failed
    journal_.calls.clear();
    loader_->load(simple({"a", "b"}, {"x b"}));
    EXPECT_NE(journal_.find("write ipv4", entryKey("x")), journal_.calls.size());
}

TEST_F(PolicyLoaderTest, WritesWhatHasNoRoomOnlyAfterTheRemovalsAreAcknowledged) {
    std::string ports = "[1";
    for (int port = 2; port <= 40000; ++port)
        ports += "," + std::to_string(port);
    const auto many = [&](const std::string& name) {
        return policy("actions: [{name: a}]\nipv4: [{name: " + name +
                      ", action: a, priority: 1, protocol: tcp, source-port: " + ports + "]}]\n");
    };
    const auto count = [&](const std::string& what) {
        const auto texts = journal_.texts();
        return std::count(texts.begin(), texts.end(), what);
    };
    settle(many("x"));
    EXPECT_EQ(loader_->load(many("y")).written, 40000U);
    EXPECT_EQ(count("write ipv4"), 65536 - 40000);
    EXPECT_EQ(count("remove ipv4"), 40000);
    const std::size_t staged = journal_.calls.size();
    for (std::size_t i = 0; i + 1 < staged; ++i)
        journal_.complete(i);
    EXPECT_EQ(journal_.calls.size(), staged);
    journal_.complete(staged - 1);
    EXPECT_EQ(count("write ipv4"), 40000);
    EXPECT_EQ(finished_.size(), 0U);
    journal_.completeAll();
    ASSERT_EQ(finished_.size(), 1U);
    EXPECT_EQ(finished_[0].written, 40000U);
    EXPECT_EQ(finished_[0].complete, 80000U);
}

TEST_F(PolicyLoaderTest, ForgetsDeferredWritesThatALaterLoadDoesNotWant) {
    std::string ports = "[1";
    for (int port = 2; port <= 65535; ++port)
        ports += "," + std::to_string(port);
    const auto many = [&](const std::string& name) {
        return policy("actions: [{name: a}]\nipv4: [{name: " + name +
                      ", action: a, priority: 1, protocol: tcp, source-port: " + ports + "]}]\n");
    };
    settle(many("x"));
    loader_->load(many("y"));
    loader_->load(simple({"a"}, {}));
    journal_.completeAll();
    EXPECT_EQ(ipv4_->count(), 0U);
    ASSERT_EQ(finished_.size(), 1U);
}

TEST_F(PolicyLoaderTest, HandlesBothFamilies) {
    const auto text = [](const std::string& action) {
        return "actions: [{name: a}, {name: b}]\nipv6:\n- {name: x, action: " + action +
               ", priority: 1, source: '2001:db8::/32'}\n";
    };
    settle(policy(text("a")));
    loader_->load(policy(text("b")));
    EXPECT_THAT(journal_.texts(), ElementsAre("write ipv6"));
}

TEST_F(PolicyLoaderTest, IgnoresAnswersThatComeAfterItsEnd) {
    loader_->load(simple({"a"}, {"x a"}));
    loader_.reset();
    journal_.completeAll();
    EXPECT_THAT(finished_, IsEmpty());
}

TEST(PolicyLoader, LoadsEveryUnitWithItsOwnTables) {
    Journal journal;
    std::vector<Agent::UnitTables> units;
    for (const auto number : std::array<std::uint16_t, 2>{1, 2}) {
        const Asic::UnitId unit{number};
        units.push_back({unit, Brumo::make<FakeTable<Agent::ActionTypes>>("action", unit, journal),
                         Brumo::make<FakeTable<Agent::V4Types>>("ipv4", unit, journal),
                         Brumo::make<FakeTable<Agent::V6Types>>("ipv6", unit, journal)});
    }
    std::vector<LoadFigures> finished;
    Agent::PolicyLoader loader(units, [&](const LoadFigures& f) { finished.push_back(f); });
    EXPECT_EQ(loader.load(simple({"a"}, {"x a"})).written, 4U);
    EXPECT_EQ(journal.calls[3].dependency.get(), journal.calls[2].handle.get());
    journal.completeAll();
    ASSERT_EQ(finished.size(), 1U);
    EXPECT_EQ(finished[0].complete, 4U);
}

}  // namespace
