// Deleting all committed entries: by a committed remove-all and by clearing the table.
#include <gtest/gtest.h>

#include "swtable/RestorePath.h"
#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

/// The engine's operation with the linkages of the table, in their order.
void delAllEntries(PolicyCpuTcamActionSwTable& table, bool releaseResources,
                   const Brumo::Ptr<const Asic::NeededEntry>& needed,
                   Brumo::Ptr<PolicyCpuTcamActionSwTable::EntryHandle>& handle) {
    OrderedSwTableAccessor<PolicyCpuTcamActionBinding>::delAllEntries(
        table, releaseResources, needed, handle, table.crpsIndexRequestLinkage(),
        table.policerIndexRequestLinkage());
}
template <class B>
void delAllEntries(SwTable<B>& table, bool releaseResources,
                   const Brumo::Ptr<const Asic::NeededEntry>& needed,
                   Brumo::Ptr<typename SwTable<B>::EntryHandle>& handle) {
    OrderedSwTableAccessor<B>::delAllEntries(table, releaseResources, needed, handle);
}

template <class B>
class DeleteAll : public SwTableFixture<B> {
protected:
    typename SwTableFixture<B>::HandlePtr none;
};
TYPED_TEST_SUITE(DeleteAll, AllBindings, TableName);

TYPED_TEST(DeleteAll, WritesOneRecordAndCountsIt) {
    this->committed(1);
    this->committed(2);
    const TraceCapture traces;
    delAllEntries(*this->table, false, nullptr, this->none);
    EXPECT_TRUE(traces.has(this->name(), 8, " releaseResources: false, neededEntry:null "));
    EXPECT_EQ(this->version(), 3U);
    EXPECT_EQ(this->record(3)->operation, LogOperation::allDeleted);
    EXPECT_EQ(this->record(3)->unitId, this->table->unitId());
    EXPECT_EQ(this->table->stats()->tableClearCnt(), 1U);
    EXPECT_EQ(this->table->entrys(), 0U);
    EXPECT_EQ(this->none, nullptr) << "nothing needed a handle";
}

TYPED_TEST(DeleteAll, GivesAHandleItsVersionAndState) {
    this->committed(1);
    const auto given = this->handle(7);
    auto handle = given;
    const auto needed = Brumo::make<Asic::NeededEntry>();
    needed->add({ForeignChange::kTableId, {8}});
    const TraceCapture traces;
    delAllEntries(*this->table, true, needed, handle);
    EXPECT_TRUE(
        traces.has(this->name(), 8, " releaseResources: true, neededEntry:{2c:01:0007@8} "));
    EXPECT_EQ(handle, given);
    EXPECT_EQ(handle->logVersion().value, 2U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    ASSERT_EQ(this->neededOf(2).size(), 1U);
    EXPECT_EQ(this->neededOf(2)[0].version, 8U);
}

TYPED_TEST(DeleteAll, WithReleaseSharesTheHandleThatTheFirstEntryMakes) {
    this->committed(1);
    this->committed(2);
    std::vector<typename TypeParam::Key> keys;
    this->table->forEach([&](const auto& entry) { keys.push_back(entry.key); });
    delAllEntries(*this->table, true, nullptr, this->none);
    ASSERT_NE(this->none, nullptr);
    EXPECT_TRUE(this->none->key().isEq(keys[0]));
    EXPECT_EQ(this->none->logVersion().value, 3U);
    EXPECT_EQ(this->none->entryState(), Asic::EntryState::written);
}

TYPED_TEST(DeleteAll, WithReleaseVisitsLiveEntriesOnly) {
    this->committed(1);
    this->committed(2);
    this->remove(1);
    this->agent.settle();
    const TraceCapture traces;
    delAllEntries(*this->table, true, nullptr, this->none);
    EXPECT_EQ(traces.count(this->name(), 8, "key: " + this->text(2) + ", refreshRsrcPtrs: false"),
              1U);
    EXPECT_EQ(callsOf(traces, this->name(), "entryWrapperFromConfig"), 1U);
}

TYPED_TEST(DeleteAll, OfAUnitWithoutRecordsDoesNothing) {
    const auto given = this->handle(7);
    auto handle = given;
    delAllEntries(*this->table, true, nullptr, handle);
    EXPECT_EQ(this->version(), 0U);
    EXPECT_EQ(given->entryState(), Asic::EntryState::created);
    EXPECT_EQ(given->logVersion().value, 0U);
    EXPECT_EQ(this->table->stats()->tableClearCnt(), 0U);
}

TYPED_TEST(DeleteAll, OfAUnitWithKeysInDeletionIsWritten) {
    this->committed(1);
    this->remove(1);
    this->agent.settle();
    delAllEntries(*this->table, true, nullptr, this->none);
    EXPECT_EQ(this->version(), 3U);
    EXPECT_EQ(this->none, nullptr);
}

TYPED_TEST(DeleteAll, OfAUnitWithoutConfigurationDoesNothing) {
    this->committed(1);
    this->table->entryLog()->tableConfigShimoDel(this->table->unitId());
    const auto given = this->handle(7);
    auto handle = given;
    delAllEntries(*this->table, true, nullptr, handle);
    EXPECT_EQ(this->version(), 1U);
    EXPECT_EQ(given->entryState(), Asic::EntryState::created);
}

TYPED_TEST(DeleteAll, LeavesOtherUnitsAlone) {
    this->committed(1);
    const auto other = tableOf<TypeParam>(this->agent, 2);
    other->entryWrite(this->key(1), this->entry(1), nullptr);
    this->agent.settle();
    this->table->clearTable(true);
    EXPECT_EQ(this->table->entrys(), 0U);
    EXPECT_EQ(other->entrys(), 1U);
}

TYPED_TEST(DeleteAll, GoesOnBehindARottenEntryAndIsWritten) {
    for (std::uint32_t number : {1U, 2U, 3U})
        this->committed(number);
    std::vector<typename TypeParam::Key> keys;
    this->table->forEach([&](const auto& entry) { keys.push_back(entry.key); });
    spoilEntry(*this->config(), keys[1]);
    const TraceCapture traces;
    delAllEntries(*this->table, true, nullptr, this->none);
    EXPECT_EQ(callsOf(traces, this->name(), "entryWrapperFromConfig"), 2U);
    EXPECT_GE(this->config()->corruptions(), 1U);
    EXPECT_EQ(this->record(4)->operation, LogOperation::allDeleted);
}

TYPED_TEST(DeleteAll, ByClearingNeedsNothing) {
    this->committed(1);
    this->table->clearTable(false);
    EXPECT_TRUE(this->neededOf(2).empty());
    EXPECT_EQ(this->table->stats()->commitCnt(), 1U);
}

// Resources of actions.

class ClearedActions : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    ClearedActions() {
        table->entryWrite(actionKey(1), actionEntry(1, 5, 6), nullptr);
        table->entryWrite(actionKey(2), actionEntry(2, 5, 7), nullptr);
        agent.settle();
        agent.acknowledgeAll();
    }
    std::size_t releases(const TraceCapture& traces) {
        return callsOf(traces, "CrpsIndexRequestResourceTable", "release") +
               callsOf(traces, "PolicerIndexRequestResourceTable", "release");
    }
};

TEST_F(ClearedActions, WithoutReleaseKeepTheLinkagesAsTheyAre) {
    const TraceCapture traces;
    table->clearTable(false);
    EXPECT_EQ(releases(traces), 0U);
    EXPECT_EQ(table->crpsIndexRequestLinkage()->entryUsageSms(), 1U);
    EXPECT_EQ(table->policerIndexRequestLinkage()->entryUsageSms(), 2U);
    EXPECT_EQ(callsOf(traces, name(), "entryWrapperFromConfig"), 0U);
}

TEST_F(ClearedActions, WithReleaseGiveEachResourceUpOnce) {
    const TraceCapture traces;
    table->clearTable(true);
    EXPECT_EQ(releases(traces), 3U);
    EXPECT_EQ(table->crpsIndexRequestLinkage()->entryUsageSms(), 0U);
    EXPECT_EQ(table->policerIndexRequestLinkage()->entryUsageSms(), 0U);
}

TEST_F(ClearedActions, ReturnTheirIndexesWhenTheHardwareSideHasTheDeletion) {
    table->clearTable(true);
    agent.settle();
    EXPECT_EQ(agent.counters()->pool().returning, 1U);
    EXPECT_EQ(agent.policers()->pool().returning, 2U);
    agent.acknowledgeAll();
    EXPECT_EQ(agent.counters()->pool().returning, 0U);
    EXPECT_EQ(agent.policers()->pool().returning, 0U);
    EXPECT_EQ(agent.policers()->pool().used, 0U);
}

TEST_F(ClearedActions, ByARemoveAllReturnTheirIndexesToo) {
    table->entryRemoveAll(nullptr);
    agent.settle();
    EXPECT_EQ(agent.policers()->pool().returning, 2U);
    agent.acknowledgeAll();
    EXPECT_EQ(agent.policers()->pool().returning, 0U);
}

}  // namespace
