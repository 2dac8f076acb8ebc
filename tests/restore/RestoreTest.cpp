// Rebuilding the linkages' view of the committed entries after a restart.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

constexpr std::string_view kCounters = "CrpsIndexRequestResourceTable";
constexpr std::string_view kPolicers = "PolicerIndexRequestResourceTable";
constexpr std::string_view kCounterLinkage = CrpsIndexRequestBinding::kClassName;
constexpr std::string_view kPolicerLinkage = PolicerIndexRequestBinding::kClassName;

class Restore : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    void committedAction(std::uint32_t id, std::uint32_t counter, std::uint32_t policer = 0) {
        table->entryWrite(actionKey(id), actionEntry(id, counter, policer), nullptr);
        agent.settle();
    }
    /// Ends the process that the agent stands for; the table is not made yet.
    void restart() {
        table = nullptr;
        agent.restart();
    }
    void makeTable() { table = agent.actionTable(); }
    auto counterMachine(std::uint32_t request) {
        return table->crpsIndexRequestLinkage()->entryUsageSm({request});
    }
    auto policerMachine(std::uint32_t request) {
        return table->policerIndexRequestLinkage()->entryUsageSm({request});
    }
};

TEST_F(Restore, RequestsOncePerLiveEntryAndAcknowledgesOncePerResource) {
    committedAction(1, 5);
    committedAction(2, 5);
    committedAction(3, 5);
    table->entryRemove(actionKey(3), nullptr);
    agent.settle();
    restart();
    const TraceCapture traces;
    makeTable();
    EXPECT_EQ(callsOf(traces, kCounters, "request"), 2U) << "none for the entry in deletion";
    EXPECT_EQ(callsOf(traces, kPolicers, "request"), 0U);
    EXPECT_EQ(callsOf(traces, kCounters, "ackUpdate"), 1U);
    EXPECT_EQ(callsOf(traces, kPolicers, "ackUpdate"), 0U);
    ASSERT_EQ(table->crpsIndexRequestLinkage()->entryUsageSms(), 1U);
    const auto& users = counterMachine(5)->entryUsage();
    EXPECT_EQ(users.size(), 2U);
    EXPECT_TRUE(users.contains(actionKey(1)));
    EXPECT_TRUE(users.contains(actionKey(2)));
}

TEST_F(Restore, AcknowledgesWhenAllUsersOfTheResourceAreUpdated) {
    committedAction(1, 5);
    committedAction(2, 5);
    restart();
    const TraceCapture traces;
    makeTable();
    std::vector<std::string> steps;
    for (const TraceLine& line : traces.lines()) {
        if (line.handle == kCounterLinkage && line.level == 3)
            steps.push_back("update");
        if (line.handle == kCounters && line.function == "ackUpdate")
            steps.push_back("acknowledge");
    }
    EXPECT_EQ(steps, (std::vector<std::string>{"update", "update", "acknowledge"}));
}

TEST_F(Restore, MapsAllEntriesThenUpdatesByCounterThenByPolicer) {
    committedAction(1, 5, 6);
    committedAction(2, 7, 8);
    restart();
    const TraceCapture traces;
    makeTable();
    std::vector<std::string> steps;
    for (const TraceLine& line : traces.lines()) {
        const bool isCounter = line.handle == kCounterLinkage;
        if (!isCounter && line.handle != kPolicerLinkage)
            continue;
        if (line.function == "addResKeyMapping")
            steps.push_back(isCounter ? "map counter" : "map policer");
        if (line.function == "handleResourceChange" && line.level == 8)
            steps.push_back(isCounter ? "change of counter" : "change of policer");
    }
    EXPECT_EQ(steps,
              (std::vector<std::string>{"map counter", "map policer", "map counter", "map policer",
                                        "change of counter", "change of counter",
                                        "change of policer", "change of policer"}));
}

TEST_F(Restore, HandlesEachResourceOnceInTheOrderOfTheCollection) {
    for (std::uint32_t id = 1; id <= 4; ++id)
        committedAction(id, id);
    restart();
    const TraceCapture traces;
    makeTable();
    std::vector<std::string> updated;
    for (const std::string& text : traces.texts(kCounterLinkage, 3))
        updated.push_back(text);
    std::vector<std::string> expected;
    table->crpsIndexRequestLinkage()->entryUsageSmCollection().forEach(
        [&](const auto& resourceKey, const auto& /*machine*/) {
            expected.push_back("Updating sw table entry for key: " +
                               actionKey(resourceKey.requestId).toText());
        });
    EXPECT_EQ(updated, expected);
    EXPECT_EQ(callsOf(traces, kCounters, "ackUpdate"), 4U);
}

TEST_F(Restore, WritesNothingWhereNothingHasChanged) {
    committedAction(1, 5, 6);
    committedAction(2, 5);
    const auto first = table->entryFromConfig(actionKey(1));
    const auto records = changeLog().entryLogConfigs();
    restart();
    makeTable();
    agent.settle();
    EXPECT_EQ(version(), 2U);
    EXPECT_EQ(changeLog().entryLogConfigs(), records);
    EXPECT_EQ(table->entryRead(actionKey(1)), first);
    EXPECT_EQ(table->stats()->updateCnt(), 0U);
    EXPECT_EQ(table->stats()->commitCnt(), 0U);
}

TEST_F(Restore, GivesEveryActionTheCounterAndThePolicerThatItHad) {
    constexpr std::uint32_t kActions = 60;
    for (std::uint32_t id = 1; id <= kActions; ++id)
        committedAction(id, 1 + id * 7 % kActions, 1 + id * 11 % kActions);
    agent.acknowledgeAll();
    for (std::uint32_t id = 1; id <= kActions; id += 3)  // holes among the indexes
        table->entryRemove(actionKey(id), nullptr);
    agent.settle();
    agent.acknowledgeAll();
    std::map<std::uint32_t, PolicyCpuTcamActionEntry> before;
    for (std::uint32_t id = 1; id <= kActions; ++id)
        before[id] = table->entryFromConfig(actionKey(id));
    restart();
    makeTable();
    agent.counters()->sweepUnclaimed();
    agent.policers()->sweepUnclaimed();
    agent.settle();
    for (std::uint32_t id = 1; id <= kActions; ++id) {
        const auto after = table->entryFromConfig(actionKey(id));
        EXPECT_EQ(after, before[id]);
        if (id % 3 == 1)
            continue;
        const auto counter = counterMachine(after.counterRequestKey.requestId)->resPtr();
        const auto policer = policerMachine(after.policerRequestKey.requestId)->resPtr();
        EXPECT_EQ(counter->counterIndex(), after.counterIndex);
        EXPECT_EQ(policer->policerIndex(), after.policerIndex);
    }
}

TEST_F(Restore, OfAnActionWhoseCounterIsLostGoesOnWithTheOthers) {
    for (std::uint32_t id = 1; id <= 3; ++id)
        committedAction(id, id, id);
    agent.acknowledgeAll();
    const std::string folder = agent.root() + "/resources/VornCountersLib";
    ASSERT_GT(std::filesystem::remove_all(folder), 0U);
    restart();
    makeTable();  // no counter is answered yet
    EXPECT_EQ(table->entrys(), 3U);
    EXPECT_EQ(table->entryFromConfig(actionKey(2)).policerIndex,
              policerMachine(2)->resPtr()->policerIndex());
    agent.settle();
    std::set<std::uint32_t> indexes;
    for (std::uint32_t id = 1; id <= 3; ++id) {
        const std::uint32_t index = table->entryFromConfig(actionKey(id)).counterIndex;
        EXPECT_EQ(index, counterMachine(id)->resPtr()->counterIndex());
        indexes.insert(index);
    }
    EXPECT_EQ(indexes.size(), 3U);
}

TEST_F(Restore, RewritesAnEntryThatDiffersFromItsResource) {
    committedAction(1, 5);
    auto stored = *config()->swTableEntries(actionKey(1));
    const std::uint32_t index = stored.logEntry.counterIndex;
    stored.logEntry.counterIndex = index + 17;
    config()->swTableEntriesIs(stored);
    restart();
    makeTable();
    EXPECT_EQ(version(), 2U);
    EXPECT_EQ(table->entryFromConfig(actionKey(1)).counterIndex, index);
    EXPECT_EQ(table->stats()->updateCnt(), 1U);
}

TEST_F(Restore, BringsInAMoveThatTheProcessBeforeDidNotHandle) {
    committedAction(1, 5);
    committedAction(2, 5);
    agent.acknowledgeAll();
    const std::uint32_t before = table->entryFromConfig(actionKey(1)).counterIndex;
    ASSERT_TRUE(agent.counters()->move({5}));
    restart();
    makeTable();
    agent.counters()->sweepUnclaimed();
    agent.settle();
    const std::uint32_t after = counterMachine(5)->resPtr()->counterIndex();
    EXPECT_NE(after, before);
    for (std::uint32_t id : {1U, 2U})
        EXPECT_EQ(table->entryFromConfig(actionKey(id)).counterIndex, after);
    EXPECT_EQ(version(), 4U);
    EXPECT_EQ(agent.counters()->pool().returning, 1U);
    agent.acknowledgeAll();
    EXPECT_EQ(agent.counters()->pool().returning, 0U);
    EXPECT_EQ(agent.counters()->pool().used, 1U);
}

TEST_F(Restore, WritesNothingWhereActionsShareAPolicerWhoseSettingsHaveChanged) {
    committedAction(1, 0, 6);
    auto second = actionEntry(2, 0, 6);
    second.policerClientData.rate = 7777;
    table->entryWrite(actionKey(2), second, nullptr);
    agent.settle();
    for (std::uint32_t id : {1U, 2U})
        EXPECT_EQ(table->entryFromConfig(actionKey(id)).policerClientData.rate.get(), 7777U);
    const std::uint64_t last = version();
    restart();
    makeTable();
    agent.settle();
    EXPECT_EQ(version(), last);
}

TEST_F(Restore, MapsNothingForAnActionWithoutResources) {
    committedAction(1, 0, 0);
    restart();
    const TraceCapture traces;
    makeTable();
    EXPECT_EQ(table->crpsIndexRequestLinkage()->entryUsageSms(), 0U);
    EXPECT_EQ(table->policerIndexRequestLinkage()->entryUsageSms(), 0U);
    EXPECT_EQ(callsOf(traces, kCounters, "request"), 0U);
    EXPECT_EQ(table->entrys(), 1U);
}

TEST_F(Restore, TracesItsEntry) {
    const TraceCapture traces;
    table->restoreEntries();
    EXPECT_EQ(callsOf(traces, name(), "restoreEntries"), 2U) << "the table's and the engine's";
}

TEST_F(Restore, WithoutEntryLogDoesNothing) {
    const auto bare = Brumo::make<PolicyCpuTcamActionSwTable>(
        nullptr, PolicyCpuTcamActionBinding::kTableId, Asic::UnitId{9}, nullptr, nullptr, nullptr);
    const auto client = agent.counters()->makeClientInstance();
    bare->crpsIndexRequestLinkageIs(
        policyCpuTcamActionCrpsIndexRequestLinkageFactory(bare.get(), client));
    bare->crpsIndexRequestLinkage()->entryUsageSmIs(client->request({5}, nullptr));
    const TraceCapture traces;
    bare->restoreEntries();
    EXPECT_EQ(callsOf(traces, kCounterLinkage, "handleResourceChange"), 0U);
    EXPECT_EQ(callsOf(traces, kCounters, "ackUpdate"), 0U);
}

TEST_F(Restore, GoesOnBehindARottenEntryAndReportsIt) {
    for (std::uint32_t id = 1; id <= 3; ++id)
        committedAction(id, id);
    std::vector<PolicyCpuTcamActionEntryKey> keys;
    table->forEach([&](const PolicyCpuTcamActionEntry& entry) { keys.push_back(entry.key); });
    spoilEntry(*config(), keys[1]);
    const TraceCapture traces;
    table->restoreEntries();
    EXPECT_EQ(callsOf(traces, kCounters, "request"), 2U);
    EXPECT_GE(config()->corruptions(), 1U);
    EXPECT_EQ(callsOf(traces, kCounterLinkage, "handleResourceChange"), 3U)
        << "what is mapped is brought up to date";
}

TEST_F(Restore, LetsOtherErrorsPass) {
    struct Throwing final : PolicyCpuTcamActionSwTableHelperBase {
        bool finalizeOnResourceUpdate(const WrapperPtr&, const TablePtr&, bool) override {
            throw std::runtime_error("hook");
        }
    };
    committedAction(1, 5);
    table->swTableHelperIs(Brumo::make<Throwing>());
    EXPECT_THROW(table->restoreEntries(), std::runtime_error);
}

// The match tables have nothing to restore.

template <class B>
class RestoreOfMatches : public SwTableFixture<B> {};
using MatchBindings = ::testing::Types<PolicyCpuV4TcamEntryBinding, PolicyCpuV6TcamEntryBinding>;
TYPED_TEST_SUITE(RestoreOfMatches, MatchBindings, TableName);

TYPED_TEST(RestoreOfMatches, DoesNothing) {
    this->committed(1);
    const TraceCapture traces;
    this->table->restoreEntries();
    EXPECT_EQ(callsOf(traces, this->name(), "entryWrapperFromConfig"), 0U);
    EXPECT_EQ(traces.lines().size(), 1U) << "the operation's own name";
}

template <class B>
class Restarted : public SwTableFixture<B> {};
TYPED_TEST_SUITE(Restarted, AllBindings, TableName);

TYPED_TEST(Restarted, TablesHoldWhatWasCommittedAndWriteNothing) {
    this->committed(1, 5);
    this->committed(2, 6);
    this->write(3, 7);  // never committed
    this->table = nullptr;
    this->agent.restart();
    this->table = tableOf<TypeParam>(this->agent);
    this->agent.settle();
    EXPECT_EQ(this->table->entrys(), 2U);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 5));
    EXPECT_EQ(this->table->entryRead(this->key(2)), this->entry(2, 6));
    EXPECT_EQ(this->version(), 2U);
    EXPECT_EQ(this->changeLog().entryLogConfigs(), 2U);
}

}  // namespace
