// Staging a write: versions, handles, what is staged, requested, queued, traced and counted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class Write : public SwTableFixture<B> {
protected:
    std::size_t queued() const { return this->table->groupResolver()->queued(); }
    std::string notFound() const {
        return " Key: " + this->text(1) + " not found in entry version collection";
    }
};
TYPED_TEST_SUITE(Write, AllBindings, TableName);

// Versions.

TYPED_TEST(Write, OfANewKeyHasTheFirstVersion) {
    const TraceCapture traces;
    const auto handle = this->write(1);
    EXPECT_TRUE(handle->entryVersion().isEq({0, 0}));
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({0, 0}));
    EXPECT_EQ(traces.count(this->name(), 8, this->notFound()), 1U);
}

TYPED_TEST(Write, OfAKnownKeyHasTheNextVersion) {
    this->write(1);
    const TraceCapture traces;
    const auto handle = this->write(1);
    EXPECT_TRUE(handle->entryVersion().isEq({1, 0}));
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({1, 0}));
    EXPECT_EQ(traces.count(this->name(), 8, this->notFound()), 0U);
}

TYPED_TEST(Write, CountsEachKeyByItself) {
    this->write(1);
    this->write(1);
    EXPECT_TRUE(this->write(2)->entryVersion().isEq({0, 0}));
    EXPECT_TRUE(this->write(1)->entryVersion().isEq({2, 0}));
}

TYPED_TEST(Write, KeepsTheGeneration) {
    this->table->transientVersionForKeyIs(this->key(1), {41, 7});
    EXPECT_TRUE(this->write(1)->entryVersion().isEq({42, 7}));
    EXPECT_TRUE(this->write(1)->entryVersion().isEq({43, 7}));
    this->table->transientVersionForKeyIs(this->key(1), {41, 65535});
    EXPECT_TRUE(this->write(1)->entryVersion().isEq({42, 65535}));
}

TYPED_TEST(Write, BeginsAnewOnceTheKeysLatestChangeIsCommitted) {
    this->write(1);
    this->write(1);
    this->agent.settle();
    EXPECT_TRUE(this->write(1)->entryVersion().isEq({0, 0}));
}

TYPED_TEST(Write, OfAKeyAtTheInvalidVersionIsABrokenInvariant) {
    this->table->transientVersionForKeyIs(this->key(1), Asic::EntryVersion{});
    EXPECT_DEATH(this->write(1), ::testing::HasSubstr("currEntryVersion.valid()"));
}

// Handles and wrappers.

TYPED_TEST(Write, GivesAHandleOfTheKeyInStateCreated) {
    const auto handle = this->write(1);
    EXPECT_TRUE(handle->key().isEq(this->key(1)));
    EXPECT_EQ(handle->swTable(), this->table.get());
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_EQ(handle->logVersion().value, 0U);
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr) << "queued at the commit only";
}

TYPED_TEST(Write, StagesAWrapperOfEntryAndHandle) {
    const auto handle = this->write(1, 5);
    const auto wrapper = this->table->transientAddEntry(this->key(1));
    ASSERT_NE(wrapper, nullptr);
    EXPECT_EQ(wrapper->entry(), this->entry(1, 5));
    EXPECT_EQ(wrapper->entryHandle(), handle);
    EXPECT_FALSE(wrapper->isDeleted());
    EXPECT_EQ(this->version(), 0U) << "the log is not touched";
    this->table->assertConsistent();
}

TYPED_TEST(Write, PutsTheKeyIntoTheEntry) {
    this->table->entryWrite(this->key(1), this->entry(2, 5), nullptr);
    const auto wrapper = this->table->transientAddEntry(this->key(1));
    ASSERT_NE(wrapper, nullptr);
    EXPECT_EQ(wrapper->entry(), this->entry(1, 5));
    EXPECT_EQ(this->table->transientAddEntry(this->key(2)), nullptr);
}

TYPED_TEST(Write, LeavesTheHandlesHandlerEmptyUnlessOneIsGiven) {
    EXPECT_FALSE(this->write(1)->responseHandler());
    const auto handle =
        this->table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr, {});
    EXPECT_FALSE(handle->responseHandler());
}

TYPED_TEST(Write, CopiesAGivenHandlerIntoTheHandle) {
    Answers answers;
    const auto handle = this->table->entryWriteWithResponseHandler(this->key(1), this->entry(1),
                                                                   nullptr, answers.handler());
    ASSERT_TRUE(handle->responseHandler());
    EXPECT_EQ(answers.count, 0);
    handle->responseHandler()(handle);
    EXPECT_EQ(answers.last, handle);
}

TYPED_TEST(Write, OfTheSameEntryAgainIsAChangeOfItsOwn) {
    const auto first = this->write(1, 5);
    const auto wrapper = this->table->transientAddEntry(this->key(1));
    const auto second = this->write(1, 5);
    EXPECT_NE(first, second);
    EXPECT_NE(this->table->transientAddEntry(this->key(1)), wrapper);
    EXPECT_EQ(this->table->transientAddEntry(this->key(1))->entryHandle(), second);
    EXPECT_EQ(this->table->transientAddEntrys(), 1U);
    EXPECT_EQ(this->queued(), 2U);
    EXPECT_EQ(first->entryState(), Asic::EntryState::created) << "the earlier one stays as it is";
    this->agent.settle();
    EXPECT_EQ(first->logVersion().value, 1U);
    EXPECT_EQ(second->logVersion().value, 2U);
}

TYPED_TEST(Write, OfTheCommittedEntryIsAChange) {
    this->committed(1, 5);
    const auto handle = this->write(1, 5);
    this->agent.settle();
    EXPECT_EQ(handle->logVersion().value, 2U);
    EXPECT_EQ(this->table->stats()->suppressedWriteCnt(), 0U);
}

// Beside other changes.

TYPED_TEST(Write, CancelsAPendingRemoveOfTheKeyWithoutTellingIt) {
    Answers answers;
    const auto removed =
        this->table->entryRemoveWithResponseHandler(this->key(1), nullptr, answers.handler());
    this->remove(2);
    const auto handle = this->write(1);
    EXPECT_EQ(this->table->transientRemoveEntry(this->key(1)), nullptr);
    EXPECT_NE(this->table->transientRemoveEntry(this->key(2)), nullptr) << "another key's stays";
    EXPECT_NE(this->table->transientAddEntry(this->key(1)), nullptr);
    EXPECT_TRUE(handle->entryVersion().isEq({1, 0}));
    EXPECT_EQ(removed->entryState(), Asic::EntryState::created);
    EXPECT_EQ(answers.count, 0);
    this->table->assertConsistent();
}

TYPED_TEST(Write, RemovesAPendingRemoveBeforeItStagesItself) {
    this->remove(1);
    std::vector<Kiv::AttributeId> order;
    const auto subscription = this->table->publisher().subscribe(
        [&](const Kiv::Change& change) { order.push_back(change.attribute); });
    this->write(1);
    using TableType = Asic::OrderedSwTable;
    EXPECT_EQ(order, (std::vector<Kiv::AttributeId>{TableType::kTransientVersionForKey,
                                                    TableType::kTransientRemoveEntry,
                                                    TableType::kTransientAddEntry}));
}

TYPED_TEST(Write, DoesNotConsultAPendingRemoveAll) {
    this->write(1);
    this->table->entryRemoveAll(nullptr);
    const auto handle = this->write(1, 5);
    EXPECT_TRUE(handle->entryVersion().isEq({1, 0}));
    EXPECT_EQ(this->table->transientRemoveAllVersion().value, 0U);
    EXPECT_EQ(this->table->transientAddEntrys(), 1U);
    EXPECT_EQ(this->queued(), 3U);
    this->table->assertConsistent();
    this->agent.settle();
    EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1, 5));
}

// Queueing, tracing, counting.

TYPED_TEST(Write, IsQueuedAtOnceAndCommittedOnALaterTurn) {
    const auto genId = this->table->groupResolver()->genId();
    const auto handle = this->write(1);
    EXPECT_EQ(this->queued(), 1U);
    EXPECT_EQ(this->table->groupResolver()->genId(), genId + 1);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    this->agent.settle();
    EXPECT_EQ(this->queued(), 0U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
}

TYPED_TEST(Write, WaitsForItsDependency) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::created);
    const auto handle = this->table->entryWrite(this->key(1), this->entry(1), dependency);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_NE(this->table->transientAddEntry(this->key(1)), nullptr);
    dependency->entryStateIs(Asic::EntryState::written);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
}

TYPED_TEST(Write, TracesItsSteps) {
    const TraceCapture traces;
    this->write(1);
    std::vector<TraceLine> engine;
    for (const TraceLine& line : traces.lines()) {
        if (line.className == "OrderedSwTableAccessor" && line.function == "entryWriteGeneric")
            engine.push_back(line);
    }
    const auto line = [&](int level, const std::string& text) {
        return TraceLine{level, this->name(), "OrderedSwTableAccessor", "entryWriteGeneric", text};
    };
    EXPECT_EQ(engine, (std::vector<TraceLine>{
                          line(8, "key: " + this->text(1)),
                          line(8, this->notFound()),
                          line(2, "Done processing write for key: " + this->text(1) + " "),
                      }));
}

TYPED_TEST(Write, IsCountedByOne) {
    this->write(1);
    this->write(1);
    EXPECT_EQ(this->table->stats()->entryWriteCnt(), 2U);
    EXPECT_EQ(this->table->stats()->entryRemoveCnt(), 0U);
    EXPECT_EQ(this->table->stats()->commitCnt(), 0U);
}

TYPED_TEST(Write, TurnsTheFamilysPendingWritesOnAtOnce) {
    EXPECT_FALSE(this->table->status()->pendingHwWrites());
    this->write(1);
    EXPECT_TRUE(this->table->status()->pendingHwWrites());
    this->agent.settle();
    this->agent.acknowledgeAll();
    EXPECT_FALSE(this->table->status()->pendingHwWrites());
}

/// The resolver takes up a pause with a write's last steps, before the family's status.
TYPED_TEST(Write, TellsTheResolverBeforeTheFamily) {
    std::vector<std::string> order;
    const auto& resolver = this->table->groupResolver();
    const auto status = this->table->status()->publisher().subscribe(
        [&](const Kiv::Change&) { order.push_back("family"); });
    const auto suspended =
        resolver->publisher().subscribe([&](const Kiv::Change&) { order.push_back("resolver"); });
    resolver->suspendRequestedIs(true);
    EXPECT_FALSE(resolver->suspended()) << "asked for, and not taken up yet";
    this->write(1);
    EXPECT_EQ(order, (std::vector<std::string>{"resolver", "family"}));
    this->agent.settle();
    EXPECT_EQ(this->queued(), 1U) << "nothing is committed while suspended";
    resolver->suspendRequestedIs(false);
    resolver->maybeUpdateSuspend();
    this->agent.settle();
    EXPECT_EQ(this->queued(), 0U);
}

// Linkages.

class ActionWrite : public SwTableFixture<PolicyCpuTcamActionBinding> {};

TEST_F(ActionWrite, RequestsTheCounterThenThePolicer) {
    const TraceCapture traces;
    table->entryWrite(actionKey(1), actionEntry(1, 2, 3), nullptr);
    std::vector<std::string> requests;
    for (const TraceLine& line : traces.lines()) {
        if (line.level == 8 && line.function == "request")
            requests.push_back(line.className);
    }
    const auto wrapper = table->transientAddEntry(actionKey(1));
    ASSERT_NE(wrapper->counterRequestKeyResPtr(), nullptr);
    ASSERT_NE(wrapper->policerRequestKeyResPtr(), nullptr);
    EXPECT_TRUE(wrapper->counterRequestKeyResPtr()->key().isEq(wrapper->counterRequestKey()));
    EXPECT_TRUE(wrapper->policerRequestKeyResPtr()->key().isEq(wrapper->policerRequestKey()));
    EXPECT_EQ(requests, (std::vector<std::string>{"CrpsIndexRequestResourceTable",
                                                  "PolicerIndexRequestResourceTable"}));
}

TEST_F(ActionWrite, DoesNotWaitForTheResources) {
    const auto handle = table->entryWrite(actionKey(1), actionEntry(1, 2, 3), nullptr);
    const auto wrapper = table->transientAddEntry(actionKey(1));
    EXPECT_EQ(wrapper->counterRequestKeyResPtr()->entryState(), Asic::EntryState::created);
    EXPECT_EQ(wrapper->counterIndex(), 0xFFFFFFFFU);
    EXPECT_EQ(table->groupResolver()->queued(), 1U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
}

TEST_F(ActionWrite, RequestsBeforeItIsQueued) {
    agent.counters();
    const TraceCapture traces;
    table->entryWrite(actionKey(1), actionEntry(1, 2, 0), nullptr);
    std::size_t request = 0;
    std::size_t done = 0;
    for (std::size_t i = 0; i < traces.lines().size(); ++i) {
        if (traces.lines()[i].function == "request")
            request = i;
        if (traces.lines()[i].text.starts_with("Done processing write"))
            done = i;
    }
    EXPECT_GT(request, 0U);
    EXPECT_LT(request, done);
}

TEST_F(ActionWrite, OfAnEntryThatNeedsNothingRequestsNothing) {
    table->entryWrite(actionKey(1), actionEntry(1), nullptr);
    const auto wrapper = table->transientAddEntry(actionKey(1));
    EXPECT_EQ(wrapper->counterRequestKeyResPtr(), nullptr);
    EXPECT_EQ(wrapper->policerRequestKeyResPtr(), nullptr);
    EXPECT_EQ(agent.counters()->entries() + agent.policers()->entries(), 0U);
}

/// A table whose only counter is taken.
class ActionWriteWithoutRoom : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    ActionWriteWithoutRoom() : SwTableFixture({.counters = 1}) {
        table->entryWrite(actionKey(1), actionEntry(1, 1), nullptr);
        agent.settle();
    }
};

TEST_F(ActionWriteWithoutRoom, IsStagedAllTheSameAndFailsAtItsCommit) {
    const auto handle = table->entryWrite(actionKey(2), actionEntry(2, 2), nullptr);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_NE(table->transientAddEntry(actionKey(2)), nullptr);
    agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::failed);
    EXPECT_EQ(table->stats()->entryWriteCnt(), 2U);
}

}  // namespace
