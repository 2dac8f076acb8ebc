// Counters and policers: whose they are after retries and restarts, and when they go back.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/incidents/WholeSystem.h"

namespace Incidents {
namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using Figures = Asic::ResourcePoolFigures;

class ActionSystem : public WholeSystem<PolicyCpuTcamActionBinding> {
protected:
    using WholeSystem::WholeSystem;

    auto writeAction(std::uint32_t id, std::uint32_t counter, std::uint32_t policer = 0,
                     const Table::DependencyPtr& dependency = nullptr) {
        return table->entryWrite(actionKey(id), actionEntry(id, counter, policer), dependency);
    }
    auto removeAction(std::uint32_t id) { return table->entryRemove(actionKey(id), nullptr); }
    void sweep() {
        agent.counters()->sweepUnclaimed();
        agent.policers()->sweepUnclaimed();
    }
    std::uint32_t committedCounter(std::uint32_t id) {
        return table->entryFromConfig(actionKey(id)).counterIndex;
    }
    std::map<std::uint32_t, std::uint32_t> countersByRequest() {
        std::map<std::uint32_t, std::uint32_t> indexes;
        for (const auto& info : agent.counters()->keys())
            indexes[info.key.requestId] = info.index;
        return indexes;
    }
    void expectConsistent() {
        agent.counters()->assertConsistent();
        agent.policers()->assertConsistent();
        table->assertConsistent();
    }
};

// Use counts.

class UseCount : public ActionSystem {
protected:
    UseCount() : ActionSystem({.counters = 8, .policers = 1}) {}

    void expectOneUse() {
        EXPECT_EQ(agent.counters()->pool(), (Figures{8, 1, 0}));
        EXPECT_EQ(agent.policers()->pool(), (Figures{1, 1, 0}));
        EXPECT_EQ(agent.counters()->keys().at(0).users, 1U);
        EXPECT_EQ(agent.policers()->keys().at(0).users, 1U);
    }
    void expectFree() {
        EXPECT_EQ(agent.counters()->pool(), (Figures{8, 0, 0}));
        EXPECT_EQ(agent.policers()->pool(), (Figures{1, 0, 0}));
        EXPECT_EQ(agent.counters()->entries() + agent.policers()->entries(), 0U);
        EXPECT_EQ(table->crpsIndexRequestLinkage()->entryUsageSms(), 0U);
        EXPECT_EQ(table->policerIndexRequestLinkage()->entryUsageSms(), 0U);
        expectConsistent();
    }
};

TEST_F(UseCount, IsOneHoweverOftenAWriteIsRepeatedAndEndsWithTheEntry) {
    for (unsigned attempt = 0; attempt < 12; ++attempt) {
        SCOPED_TRACE(attempt);
        writeAction(1, 5, 5);
        if (attempt % 2 == 0)
            continue;
        settleAll();
        expectOneUse();
        if (attempt % 4 == 3) {
            agent.counters()->move({5});
            agent.policers()->fail({5});
            settleAll();
            agent.policers()->restore({5});
        } else {
            restartAgent();
            sweep();
        }
        settleAll();
        expectOneUse();
    }
    removeAction(1);
    settleAll();
    expectFree();
}

TEST_F(UseCount, IsGivenBackByEveryAttemptThatFails) {
    writeAction(1, 1, 1);
    settleAll();
    for (std::uint32_t attempt = 0; attempt < 20; ++attempt) {
        const auto failed = writeAction(2, 2 + attempt % 3, 2);  // there is one policer only
        agent.settle();
        EXPECT_EQ(failed->entryState(), Asic::EntryState::failed);
        EXPECT_EQ(agent.counters()->pool().used, 1U) << "the one of the other action";
        EXPECT_EQ(agent.policers()->entries(), 1U);
    }
    removeAction(1);
    settleAll();
    expectFree();
}

TEST_F(UseCount, OfARetryThatSucceedsIsOneAndEndsWithTheEntry) {
    writeAction(1, 1, 1);
    settleAll();
    for (unsigned attempt = 0; attempt < 3; ++attempt) {
        writeAction(2, 2, 2);
        agent.settle();
    }
    removeAction(1);
    settleAll();
    const auto retried = writeAction(2, 2, 2);
    settleAll();
    EXPECT_EQ(retried->entryState(), Asic::EntryState::complete);
    expectOneUse();
    removeAction(2);
    removeAction(2);
    settleAll();
    expectFree();
}

TEST_F(UseCount, OfASharedCounterEndsWithItsLastUserWhateverWasRepeated) {
    for (unsigned attempt = 0; attempt < 3; ++attempt) {
        for (std::uint32_t id : {1U, 2U, 3U})
            writeAction(id, 7);
        settleAll();
    }
    restartAgent();
    sweep();
    for (std::uint32_t id : {1U, 1U, 2U, 2U}) {
        removeAction(id);
        settleAll();
        EXPECT_EQ(agent.counters()->pool(), (Figures{8, 1, 0}));
    }
    removeAction(3);
    settleAll();
    expectFree();
}

// The sweep of what nobody claims after a restart.

class Sweep : public ActionSystem {
protected:
    Sweep() : ActionSystem({.counters = 16, .policers = 4}) {}
};

TEST_F(Sweep, BeforeTheQueueDrainsLeavesWhatQueuedChangesAskForAndGivesTheRestBack) {
    // The process ends before these are committed, but after they were given their counters.
    const auto never = Brumo::make<ForeignChange>(State::created);
    for (std::uint32_t id = 1; id <= 8; ++id)
        writeAction(id, id, 0, never);
    agent.settle();
    const auto before = countersByRequest();
    ASSERT_EQ(agent.counters()->pool(), (Figures{16, 8, 0}));
    restartAgent();
    for (std::uint32_t id = 1; id <= 4; ++id)
        writeAction(id, id);
    ASSERT_EQ(agent.group()->groupResolver()->queued(), 4U);
    sweep();
    EXPECT_EQ(agent.counters()->entries(), 4U);
    for (std::uint32_t id = 11; id <= 18; ++id)
        writeAction(id, id);
    settleAll();
    std::set<std::uint32_t> indexes;
    for (std::uint32_t id = 1; id <= 4; ++id) {
        EXPECT_EQ(committedCounter(id), before.at(id));
        indexes.insert(committedCounter(id));
    }
    for (std::uint32_t id = 11; id <= 18; ++id)
        indexes.insert(committedCounter(id));
    EXPECT_EQ(indexes.size(), 12U) << "none is given to two actions";
    EXPECT_EQ(agent.counters()->pool(), (Figures{16, 12, 0}));
    expectConsistent();
}

TEST_F(Sweep, KeepsAnIndexWhoseEndTheHardwareSideHasNotTakenYet) {
    writeAction(1, 1);
    settleAll();
    const std::uint32_t index = committedCounter(1);
    removeAction(1);
    agent.settle();
    restartAgent();
    sweep();
    EXPECT_EQ(agent.counters()->pool(), (Figures{16, 0, 1}));
    for (std::uint32_t id = 2; id <= 16; ++id)
        writeAction(id, id);
    const auto tooMany = writeAction(17, 17);
    agent.settle();
    EXPECT_EQ(tooMany->entryState(), State::failed) << "hardware still has the last one in use";
    for (std::uint32_t id = 2; id <= 16; ++id)
        EXPECT_NE(committedCounter(id), index);
    settleAll();
    EXPECT_EQ(agent.counters()->pool(), (Figures{16, 15, 0}));
    writeAction(17, 17);
    settleAll();
    EXPECT_EQ(committedCounter(17), index);
    expectConsistent();
}

// The counter of an entry.

class CounterOfAnEntry : public ActionSystem {
protected:
    static constexpr std::uint32_t kBound = 30;

    CounterOfAnEntry() : ActionSystem({.counters = 64, .policers = 4}) {}

    std::map<std::uint32_t, std::uint32_t> committedCounters() {
        std::map<std::uint32_t, std::uint32_t> indexes;
        for (std::uint32_t id = 1; id <= kBound; ++id)
            indexes[id] = committedCounter(id);
        return indexes;
    }
};

TEST_F(CounterOfAnEntry, IsTheOneItHadBeforeARestart) {
    // Neither in the order of the actions nor in that of the requests.
    for (std::uint32_t id = kBound; id >= 1; --id)
        writeAction(id, 100 + id * 7 % 31);
    settleAll();
    for (std::uint32_t id = 1; id <= kBound; id += 3)
        agent.counters()->move({100 + id * 7 % 31});
    settleAll();
    const auto before = committedCounters();
    const auto requests = countersByRequest();
    const std::uint64_t written = version();
    ASSERT_EQ(requests.size(), kBound);
    for (unsigned restart = 0; restart < 3; ++restart) {
        SCOPED_TRACE(restart);
        restartAgent();
        EXPECT_EQ(committedCounters(), before);
        settleAll();
        sweep();
        settleAll();
        EXPECT_EQ(committedCounters(), before);
        EXPECT_EQ(countersByRequest(), requests);
        EXPECT_EQ(version(), written) << "nothing has to be written";
        for (const auto& [id, index] : before)
            EXPECT_EQ(held(actionKey(id))->entry.counterIndex.get(), index);
    }
    writeAction(kBound + 1, 200);
    settleAll();
    for (const auto& [id, index] : before)
        EXPECT_NE(committedCounter(kBound + 1), index);
    expectConsistent();
}

// What cannot be resolved at a restore.

class UnresolvedAtRestore : public ActionSystem {
protected:
    UnresolvedAtRestore() : ActionSystem({.counters = 3, .policers = 1}) {}

    struct Committing final : SwTableHelperBase<PolicyCpuTcamActionBinding> {
        std::uint32_t finalizeOnFailure(const WrapperPtr&, bool, const TablePtr&) override {
            return 1;
        }
    };
};

TEST_F(UnresolvedAtRestore, ActionDoesNotEndTheAgentAndIsResolvedWhenItCanBe) {
    table->swTableHelperIs(Brumo::make<Committing>());
    for (std::uint32_t id : {1U, 2U, 3U})
        writeAction(id, id, id);  // the second and the third find no policer
    settleAll();
    const auto policer = [&](std::uint32_t id) {
        return table->entryFromConfig(actionKey(id)).policerIndex;
    };
    const std::uint32_t only = policer(1);
    ASSERT_EQ(policer(2), kNoPolicerIndex);
    restartAgent();
    sweep();
    EXPECT_EQ(table->entrys(), 3U);
    settleAll();
    EXPECT_EQ(policer(1), only);
    EXPECT_EQ(policer(2), kNoPolicerIndex);
    EXPECT_EQ(policer(3), kNoPolicerIndex);
    const auto other = writeAction(4, 1);
    settleAll();
    EXPECT_EQ(other->entryState(), State::complete) << "the agent goes on";
    removeAction(1);
    settleAll();
    EXPECT_NE(policer(2) == only, policer(3) == only) << "one of those that wait gets it";
    EXPECT_TRUE(notProgrammed().empty());
    expectConsistent();
}

}  // namespace
}  // namespace Incidents
