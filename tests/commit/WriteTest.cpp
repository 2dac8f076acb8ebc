// Committing writes: what is called, written, counted and queued, and what of the staged change
// goes.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class WriteCommit : public SwTableFixture<B> {};
TYPED_TEST_SUITE(WriteCommit, AllBindings, TableName);

TYPED_TEST(WriteCommit, TracesTheChangeOnEntry) {
    const TraceCapture traces;
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1)));
    EXPECT_TRUE(
        traces.has(this->name(), 8,
                   "Entry: " + this->text(1) + ", isEntryDeleted: false, isTableDeleted: false"));
}

TYPED_TEST(WriteCommit, PutsTheEntryIntoTheLogAndQueuesTheHandle) {
    const auto wrapper = this->wrapper(1, 9);
    this->commit(this->change(Asic::EntryFlags::write, wrapper));
    EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1, 9));
    const auto record = this->record(1);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->operation, LogOperation::entryWritten);
    EXPECT_TRUE(record->key.isEq(this->key(1)));
    EXPECT_EQ(record->unitId, this->table->unitId());
    EXPECT_EQ(wrapper->entryHandle()->logVersion().value, 1U);
    EXPECT_EQ(wrapper->entryHandle()->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->table->entryHandleInLogBack(), wrapper->entryHandle());
}

TYPED_TEST(WriteCommit, QueuesHandlesInTheOrderOfTheirCommits) {
    for (std::uint32_t number = 1; number <= 3; ++number)
        this->commit(this->change(Asic::EntryFlags::write, this->wrapper(number)));
    for (std::uint32_t number = 1; number <= 3; ++number)
        EXPECT_TRUE(this->table->entryHandleInLog(number)->key().isEq(this->key(number)));
    this->table->assertConsistent();
}

TYPED_TEST(WriteCommit, CallsTheHookBeforeTheLogAndBeforeStagedStateGoes) {
    const auto helper = this->notingHelper();
    this->committed(1);
    EXPECT_EQ(helper->calls, std::vector<std::string>{"success"});
    EXPECT_EQ(helper->versionAtHook, 0U);
    EXPECT_TRUE(helper->stagedAtHook);
    EXPECT_FALSE(this->table->transientAddEntry(this->key(1)) != nullptr);
}

TYPED_TEST(WriteCommit, DoesNotAnswerBeforeTheHardwareSideHasTheVersion) {
    Answers answers;
    this->table->entryWriteWithResponseHandler(this->key(1), this->entry(1), nullptr,
                                               answers.handler());
    this->agent.settle();
    EXPECT_EQ(answers.count, 0);
    this->agent.acknowledgeAll();
    EXPECT_EQ(answers.count, 1);
    this->agent.acknowledgeAll();
    EXPECT_EQ(answers.count, 1);
}

TYPED_TEST(WriteCommit, AnswersAtOnceWhenTheVersionIsConsumedAlready) {
    Answers answers;
    this->table->entryLog()->cleanupEntryLog({1});
    const auto wrapper = this->wrapper(1);
    wrapper->entryHandle()->responseHandlerIs(answers.handler());
    this->commit(this->change(Asic::EntryFlags::write, wrapper));
    EXPECT_EQ(wrapper->entryHandle()->logVersion().value, 1U);
    EXPECT_EQ(wrapper->entryHandle()->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(answers.count, 1);
    EXPECT_EQ(answers.last, wrapper->entryHandle());
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr);
}

TYPED_TEST(WriteCommit, QueuesTheFirstVersionAboveTheConsumedOne) {
    this->table->entryLog()->cleanupEntryLog({1});
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1)));
    const auto above = this->wrapper(2);
    this->commit(this->change(Asic::EntryFlags::write, above));
    EXPECT_EQ(this->table->entryHandleInLogFront(), above->entryHandle());
    EXPECT_EQ(above->entryHandle()->entryState(), Asic::EntryState::written);
}

TYPED_TEST(WriteCommit, WritesAnIdenticalEntryAgain) {
    this->committed(1);
    this->committed(1);
    EXPECT_EQ(this->version(), 2U);
    EXPECT_EQ(this->table->stats()->suppressedWriteCnt(), 0U);
}

TYPED_TEST(WriteCommit, CountsAndNotesTheTime) {
    EXPECT_EQ(this->table->stats()->lastCommitTime(), 0.0);
    const double before =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1)));
    EXPECT_EQ(this->table->stats()->commitCnt(), 1U);
    EXPECT_EQ(this->table->stats()->resolveFailCnt(), 0U);
    EXPECT_GE(this->table->stats()->lastCommitTime(), before);
}

TYPED_TEST(WriteCommit, TurnsTheFamilysPendingWritesOn) {
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1)));
    EXPECT_TRUE(this->table->status()->pendingHwWrites());
}

TYPED_TEST(WriteCommit, TakesUpAPauseThatTheHookAskedForRightAfterIt) {
    struct Pausing final : SwTableHelperBase<TypeParam> {
        void finalizeOnSuccess(
            const typename SwTableHelperBase<TypeParam>::WrapperPtr&, bool,
            const typename SwTableHelperBase<TypeParam>::TablePtr& swTable) override {
            resolver = swTable->groupResolver();
            resolver->suspendRequestedIs(true);
            resolver->suspendRequestedIs(false);
        }
        Brumo::Ptr<Asic::GroupResolver> resolver;
    };
    const auto helper = Brumo::make<Pausing>();
    this->table->swTableHelperIs(helper);
    const auto first = this->write(1);
    const auto second = this->write(2);
    this->agent.settle();
    EXPECT_FALSE(helper->resolver->suspended());
    EXPECT_EQ(first->entryState(), Asic::EntryState::written);
    EXPECT_EQ(second->entryState(), Asic::EntryState::written);
}

// What the change needs.

TYPED_TEST(WriteCommit, NeedsNothingByItself) {
    this->committed(1);
    EXPECT_TRUE(this->neededOf(1).empty());
}

TYPED_TEST(WriteCommit, NeedsTheVersionOfItsDependency) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::written, 17U);
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1), dependency));
    const auto needed = this->neededOf(1);
    ASSERT_EQ(needed.size(), 1U);
    EXPECT_EQ(needed[0].tableId, ForeignChange::kTableId.whole());
    EXPECT_EQ(needed[0].version, 17U);
}

// Staged state.

TYPED_TEST(WriteCommit, OfTheLatestChangeClearsWhatIsStaged) {
    this->write(1);
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).valid());
    this->agent.settle();
    EXPECT_EQ(this->table->transientAddEntry(this->key(1)), nullptr);
    EXPECT_FALSE(this->table->transientVersionForKey(this->key(1)).valid());
    this->table->assertConsistent();
}

TYPED_TEST(WriteCommit, OfAnOlderChangeLeavesTheLaterOneStaged) {
    this->write(1, 1);
    this->write(1, 2);
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1, 1, {0, 0})));
    ASSERT_NE(this->table->transientAddEntry(this->key(1)), nullptr);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 2));
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({1, 0}));
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1, 2, {1, 0})));
    EXPECT_EQ(this->table->transientAddEntry(this->key(1)), nullptr);
    EXPECT_FALSE(this->table->transientVersionForKey(this->key(1)).valid());
}

TYPED_TEST(WriteCommit, LeavesALaterRemoveStaged) {
    this->write(1);
    this->remove(1);
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1, 0, {0, 0})));
    EXPECT_NE(this->table->transientRemoveEntry(this->key(1)), nullptr);
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(1)).isEq({1, 0}));
}

TYPED_TEST(WriteCommit, WithNothingStagedClearsNothing) {
    this->write(1);
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(2)));
    EXPECT_NE(this->table->transientAddEntry(this->key(1)), nullptr);
}

TYPED_TEST(WriteCommit, LetsTheHookStageTheNextChangeOfTheKey) {
    struct Rewriting final : SwTableHelperBase<TypeParam> {
        void finalizeOnSuccess(const typename SwTableHelperBase<TypeParam>::WrapperPtr& wrapper,
                               bool,
                               const typename SwTableHelperBase<TypeParam>::TablePtr&) override {
            if (std::exchange(done, true))
                return;
            table->entryWrite(wrapper->key(), entryOf<TypeParam>(1, 8), nullptr);
        }
        typename TypeParam::SwTable* table = nullptr;
        bool done = false;
    };
    const auto helper = Brumo::make<Rewriting>();
    helper->table = this->table.get();
    this->table->swTableHelperIs(helper);
    this->committed(1, 1);
    EXPECT_EQ(this->version(), 2U);
    EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1, 8));
    EXPECT_FALSE(this->table->transientVersionForKey(this->key(1)).valid());
}

TYPED_TEST(WriteCommit, AnswersMayCallBackIntoTheTable) {
    this->table->entryWriteWithResponseHandler(
        this->key(1), this->entry(1), nullptr,
        [&](const Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>&) { this->remove(1); });
    this->agent.settle();
    this->agent.acknowledgeAll();
    this->agent.settle();
    EXPECT_FALSE(this->table->entryHas(this->key(1)));
    EXPECT_EQ(this->version(), 2U);
    this->table->assertConsistent();
}

// Assertions.

template <class B>
class CommitDeath : public SwTableFixture<B> {};
TYPED_TEST_SUITE(CommitDeath, AllBindings, TableName);

TYPED_TEST(CommitDeath, WhenAChangeDeletesAnEntryAndTheTable) {
    const auto change = this->change(static_cast<Asic::EntryFlags>(3), this->wrapper(1));
    EXPECT_DEATH(this->commit(change),
                 R"(assertion failed: !\( isEntryDelete && isTableDelete \))");
}

TYPED_TEST(CommitDeath, WhenAChangeHasNoHandle) {
    const auto wrapper = Brumo::make<typename TypeParam::EntryWrapper>(this->entry(1), nullptr);
    EXPECT_DEATH(this->commit(this->change(Asic::EntryFlags::write, wrapper)),
                 "assertion failed: entryHandle != NULL");
}

TYPED_TEST(CommitDeath, WhenAWriteOrRemoveHasNoVersion) {
    const auto wrapper = this->wrapper(1, 0, Asic::EntryVersion{});
    for (const auto flags : {Asic::EntryFlags::write, Asic::EntryFlags::entryDelete}) {
        EXPECT_DEATH(this->commit(this->change(flags, wrapper)),
                     R"(assertion failed: entryConfVersion\.valid\(\))");
    }
}

TYPED_TEST(CommitDeath, WhenARemoveAllWasNotStaged) {
    EXPECT_DEATH(this->commit(this->change(Asic::EntryFlags::tableDelete, this->wrapper(0))),
                 R"(assertion failed: currRemoveAllVersion\.valid\(\))");
}

}  // namespace
