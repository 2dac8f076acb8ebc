// Committing removes and remove-alls.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class RemoveCommit : public SwTableFixture<B> {};
TYPED_TEST_SUITE(RemoveCommit, AllBindings, TableName);

TYPED_TEST(RemoveCommit, TracesTheChangeOnEntry) {
    const TraceCapture traces;
    this->commit(this->change(Asic::EntryFlags::entryDelete, this->wrapper(1)));
    EXPECT_TRUE(
        traces.has(this->name(), 8,
                   "Entry: " + this->text(1) + ", isEntryDeleted: true, isTableDeleted: false"));
}

TYPED_TEST(RemoveCommit, DeletesTheEntryAndQueuesTheHandle) {
    this->committed(1);
    const auto handle = this->remove(1);
    this->agent.settle();
    EXPECT_TRUE(this->config()->swTableEntries(this->key(1))->inDeletion);
    EXPECT_EQ(this->record(2)->operation, LogOperation::entryDeleted);
    EXPECT_EQ(handle->logVersion().value, 2U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->table->entryHandleInLogBack(), handle);
    EXPECT_EQ(this->table->stats()->commitCnt(), 2U);
}

TYPED_TEST(RemoveCommit, QueuesTheHandleAlsoWhenTheVersionIsConsumedAlready) {
    this->committed(1);
    this->table->entryLog()->cleanupEntryLog({2});
    const auto wrapper = this->wrapper(1);
    wrapper->isDeletedIs(true);
    this->commit(this->change(Asic::EntryFlags::entryDelete, wrapper));
    EXPECT_EQ(wrapper->entryHandle()->logVersion().value, 2U);
    EXPECT_EQ(wrapper->entryHandle()->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->table->entryHandleInLogBack(), wrapper->entryHandle());
}

TYPED_TEST(RemoveCommit, CallsTheHookAfterStagedStateIsGoneAndBeforeTheLog) {
    this->committed(1);
    const auto helper = this->notingHelper();
    this->remove(1);
    this->agent.settle();
    EXPECT_EQ(helper->calls, std::vector<std::string>{"success of a delete"});
    EXPECT_FALSE(helper->stagedAtHook);
    EXPECT_EQ(helper->versionAtHook, 1U);
}

TYPED_TEST(RemoveCommit, OfAKeyThatWasNeverCommittedIsCompleteAtOnce) {
    Answers answers;
    const auto handle =
        this->table->entryRemoveWithResponseHandler(this->key(1), nullptr, answers.handler());
    this->agent.settle();
    EXPECT_EQ(handle->logVersion().value, 0U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(answers.count, 1);
    EXPECT_EQ(answers.last, handle);
    EXPECT_EQ(this->version(), 0U);
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr);
    EXPECT_EQ(this->table->stats()->commitCnt(), 1U);
}

TYPED_TEST(RemoveCommit, ClearsItsStagedStateUnlessALaterChangeIsStaged) {
    this->committed(1);
    this->remove(1);
    this->remove(1);
    this->commit(this->change(Asic::EntryFlags::entryDelete, this->wrapper(1, 0, {0, 0})));
    EXPECT_NE(this->table->transientRemoveEntry(this->key(1)), nullptr);
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({1, 0}));
    this->commit(this->change(Asic::EntryFlags::entryDelete, this->wrapper(1, 0, {1, 0})));
    EXPECT_EQ(this->table->transientRemoveEntry(this->key(1)), nullptr);
    EXPECT_FALSE(this->table->transientVersionForKey(this->key(1)).valid());
}

TYPED_TEST(RemoveCommit, NeedsOnlyTheVersionOfItsDependency) {
    this->committed(1);
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::complete, 5U);
    this->table->entryRemove(this->key(1), dependency);
    this->agent.settle();
    ASSERT_EQ(this->neededOf(2).size(), 1U);
    EXPECT_EQ(this->neededOf(2)[0].version, 5U);
}

// Remove-alls.

template <class B>
class RemoveAllCommit : public SwTableFixture<B> {
protected:
    auto removeAll(const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependency = nullptr) {
        return this->change(
            Asic::EntryFlags::tableDelete,
            Brumo::make<typename B::EntryWrapper>(typename B::Entry{}, this->handle(0)),
            dependency);
    }
    std::uint64_t inFlight() { return this->table->transientRemoveAllVersion().value; }
};
TYPED_TEST_SUITE(RemoveAllCommit, AllBindings, TableName);

TYPED_TEST(RemoveAllCommit, TracesTheChangeAndTheVersionItStandsFor) {
    this->table->transientRemoveAllVersionIs({3});
    const TraceCapture traces;
    this->commit(this->removeAll());
    EXPECT_TRUE(traces.has(this->name(), 8,
                           "Entry: " + typename TypeParam::Key{}.toText() +
                               ", isEntryDeleted: false, isTableDeleted: true"));
    EXPECT_TRUE(traces.has(this->name(), 8, "Committing table delete for version: 3"));
}

TYPED_TEST(RemoveAllCommit, DeletesEverythingAtOneVersion) {
    this->committed(1);
    this->committed(2);
    this->table->transientRemoveAllVersionIs({0});
    const auto change = this->removeAll();
    this->commit(change);
    EXPECT_EQ(this->table->entrys(), 0U);
    EXPECT_EQ(this->record(3)->operation, LogOperation::allDeleted);
    EXPECT_EQ(change->entryWrapper()->entryHandle()->logVersion().value, 3U);
    EXPECT_EQ(change->entryWrapper()->entryHandle()->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->table->stats()->tableClearCnt(), 1U);
    EXPECT_EQ(this->table->stats()->commitCnt(), 3U);
}

TYPED_TEST(RemoveAllCommit, NeitherQueuesItsHandleNorAnswers) {
    this->committed(1);
    this->agent.acknowledgeAll();
    Answers answers;
    this->table->entryRemoveAllWithResponseHandler(nullptr, answers.handler());
    this->agent.settle();
    EXPECT_EQ(this->version(), 2U);
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr);
    this->agent.acknowledgeAll();
    EXPECT_EQ(answers.count, 0);
    EXPECT_FALSE(this->table->hasPendingHwWrites());
}

TYPED_TEST(RemoveAllCommit, CallsNoHook) {
    this->committed(1);
    const auto helper = this->notingHelper();
    this->table->entryRemoveAll(nullptr);
    this->agent.settle();
    EXPECT_TRUE(helper->calls.empty());
}

TYPED_TEST(RemoveAllCommit, OfAnEmptyTableWritesNothingAndLeavesTheHandleInState0) {
    this->table->transientRemoveAllVersionIs({0});
    const auto change = this->removeAll();
    this->commit(change);
    EXPECT_EQ(this->version(), 0U);
    EXPECT_EQ(change->entryWrapper()->entryHandle()->entryState(), Asic::EntryState::created);
    EXPECT_EQ(change->entryWrapper()->entryHandle()->logVersion().value, 0U);
    EXPECT_FALSE(this->table->transientRemoveAllVersion().valid());
    EXPECT_EQ(this->table->stats()->commitCnt(), 1U);
    EXPECT_EQ(this->table->stats()->tableClearCnt(), 0U);
}

/// The version of a remove-all is that of the table, not of its handle.
TYPED_TEST(RemoveAllCommit, NeedsNoVersionOfItsHandle) {
    this->committed(1);
    this->table->transientRemoveAllVersionIs({0});
    const auto wrapper = this->wrapper(0, 0, Asic::EntryVersion{});
    this->commit(this->change(Asic::EntryFlags::tableDelete, wrapper));
    EXPECT_EQ(this->version(), 2U);
    EXPECT_FALSE(this->table->entryHas(this->key(1)));
    EXPECT_FALSE(this->table->transientRemoveAllVersion().valid());
}

TYPED_TEST(RemoveAllCommit, LowersTheCountOfThoseInFlight) {
    this->table->entryRemoveAll(nullptr);
    this->table->entryRemoveAll(nullptr);
    EXPECT_EQ(this->inFlight(), 1U);
    this->commit(this->removeAll());
    EXPECT_EQ(this->inFlight(), 0U);
    this->commit(this->removeAll());
    EXPECT_FALSE(this->table->transientRemoveAllVersion().valid());
}

TYPED_TEST(RemoveAllCommit, PublishesTheLoweredCount) {
    this->table->transientRemoveAllVersionIs({1});
    std::vector<std::uint64_t> before;
    const auto subscription = this->table->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == Asic::OrderedSwTable::kTransientRemoveAllVersion)
            before.push_back(change.template oldAs<Asic::MajorVersion>().value);
    });
    this->commit(this->removeAll());
    this->commit(this->removeAll());
    EXPECT_EQ(before, (std::vector<std::uint64_t>{1, 0}));
}

TYPED_TEST(RemoveAllCommit, LowersTheCountThatWasBeforeTheDeletion) {
    this->committed(1);
    this->table->transientRemoveAllVersionIs({4});
    const auto change = this->removeAll();
    const auto subscription = change->entryWrapper()->entryHandle()->publisher().subscribe(
        [&](const Kiv::Change&) { this->table->transientRemoveAllVersionIs({9}); });
    this->commit(change);
    EXPECT_EQ(this->inFlight(), 3U);
}

TYPED_TEST(RemoveAllCommit, IsNotAnnouncedAsAChangeWhenTheCountIsTheSame) {
    this->committed(1);
    this->table->transientRemoveAllVersionIs({4});
    const auto change = this->removeAll();
    const auto meanwhile = change->entryWrapper()->entryHandle()->publisher().subscribe(
        [&](const Kiv::Change&) { this->table->transientRemoveAllVersionIs({3}); });
    std::size_t published = 0;
    const auto subscription = this->table->publisher().subscribe([&](const Kiv::Change& seen) {
        published += seen.attribute == Asic::OrderedSwTable::kTransientRemoveAllVersion ? 1 : 0;
    });
    this->commit(change);
    EXPECT_EQ(this->inFlight(), 3U);
    EXPECT_EQ(published, 1U) << "only what came from elsewhere";
}

TYPED_TEST(RemoveAllCommit, NeedsTheVersionOfItsDependency) {
    this->committed(1);
    this->table->transientRemoveAllVersionIs({0});
    this->commit(this->removeAll(Brumo::make<ForeignChange>(Asic::EntryState::written, 12U)));
    ASSERT_EQ(this->neededOf(2).size(), 1U);
    EXPECT_EQ(this->neededOf(2)[0].version, 12U);
}

TYPED_TEST(RemoveAllCommit, ComesAfterEarlierAndBeforeLaterChanges) {
    this->committed(1);
    this->write(2);
    this->table->entryRemoveAll(nullptr);
    this->write(3);
    this->agent.settle();
    EXPECT_EQ(this->record(2)->operation, LogOperation::entryWritten);
    EXPECT_EQ(this->record(3)->operation, LogOperation::allDeleted);
    EXPECT_EQ(this->record(4)->operation, LogOperation::entryWritten);
    EXPECT_EQ(this->table->entrys(), 1U);
    EXPECT_TRUE(this->table->entryHas(this->key(3)));
}

}  // namespace
