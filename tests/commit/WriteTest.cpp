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

/// Hooks that ask for a pause, which nobody takes up but the engine.
template <class B>
struct PausingHelper final : SwTableHelperBase<B> {
    using Base = SwTableHelperBase<B>;
    void finalizeOnSuccess(const typename Base::WrapperPtr&, bool,
                           const typename Base::TablePtr& swTable) override {
        swTable->groupResolver()->suspendRequestedIs(true);
        suspendedAtHook = swTable->groupResolver()->suspended();
    }
    bool suspendedAtHook = false;
};

TYPED_TEST(WriteCommit, TakesUpAPauseThatTheHookAskedForRightAfterIt) {
    const auto helper = Brumo::make<PausingHelper<TypeParam>>();
    this->table->swTableHelperIs(helper);
    const auto first = this->write(1);
    const auto second = this->write(2);
    const auto resolver = this->table->groupResolver();
    this->agent.settle();
    EXPECT_TRUE(resolver->suspended());
    EXPECT_FALSE(helper->suspendedAtHook);
    EXPECT_EQ(first->entryState(), Asic::EntryState::written);
    EXPECT_EQ(second->entryState(), Asic::EntryState::created);
    resolver->suspendRequestedIs(false);
    resolver->maybeUpdateSuspend();
    this->agent.settle();
    EXPECT_EQ(second->entryState(), Asic::EntryState::written);
}

TYPED_TEST(WriteCommit, TakesAPauseUpBeforeItTellsTheFamily) {
    this->table->swTableHelperIs(Brumo::make<PausingHelper<TypeParam>>());
    const auto& resolver = this->table->groupResolver();
    std::vector<std::string> order;
    const auto status = this->table->status()->publisher().subscribe(
        [&](const Kiv::Change&) { order.push_back("family"); });
    const auto suspended =
        resolver->publisher().subscribe([&](const Kiv::Change&) { order.push_back("resolver"); });
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(1)));
    EXPECT_EQ(order, (std::vector<std::string>{"resolver", "family"}));
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

// A full configuration.

template <class B>
class FullConfiguration : public SwTableFixture<B> {
protected:
    /// Takes a unit whose configuration is small, and fills it; `last` is the first without room.
    void SetUp() override {
        const std::uint64_t before = KivShimo::EntityManager::capacityCeiling();
        KivShimo::EntityManager::capacityCeilingIs(4);
        this->table = tableOf<B>(this->agent, 2);
        KivShimo::EntityManager::capacityCeilingIs(before);
        for (; last <= 4; ++last)
            this->committed(last);
        this->acknowledged();
        ASSERT_FALSE(this->table->entryLog()->entryHasRoom(this->key(last), this->table->unitId()));
    }
    void acknowledged() {
        this->agent.acknowledgeAll();
        this->agent.settle();
    }

    std::uint32_t last = 1;
};
TYPED_TEST_SUITE(FullConfiguration, AllBindings, TableName);

TYPED_TEST(FullConfiguration, FailsTheWriteOfANewKeyBeforeAnythingIsDoneForIt) {
    const auto helper = this->notingHelper();
    helper->commitFailed = 1;  // no hook can have committed what has no room
    const std::uint64_t before = this->version();
    const std::uint64_t commits = this->table->stats()->commitCnt();
    Answers answers;
    const TraceCapture traces;
    const auto handle = this->table->entryWriteWithResponseHandler(
        this->key(this->last), this->entry(this->last), nullptr, answers.handler());
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::failed);
    EXPECT_EQ(answers.count, 1);
    EXPECT_EQ(answers.last, handle);
    EXPECT_EQ(helper->calls, std::vector<std::string>{"failure"});
    EXPECT_TRUE(helper->stagedAtHook);
    EXPECT_EQ(this->version(), before);
    EXPECT_EQ(handle->logVersion().value, 0U);
    EXPECT_TRUE(
        traces.has(this->name(), 1, "Failed to commit entry key: " + this->text(this->last)));
    EXPECT_EQ(this->table->transientAddEntrys(), 0U);
    EXPECT_EQ(this->table->transientVersionForKeys(), 0U);
    EXPECT_EQ(this->table->stats()->commitCnt(), commits + 1);
    EXPECT_EQ(this->table->stats()->resolveFailCnt(), 0U);
    EXPECT_FALSE(this->table->status()->pendingHwWrites());
    this->acknowledged();
    EXPECT_EQ(answers.count, 1);
    this->table->assertConsistent();
}

TYPED_TEST(FullConfiguration, LeavesALaterChangeOfTheKeyStaged) {
    this->write(this->last);
    this->remove(this->last);
    this->commit(this->change(Asic::EntryFlags::write, this->wrapper(this->last, 0, {0, 0})));
    EXPECT_NE(this->table->transientRemoveEntry(this->key(this->last)), nullptr);
    EXPECT_TRUE(this->table->transientVersionForKey(this->key(this->last)).isEq({1, 0}));
}

TYPED_TEST(FullConfiguration, StillTakesANewValueOfAKeyThatItHas) {
    const auto helper = this->notingHelper();
    const auto handle = this->write(1, 7);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(helper->calls, std::vector<std::string>{"success"});
    EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1, 7));
}

TYPED_TEST(FullConfiguration, TakesANewKeyOnceAnotherWasRemovedAndCleanedUp) {
    this->committed(this->last);
    EXPECT_FALSE(this->table->entryHas(this->key(this->last)));
    this->remove(1);
    this->agent.settle();
    this->acknowledged();
    const auto handle = this->write(this->last);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->table->entryFromConfig(this->key(this->last)), this->entry(this->last));
    this->acknowledged();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
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
