// Changes whose dependency has failed, and writes whose resources have.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

constexpr std::array kFailures{Asic::EntryState::exhausted, Asic::EntryState::failed,
                               Asic::EntryState::resourceFailed};

template <class B>
class FailedDependency : public SwTableFixture<B> {};
TYPED_TEST_SUITE(FailedDependency, AllBindings, TableName);

TYPED_TEST(FailedDependency, FailsAWriteThatWasResolved) {
    for (const auto state : kFailures) {
        Answers answers;
        const auto wrapper = this->wrapper(1);
        wrapper->entryHandle()->responseHandlerIs(answers.handler());
        const auto change =
            this->change(Asic::EntryFlags::write, wrapper, Brumo::make<ForeignChange>(state, 3U));
        EXPECT_TRUE(this->table->isResolverEntryResolved(change));
        const TraceCapture traces;
        this->commit(change);
        EXPECT_EQ(wrapper->entryHandle()->entryState(), Asic::EntryState::failed);
        EXPECT_EQ(answers.count, 1);
        EXPECT_EQ(answers.last, wrapper->entryHandle());
        EXPECT_EQ(traces.texts(this->name(), 1),
                  (std::vector<std::string>{"Failed dependent entry for key: " + this->text(1),
                                            "Failed to commit entry key: " + this->text(1)}));
    }
    EXPECT_EQ(this->version(), 0U);
}

TYPED_TEST(FailedDependency, FailsARemove) {
    this->committed(1);
    const TraceCapture traces;
    const auto handle =
        this->table->entryRemove(this->key(1), Brumo::make<ForeignChange>(kFailures[0]));
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::failed);
    EXPECT_EQ(this->version(), 1U);
    EXPECT_EQ(traces.texts(this->name(), 1),
              (std::vector<std::string>{"Failed dependent entry for key: " + this->text(1),
                                        "Failed to commit entry key: " + this->text(1)}));
    EXPECT_NE(this->table->transientRemoveEntry(this->key(1)), nullptr);
}

TYPED_TEST(FailedDependency, FailsARemoveAllWhichAnswersThen) {
    this->committed(1);
    Answers answers;
    const TraceCapture traces;
    this->table->entryRemoveAllWithResponseHandler(Brumo::make<ForeignChange>(kFailures[1]),
                                                   answers.handler());
    this->agent.settle();
    EXPECT_EQ(traces.texts(this->name(), 1),
              (std::vector<std::string>{"Failed dependent entry for remove all",
                                        "Failed to commit entry remove all operation"}));
    ASSERT_EQ(answers.count, 1);
    EXPECT_EQ(answers.last->entryState(), Asic::EntryState::failed);
    EXPECT_EQ(this->version(), 1U);
    EXPECT_EQ(this->table->transientRemoveAllVersion().value, 0U) << "it stays counted";
    EXPECT_FALSE(this->table->entryHas(this->key(1)));
}

TYPED_TEST(FailedDependency, CallsNoHookAndLeavesStagedStateAsItIs) {
    const auto helper = this->notingHelper();
    this->table->entryWrite(this->key(1), this->entry(1, 5),
                            Brumo::make<ForeignChange>(kFailures[2]));
    this->agent.settle();
    EXPECT_TRUE(helper->calls.empty());
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 5));
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({0, 0}));
    EXPECT_TRUE(this->table->hasPendingHwWrites());
}

TYPED_TEST(FailedDependency, IsCountedAsACommit) {
    this->table->entryWrite(this->key(1), this->entry(1), Brumo::make<ForeignChange>(kFailures[0]));
    this->agent.settle();
    EXPECT_EQ(this->table->stats()->commitCnt(), 1U);
    EXPECT_GT(this->table->stats()->lastCommitTime(), 0.0);
    EXPECT_EQ(this->table->stats()->resolveFailCnt(), 0U);
}

TYPED_TEST(FailedDependency, IsThatOfAFailedChangeOfAnotherKey) {
    const auto first = this->table->entryWrite(this->key(1), this->entry(1),
                                               Brumo::make<ForeignChange>(kFailures[0]));
    const auto second = this->table->entryWrite(this->key(2), this->entry(2), first);
    this->agent.settle();
    EXPECT_EQ(first->entryState(), Asic::EntryState::failed);
    EXPECT_EQ(second->entryState(), Asic::EntryState::failed);
}

TYPED_TEST(FailedDependency, NotFailedByAnyOtherState) {
    std::uint32_t number = 1;
    for (const unsigned state : {1U, 2U, 4U}) {
        const auto wrapper = this->wrapper(number++);
        this->commit(
            this->change(Asic::EntryFlags::write, wrapper,
                         Brumo::make<ForeignChange>(static_cast<Asic::EntryState>(state))));
        EXPECT_EQ(wrapper->entryHandle()->entryState(), Asic::EntryState::written) << state;
    }
}

// Failed resources of an action. A slot that the test fills stays, as the keys are default ones.

class FailedResource : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    FailedResource() : helper(notingHelper()) {}

    static auto counter(State state) {
        const auto handle = Brumo::make<CrpsIndexRequestBinding::ResourceHandle>(
            CrpsIndexRequestBinding::ResourceKey{77});
        handle->entryStateIs(state);
        handle->counterIndexIs(41);
        handle->featureIdIs(42);
        return handle;
    }
    static auto policer(State state) {
        const auto handle = Brumo::make<PolicerIndexRequestBinding::ResourceHandle>(
            PolicerIndexRequestBinding::ResourceKey{78});
        handle->entryStateIs(state);
        handle->policerIndexIs(43);
        return handle;
    }
    WrapperPtr withResources(State counterState, State policerState) {
        const auto result = wrapper(1);
        result->resourceIs<CrpsIndexRequestBinding>(counter(counterState));
        result->resourceIs<PolicerIndexRequestBinding>(policer(policerState));
        result->entryHandle()->responseHandlerIs(answers.handler());
        return result;
    }

    Brumo::Ptr<NotingHelper<PolicyCpuTcamActionBinding>> helper;
    Answers answers;
};

TEST_F(FailedResource, IsNoneWhenBothAreAllocated) {
    const auto change = this->change(Flags::write, withResources(State::complete, State::complete));
    commit(change);
    EXPECT_EQ(helper->calls, std::vector<std::string>{"success"});
    EXPECT_EQ(table->stats()->resolveFailCnt(), 0U);
    const auto committed = table->entryFromConfig(key(1));
    EXPECT_EQ(committed.counterIndex, 41U);
    EXPECT_EQ(committed.featureId, 42U);
    EXPECT_EQ(committed.policerIndex, 43U);
}

TEST_F(FailedResource, OfThePolicerFailsTheWriteWhenTheHookSaysSo) {
    const auto wrapper = withResources(State::complete, State::resourceFailed);
    const TraceCapture traces;
    commit(change(Flags::write, wrapper));
    EXPECT_EQ(traces.texts(name(), 1),
              std::vector<std::string>{"Failed to commit entry key: " + text(1)});
    EXPECT_TRUE(traces.has(
        name(), 3, "SwTable key: " + text(1) + ", resourceKey: 00000000/0 has failed resolution!"));
    EXPECT_EQ(helper->calls, std::vector<std::string>{"failure"});
    EXPECT_EQ(helper->resolveFailuresAtHook, 1U) << "counted before the hook";
    EXPECT_EQ(table->stats()->resolveFailCnt(), 1U);
    EXPECT_EQ(wrapper->entryHandle()->entryState(), State::failed);
    EXPECT_EQ(answers.count, 1);
    EXPECT_EQ(version(), 0U);
    EXPECT_EQ(table->stats()->commitCnt(), 1U);
}

TEST_F(FailedResource, IsCommittedAllTheSameWhenTheHookSaysSo) {
    helper->commitFailed = 2;
    const auto wrapper = withResources(State::complete, State::exhausted);
    commit(change(Flags::write, wrapper));
    EXPECT_EQ(wrapper->entryHandle()->entryState(), State::written);
    EXPECT_EQ(table->entryHandleInLogFront(), wrapper->entryHandle());
    EXPECT_EQ(answers.count, 0);
    EXPECT_EQ(table->stats()->resolveFailCnt(), 1U);
    EXPECT_EQ(table->entryFromConfig(key(1)).counterIndex, kNoCounterIndex)
        << "a failure leaves the resolved fields as they were";
}

TEST_F(FailedResource, StopsTheQuestionsAtTheFirstLinkage) {
    const auto wrapper = withResources(State::failed, State::undefined);
    commit(change(Flags::write, wrapper));  // the policer's state would end the process
    EXPECT_EQ(helper->calls, std::vector<std::string>{"failure"});
}

TEST_F(FailedResource, ClearsStagedStateAfterTheHookWhateverItSays) {
    for (const std::uint32_t answer : {0U, 1U}) {
        helper->commitFailed = answer;
        write(1);
        commit(change(Flags::write, withResources(State::resourceFailed, State::complete)));
        EXPECT_TRUE(helper->stagedAtHook);
        EXPECT_EQ(table->transientAddEntry(key(1)), nullptr);
        EXPECT_FALSE(table->transientVersionForKey(key(1)).valid());
    }
}

TEST_F(FailedResource, LeavesALaterChangeOfTheKeyStaged) {
    for (const std::uint32_t answer : {0U, 1U}) {
        helper->commitFailed = answer;
        write(1, 1);
        write(1, 2);
        const auto latest = table->transientVersionForKey(key(1));
        commit(change(Flags::write, withResources(State::resourceFailed, State::complete)));
        ASSERT_NE(table->transientAddEntry(key(1)), nullptr);
        EXPECT_EQ(table->entryRead(key(1)), entry(1, 2));
        EXPECT_TRUE(table->transientVersionForKey(key(1)).isEq(latest));
        table->assertConsistent();
    }
}

class ExhaustedPool : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    ExhaustedPool() : SwTableFixture({.counters = 1}) {
        table->entryWrite(actionKey(1), actionEntry(1, 1), nullptr);
        agent.settle();
    }
};

TEST_F(ExhaustedPool, FailsTheWriteAndNamesTheKeyThatGotNothing) {
    const TraceCapture traces;
    const auto second = table->entryWrite(actionKey(2), actionEntry(2, 2), nullptr);
    agent.settle();
    EXPECT_EQ(second->entryState(), State::failed);
    EXPECT_TRUE(traces.has(name(), 3,
                           "SwTable key: " + actionKey(2).toText() +
                               ", resourceKey: 00000002/0 has failed resolution!"));
    EXPECT_EQ(table->stats()->resolveFailCnt(), 1U);
    EXPECT_FALSE(table->entryHas(actionKey(2)));
}

TEST_F(ExhaustedPool, LeavesTheOldEntryAndItsResourceInUse) {
    const auto committed = table->entryFromConfig(actionKey(1));
    table->entryWrite(actionKey(1), actionEntry(1, 2), nullptr);
    agent.settle();
    EXPECT_EQ(table->entryRead(actionKey(1)), committed);
    EXPECT_NE(table->crpsIndexRequestLinkage()->entryUsageSm({1}), nullptr);
    EXPECT_EQ(table->crpsIndexRequestLinkage()->entryUsageSm({2}), nullptr);
}

// The match tables have no linkages.

template <class B>
class WithoutLinkages : public SwTableFixture<B> {};
using MatchBindings = ::testing::Types<PolicyCpuV4TcamEntryBinding, PolicyCpuV6TcamEntryBinding>;
TYPED_TEST_SUITE(WithoutLinkages, MatchBindings, TableName);

TYPED_TEST(WithoutLinkages, AWriteNeverFailsForWantOfAResource) {
    const auto helper = this->notingHelper();
    const TraceCapture traces;
    this->committed(1);
    EXPECT_EQ(helper->calls, std::vector<std::string>{"success"});
    EXPECT_EQ(this->table->stats()->resolveFailCnt(), 0U);
    for (const TraceLine& line : traces.lines())
        EXPECT_EQ(line.handle.find("Linkage"), std::string::npos);
}

}  // namespace
