// Reads, membership and counts: what is staged lies over what is committed.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class Reads : public SwTableFixture<B> {};
TYPED_TEST_SUITE(Reads, AllBindings, TableName);

TYPED_TEST(Reads, GiveTheStagedEntryFirst) {
    this->committed(1, 5);
    this->write(1, 6);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 6));
    EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1, 5));
}

TYPED_TEST(Reads, GiveTheCommittedEntry) {
    this->committed(1, 5);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 5));
    EXPECT_EQ(this->table->entry(this->key(1)), this->entry(1, 5));
}

TYPED_TEST(Reads, GiveTheDefaultEntryForAnAbsentKeyAndTraceIt) {
    const TraceCapture traces;
    EXPECT_TRUE(this->table->entryRead(this->key(1)).isEq(typename TypeParam::Entry{}));
    EXPECT_EQ(traces.texts(this->name(), 1),
              std::vector<std::string>{"Failed to find entry for key: " + this->text(1)});
}

TYPED_TEST(Reads, GiveTheDefaultEntryForAKeyThatIsBeingRemoved) {
    this->committed(1);
    this->remove(1);
    const TraceCapture traces;
    EXPECT_TRUE(this->table->entryRead(this->key(1)).isEq(typename TypeParam::Entry{}));
    EXPECT_TRUE(traces.has(this->name(), 1, "Failed to find entry for key: " + this->text(1)));
    EXPECT_FALSE(this->table->entryHas(this->key(1)));
}

TYPED_TEST(Reads, GiveTheDefaultEntryForAKeyInDeletion) {
    this->committed(1);
    this->remove(1);
    this->agent.settle();
    EXPECT_TRUE(this->config()->swTableEntries(this->key(1))->inDeletion);
    EXPECT_TRUE(this->table->entryRead(this->key(1)).isEq(typename TypeParam::Entry{}));
    EXPECT_TRUE(this->table->entryFromConfig(this->key(1)).isEq(typename TypeParam::Entry{}));
    EXPECT_FALSE(this->table->entryHas(this->key(1)));
}

TYPED_TEST(Reads, DoNotAskForAPendingRemoveAll) {
    this->committed(1, 5);
    this->table->entryRemoveAll(nullptr);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 5));
    EXPECT_FALSE(this->table->entryHas(this->key(1))) << "unlike the membership test";
}

TYPED_TEST(Reads, TraceTheKeyUnderOneNameHoweverTheyAreCalled) {
    this->committed(1);
    for (const bool byShortName : {false, true}) {
        const TraceCapture traces;
        if (byShortName) {
            this->table->entry(this->key(1));
        } else {
            this->table->entryRead(this->key(1));
        }
        const TraceLine expected{8, this->name(), this->name(), "entryRead",
                                 " key: " + this->text(1)};
        ASSERT_FALSE(traces.lines().empty());
        EXPECT_EQ(traces.lines()[0], expected);
        EXPECT_EQ(callsOf(traces, this->name(), "entryReadGeneric"), 1U);
    }
}

TYPED_TEST(Reads, FromTheConfigurationTraceTheKey) {
    const TraceCapture traces;
    this->table->entryFromConfig(this->key(1));
    EXPECT_TRUE(traces.has(this->name(), 8, "key: " + this->text(1)));
    EXPECT_TRUE(traces.texts(this->name(), 1).empty()) << "absence is no failure here";
}

template <class B>
class Membership : public SwTableFixture<B> {};
TYPED_TEST_SUITE(Membership, AllBindings, TableName);

TYPED_TEST(Membership, OfAStagedKeyIsGivenEvenBehindARemoveAll) {
    this->table->entryRemoveAll(nullptr);
    this->write(1);
    EXPECT_TRUE(this->table->entryHas(this->key(1)));
}

TYPED_TEST(Membership, OfACommittedKeyIsGiven) {
    this->committed(1);
    const TraceCapture traces;
    EXPECT_TRUE(this->table->entryHas(this->key(1)));
    EXPECT_FALSE(this->table->entryHas(this->key(2)));
    EXPECT_TRUE(traces.has(this->name(), 8, "key: " + this->text(2)));
}

TYPED_TEST(Membership, IsOfThisUnitOnly) {
    this->committed(1);
    const auto other = tableOf<TypeParam>(this->agent, 2);
    EXPECT_FALSE(other->entryHas(this->key(1)));
    EXPECT_EQ(other->entrys(), 0U);
}

template <class B>
class Count : public SwTableFixture<B> {};
TYPED_TEST_SUITE(Count, AllBindings, TableName);

TYPED_TEST(Count, OfAnEmptyTableIs0) {
    EXPECT_EQ(this->table->entrys(), 0U);
}

TYPED_TEST(Count, AddsStagedWritesOfNewKeysOnly) {
    this->committed(1);
    this->committed(2);
    this->write(2, 7);
    this->write(3);
    EXPECT_EQ(this->table->entrys(), 3U);
}

TYPED_TEST(Count, TakesStagedRemovesOfCommittedKeysAway) {
    this->committed(1);
    this->committed(2);
    this->remove(2);
    this->remove(3);
    EXPECT_EQ(this->table->entrys(), 1U);
}

TYPED_TEST(Count, LeavesKeysInDeletionOut) {
    this->committed(1);
    this->committed(2);
    this->remove(1);
    this->agent.settle();
    EXPECT_EQ(this->table->entrys(), 1U);
    this->write(1);
    EXPECT_EQ(this->table->entrys(), 2U) << "written again it counts as new";
    this->remove(1);
    EXPECT_EQ(this->table->entrys(), 1U);
}

TYPED_TEST(Count, IsOfTheStagedWritesOnlyBehindARemoveAll) {
    this->committed(1);
    this->committed(2);
    this->committed(3);
    this->table->entryRemoveAll(nullptr);
    EXPECT_EQ(this->table->entrys(), 0U);
    this->write(1);
    this->write(9);
    this->remove(8);
    EXPECT_EQ(this->table->entrys(), 2U);
}

// What the hardware side has consumed.

template <class B>
class TableStatus : public SwTableFixture<B> {
protected:
    /// Handles of three changes, at versions 1 to 3.
    auto threeChanges(Answers& answers) {
        std::vector<Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>> handles;
        for (std::uint32_t number = 1; number <= 3; ++number) {
            handles.push_back(this->table->entryWriteWithResponseHandler(
                this->key(number), this->entry(number), nullptr, answers.handler()));
        }
        this->agent.settle();
        return handles;
    }
};
TYPED_TEST_SUITE(TableStatus, AllBindings, TableName);

TYPED_TEST(TableStatus, CompletesHandlesUpToTheVersionInOrder) {
    Answers answers;
    const auto handles = this->threeChanges(answers);
    const TraceCapture traces;
    this->table->tableStatusVersion({2});
    EXPECT_EQ(handles[0]->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(handles[1]->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(handles[2]->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->table->entryHandleInLogFront(), handles[2]);
    EXPECT_EQ(answers.count, 2);
    EXPECT_EQ(answers.last, handles[1]);
    EXPECT_TRUE(traces.has(this->name(), 8, "tableVersion: 2"));
    EXPECT_EQ(traces.count(this->name(), 3, "Processing version: 1, key: " + this->text(1)), 1U);
    EXPECT_EQ(traces.count(this->name(), 3, "Processing version: 2, key: " + this->text(2)), 1U);
    EXPECT_EQ(traces.count(this->name(), 3, "Processing version: 3, key: " + this->text(3)), 0U);
}

TYPED_TEST(TableStatus, CleansTheLogUpToTheVersionFirst) {
    Answers answers;
    this->threeChanges(answers);
    std::uint64_t cleanedAtAnswer = 0;
    this->table->entryWriteWithResponseHandler(
        this->key(4), this->entry(4), nullptr,
        [&](const Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>&) {
            cleanedAtAnswer = this->table->entryLog()->cleanedUpTo().value;
        });
    this->agent.settle();
    this->table->tableStatusVersion({4});
    EXPECT_EQ(cleanedAtAnswer, 4U);
    EXPECT_EQ(this->changeLog().entryLogConfigs(), 0U);
}

TYPED_TEST(TableStatus, TellsTheResolverThatSomethingMayHaveMoved) {
    const auto before = this->table->groupResolver()->genId();
    this->table->tableStatusVersion({0});
    EXPECT_EQ(this->table->groupResolver()->genId(), before + 1);
}

TYPED_TEST(TableStatus, TurnsPendingWritesOffWhenAllIsConsumed) {
    Answers answers;
    this->threeChanges(answers);
    EXPECT_TRUE(this->table->status()->pendingHwWrites());
    this->table->tableStatusVersion({2});
    EXPECT_TRUE(this->table->status()->pendingHwWrites());
    this->table->tableStatusVersion({3});
    EXPECT_FALSE(this->table->status()->pendingHwWrites());
}

TYPED_TEST(TableStatus, CompletesAHandleWithoutHandler) {
    const auto handle = this->write(1);
    this->agent.settle();
    this->table->tableStatusVersion({1});
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr);
}

TYPED_TEST(TableStatus, AnswersMayStageChanges) {
    this->table->entryWriteWithResponseHandler(
        this->key(1), this->entry(1), nullptr,
        [&](const Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>&) { this->write(2); });
    this->write(3);
    this->agent.settle();
    this->table->tableStatusVersion({2});
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr);
    this->agent.settle();
    EXPECT_TRUE(this->table->entryFromConfig(this->key(2)).isEq(this->entry(2)));
}

}  // namespace
