// Staging removes of one key and of all entries, and clearing at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using Attributes = std::vector<Kiv::AttributeId>;
using Attribute = Asic::OrderedSwTable::Attribute;

template <class B>
class RemoveFixture : public SwTableFixture<B> {
protected:
    std::size_t queued() const { return this->table->groupResolver()->queued(); }
    std::string notFound() const {
        return " Key: " + this->text(1) + " not found in entry version collection";
    }
    /// The engine's lines of one of its functions while `call` ran.
    std::vector<TraceLine> engineLines(const std::string& function,
                                       const std::function<void()>& call) const {
        const TraceCapture traces;
        call();
        std::vector<TraceLine> result;
        for (const TraceLine& line : traces.lines()) {
            if (line.className == "OrderedSwTableAccessor" && line.function == function)
                result.push_back(line);
        }
        return result;
    }
    TraceLine engineLine(int level, const std::string& function, const std::string& text) const {
        return {level, this->name(), "OrderedSwTableAccessor", function, text};
    }
    Attributes publishedWhile(const std::function<void()>& call) {
        Attributes order;
        const auto subscription = this->table->publisher().subscribe(
            [&](const Kiv::Change& change) { order.push_back(change.attribute); });
        call();
        return order;
    }
    auto removeAll(const Asic::OrderedSwTable::ResponseHandler& handler = {}) {
        this->table->entryRemoveAllWithResponseHandler(nullptr, handler);
    }
};

// One key.

template <class B>
class Remove : public RemoveFixture<B> {};
TYPED_TEST_SUITE(Remove, AllBindings, TableName);

TYPED_TEST(Remove, OfAKeyNeverSeenHasTheFirstVersionAndCompletesAtItsCommit) {
    Answers answers;
    const TraceCapture traces;
    const auto handle =
        this->table->entryRemoveWithResponseHandler(this->key(1), nullptr, answers.handler());
    EXPECT_TRUE(handle->entryVersion().isEq({0, 0}));
    EXPECT_EQ(traces.count(this->name(), 8, this->notFound()), 1U);
    EXPECT_EQ(answers.count, 0);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(handle->logVersion().value, 0U);
    EXPECT_EQ(answers.count, 1);
    EXPECT_EQ(answers.last, handle);
}

TYPED_TEST(Remove, OfAPendingWriteTakesItsPlaceOneVersionLater) {
    const auto written = this->write(1, 5);
    const auto handle = this->remove(1);
    EXPECT_EQ(this->table->transientAddEntry(this->key(1)), nullptr);
    const auto wrapper = this->table->transientRemoveEntry(this->key(1));
    ASSERT_NE(wrapper, nullptr);
    EXPECT_EQ(wrapper->entryHandle(), handle);
    EXPECT_TRUE(handle->entryVersion().isEq(written->entryVersion().next()));
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({1, 0}));
    EXPECT_EQ(written->entryState(), Asic::EntryState::created) << "the write is not told";
    this->table->assertConsistent();
}

TYPED_TEST(Remove, LeavesPendingWritesOfOtherKeys) {
    this->write(1);
    this->write(2);
    this->remove(1);
    EXPECT_NE(this->table->transientAddEntry(this->key(2)), nullptr);
}

TYPED_TEST(Remove, KeepsTheGeneration) {
    this->table->transientVersionForKeyIs(this->key(1), {41, 7});
    EXPECT_TRUE(this->remove(1)->entryVersion().isEq({42, 7}));
}

TYPED_TEST(Remove, OfAKeyAtTheInvalidVersionIsABrokenInvariant) {
    this->table->transientVersionForKeyIs(this->key(1), Asic::EntryVersion{});
    EXPECT_DEATH(this->remove(1), ::testing::HasSubstr("currEntryVersion.valid()"));
}

TYPED_TEST(Remove, StagesADefaultEntryThatCarriesTheKey) {
    this->committed(1, 5);
    this->remove(1);
    const auto wrapper = this->table->transientRemoveEntry(this->key(1));
    ASSERT_NE(wrapper, nullptr);
    typename TypeParam::Entry expected;
    expected.key = this->key(1);
    EXPECT_EQ(wrapper->entry(), expected);
    EXPECT_TRUE(wrapper->isDeleted());
}

TYPED_TEST(Remove, GivesAHandleInStateCreated) {
    const auto handle = this->remove(1);
    EXPECT_TRUE(handle->key().isEq(this->key(1)));
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_FALSE(handle->responseHandler());
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr);
}

TYPED_TEST(Remove, CopiesOnlyAHandlerThatIsThere) {
    Answers answers;
    EXPECT_FALSE(
        this->table->entryRemoveWithResponseHandler(this->key(1), nullptr, {})->responseHandler());
    EXPECT_TRUE(
        this->table->entryRemoveWithResponseHandler(this->key(1), nullptr, answers.handler())
            ->responseHandler());
}

TYPED_TEST(Remove, ReplacesAnEarlierPendingRemove) {
    this->remove(1);
    const auto second = this->remove(1);
    EXPECT_TRUE(second->entryVersion().isEq({1, 0}));
    EXPECT_EQ(this->table->transientRemoveEntrys(), 1U);
    EXPECT_EQ(this->table->transientRemoveEntry(this->key(1))->entryHandle(), second);
    EXPECT_EQ(this->queued(), 2U);
}

TYPED_TEST(Remove, CancelsTheWriteBeforeItStagesItself) {
    this->write(1);
    EXPECT_EQ(this->publishedWhile([&] { this->remove(1); }),
              (Attributes{Attribute::kTransientVersionForKey, Attribute::kTransientAddEntry,
                          Attribute::kTransientRemoveEntry}));
}

TYPED_TEST(Remove, DoesNotTouchTheLogUntilItsCommit) {
    this->committed(1, 5);
    const auto genId = this->table->groupResolver()->genId();
    const auto handle = this->remove(1);
    EXPECT_EQ(this->version(), 1U);
    EXPECT_EQ(this->queued(), 1U);
    EXPECT_EQ(this->table->groupResolver()->genId(), genId + 1);
    EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1, 5));
    this->agent.settle();
    EXPECT_EQ(this->version(), 2U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
}

TYPED_TEST(Remove, WaitsForItsDependency) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::created);
    const auto handle = this->table->entryRemove(this->key(1), dependency);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    dependency->entryStateIs(Asic::EntryState::complete);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
}

TYPED_TEST(Remove, TracesItsSteps) {
    const auto lines = this->engineLines("entryRemoveGeneric", [&] { this->remove(1); });
    EXPECT_EQ(lines,
              (std::vector<TraceLine>{
                  this->engineLine(8, "entryRemoveGeneric", " Key: " + this->text(1) + " "),
                  this->engineLine(8, "entryRemoveGeneric", this->notFound()),
                  this->engineLine(2, "entryRemoveGeneric",
                                   " Done processing remove for key: " + this->text(1) + " "),
              }));
}

TYPED_TEST(Remove, IsCountedByOne) {
    this->remove(1);
    this->remove(1);
    EXPECT_EQ(this->table->stats()->entryRemoveCnt(), 2U);
    EXPECT_EQ(this->table->stats()->entryWriteCnt(), 0U);
}

TYPED_TEST(Remove, TurnsTheFamilysPendingWritesOnAtOnce) {
    this->remove(1);
    EXPECT_TRUE(this->table->status()->pendingHwWrites());
}

class ActionRemove : public SwTableFixture<PolicyCpuTcamActionBinding> {};

TEST_F(ActionRemove, NeverRequestsResources) {
    table->entryWrite(actionKey(1), actionEntry(1, 2, 3), nullptr);
    agent.settle();
    const TraceCapture traces;
    const auto handle = table->entryRemove(actionKey(1), nullptr);
    agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(callsOf(traces, "CrpsIndexRequestResourceTable", "request"), 0U);
    EXPECT_EQ(callsOf(traces, "PolicerIndexRequestResourceTable", "request"), 0U);
}

// All entries.

template <class B>
class RemoveAll : public RemoveFixture<B> {
protected:
    std::vector<TraceLine> lines() {
        return this->engineLines("entryRemoveAllGeneric", [this] { this->removeAll(); });
    }
    std::vector<TraceLine> expectedLines(const std::string& found) const {
        return {this->engineLine(8, "entryRemoveAllGeneric", ""),
                this->engineLine(8, "entryRemoveAllGeneric", found),
                this->engineLine(2, "entryRemoveAllGeneric", "Done processing remove all ")};
    }
};
TYPED_TEST_SUITE(RemoveAll, AllBindings, TableName);

TYPED_TEST(RemoveAll, CountsThoseInFlightAndTracesThat) {
    EXPECT_EQ(this->lines(), this->expectedLines("No remove all operation currently enqueued"));
    EXPECT_EQ(this->table->transientRemoveAllVersion().value, 0U);
    EXPECT_EQ(this->lines(), this->expectedLines("Found valid table remove all version: 0"));
    EXPECT_EQ(this->table->transientRemoveAllVersion().value, 1U);
    EXPECT_EQ(this->lines(), this->expectedLines("Found valid table remove all version: 1"));
    EXPECT_EQ(this->table->transientRemoveAllVersion().value, 2U);
    EXPECT_EQ(this->queued(), 3U);
    this->agent.settle();
    EXPECT_FALSE(this->table->transientRemoveAllVersion().valid());
}

TYPED_TEST(RemoveAll, DropsWhatIsStagedButNotTheVersions) {
    Answers answers;
    this->table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                               answers.handler());
    this->table->entryRemoveWithResponseHandler(this->key(2), nullptr, answers.handler());
    this->removeAll();
    EXPECT_EQ(this->table->transientAddEntrys(), 0U);
    EXPECT_EQ(this->table->transientRemoveEntrys(), 0U);
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({0, 0}));
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(2)).isEq({0, 0}));
    EXPECT_TRUE(this->write(1)->entryVersion().isEq({1, 0}));
    EXPECT_TRUE(this->remove(2)->entryVersion().isEq({1, 0}));
    EXPECT_EQ(answers.count, 0) << "the dropped changes are not told";
}

TYPED_TEST(RemoveAll, LeavesDroppedChangesInTheirPlaceInTheQueue) {
    const auto before = this->write(1);
    this->removeAll();
    const auto after = this->write(1, 5);
    EXPECT_EQ(this->queued(), 3U);
    this->agent.settle();
    EXPECT_EQ(before->logVersion().value, 1U);
    EXPECT_EQ(after->logVersion().value, 3U);
    EXPECT_EQ(this->record(2)->operation, LogOperation::allDeleted);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 5));
}

TYPED_TEST(RemoveAll, KeepsWritesMadeAfterIt) {
    this->write(1);
    this->removeAll();
    this->write(2);
    EXPECT_EQ(this->table->transientAddEntry(this->key(1)), nullptr);
    EXPECT_NE(this->table->transientAddEntry(this->key(2)), nullptr);
}

TYPED_TEST(RemoveAll, DropsWritesThenRemovesThenCountsItself) {
    this->write(1);
    this->remove(2);
    EXPECT_EQ(this->publishedWhile([&] { this->removeAll(); }),
              (Attributes{Attribute::kTransientAddEntry, Attribute::kTransientRemoveEntry,
                          Attribute::kTransientRemoveAllVersion}));
}

TYPED_TEST(RemoveAll, IsNotCountedHere) {
    this->removeAll();
    EXPECT_EQ(this->table->stats()->entryRemoveCnt(), 0U);
    EXPECT_EQ(this->table->stats()->entryWriteCnt(), 0U);
    EXPECT_EQ(this->table->stats()->tableClearCnt(), 0U);
    EXPECT_TRUE(this->table->status()->pendingHwWrites());
}

TYPED_TEST(RemoveAll, IsQueuedWithAHandleOfTheFirstVersionAndNoKey) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::created);
    Answers answers;
    const auto genId = this->table->groupResolver()->genId();
    this->table->entryRemoveAllWithResponseHandler(dependency, answers.handler());
    EXPECT_EQ(this->table->groupResolver()->genId(), genId + 1);
    this->agent.settle();
    int waiting = 0;
    this->table->groupResolver()->forEachQueued([&](const Asic::QueuedChange& queued) {
        const Asic::ResolverEntry& entry = *queued.entry;
        ++waiting;
        EXPECT_TRUE(entry.isTableDeleted());
        EXPECT_FALSE(entry.isEntryDeleted());
        EXPECT_EQ(entry.dependantEntryHandle(), dependency);
        const auto& change = static_cast<const ResolverEntry<TypeParam>&>(entry);
        EXPECT_EQ(change.entryWrapper()->entry(), typename TypeParam::Entry{});
        const auto& handle = change.entryWrapper()->entryHandle();
        EXPECT_TRUE(handle->entryVersion().isEq({0, 0}));
        EXPECT_TRUE(handle->key().isEq(typename TypeParam::Key{}));
        EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
        EXPECT_TRUE(handle->responseHandler());
    });
    EXPECT_EQ(waiting, 1);
}

TYPED_TEST(RemoveAll, WithoutAHandlerLeavesTheHandlesEmpty) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::created);
    this->table->entryRemoveAll(dependency);
    this->agent.settle();
    int waiting = 0;
    this->table->groupResolver()->forEachQueued([&](const Asic::QueuedChange& queued) {
        const Asic::ResolverEntry& entry = *queued.entry;
        ++waiting;
        const auto& change = static_cast<const ResolverEntry<TypeParam>&>(entry);
        EXPECT_FALSE(change.entryWrapper()->entryHandle()->responseHandler());
    });
    EXPECT_EQ(waiting, 1);
}

// Clearing.

template <class B>
class ClearTable : public RemoveFixture<B> {};
TYPED_TEST_SUITE(ClearTable, AllBindings, TableName);

TYPED_TEST(ClearTable, EmptiesTheTableAtOncePastTheResolver) {
    this->committed(1);
    this->committed(2);
    const auto genId = this->table->groupResolver()->genId();
    this->table->clearTable(true);
    EXPECT_EQ(this->table->entrys(), 0U);
    EXPECT_EQ(this->version(), 3U);
    EXPECT_EQ(this->record(3)->operation, LogOperation::allDeleted);
    EXPECT_EQ(this->queued(), 0U);
    EXPECT_EQ(this->table->groupResolver()->genId(), genId);
    EXPECT_FALSE(this->table->transientRemoveAllVersion().valid());
    EXPECT_EQ(this->table->stats()->tableClearCnt(), 1U);
    EXPECT_TRUE(this->neededOf(3).empty());
}

TYPED_TEST(ClearTable, LeavesStagedChangesAndRemoveAllsInFlight) {
    this->committed(1);
    this->removeAll();
    this->write(2);
    this->table->clearTable(false);
    EXPECT_EQ(this->table->transientRemoveAllVersion().value, 0U);
    EXPECT_NE(this->table->transientAddEntry(this->key(2)), nullptr);
    EXPECT_EQ(this->queued(), 2U);
    this->table->assertConsistent();
}

TYPED_TEST(ClearTable, MakesNoHandle) {
    this->committed(1);
    const auto queuedHandles = this->table->entryHandlesInLog().size();
    this->table->clearTable(true);
    EXPECT_EQ(this->table->entryHandlesInLog().size(), queuedHandles);
}

class ActionClearTable : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    ActionClearTable() {
        table->entryWrite(actionKey(1), actionEntry(1, 2, 3), nullptr);
        agent.settle();
    }
};

TEST_F(ActionClearTable, PassesBothLinkagesTheCountersFirst) {
    const TraceCapture traces;
    table->clearTable(true);
    std::vector<std::string> released;
    for (const TraceLine& line : traces.lines()) {
        if (line.level == 8 && line.function == "release")
            released.push_back(line.className);
    }
    EXPECT_EQ(released, (std::vector<std::string>{"CrpsIndexRequestResourceTable",
                                                  "PolicerIndexRequestResourceTable"}));
    EXPECT_EQ(table->crpsIndexRequestLinkage()->entryUsageSms(), 0U);
    EXPECT_EQ(table->policerIndexRequestLinkage()->entryUsageSms(), 0U);
}

TEST_F(ActionClearTable, KeepsTheResourcesWithoutItsFlag) {
    const TraceCapture traces;
    table->clearTable(false);
    EXPECT_EQ(callsOf(traces, "CrpsIndexRequestResourceTable", "release"), 0U);
    EXPECT_EQ(table->crpsIndexRequestLinkage()->entryUsageSms(), 1U);
}

}  // namespace
