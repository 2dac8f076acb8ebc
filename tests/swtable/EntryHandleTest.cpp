// The handle of one change: what it knows, what it publishes, what it traces.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using HandleBase = Asic::OrderedSwTable::EntryHandle;

template <class B>
class EntryHandleOf : public SwTableFixture<B> {};
TYPED_TEST_SUITE(EntryHandleOf, AllBindings, TableName);

TYPED_TEST(EntryHandleOf, HoldsWhatItIsMadeOf) {
    const auto handle = entryHandleFactory<TypeParam>({4, 7}, this->key(3), this->table.get());
    EXPECT_TRUE(handle->entryVersion().isEq({4, 7}));
    EXPECT_TRUE(handle->key().isEq(this->key(3)));
    EXPECT_EQ(handle->swTable(), this->table.get());
    EXPECT_FALSE(handle->responseHandler());
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_EQ(handle->logVersion().value, 0U);
}

TYPED_TEST(EntryHandleOf, IsMadeAgainFromTheSame) {
    const auto handle = EntryHandleIs<TypeParam>({4, 7}, this->key(3), this->table.get());
    EXPECT_TRUE(handle->entryVersion().isEq({4, 7}));
    EXPECT_TRUE(handle->key().isEq(this->key(3)));
    EXPECT_EQ(handle->swTable(), this->table.get());
    EXPECT_FALSE(handle->responseHandler());
}

TYPED_TEST(EntryHandleOf, HoldsNoReferenceOnItsTable) {
    const auto users = this->table->users();
    const auto handle = this->handle(1);
    EXPECT_EQ(this->table->users(), users);
}

TYPED_TEST(EntryHandleOf, PublishesAnotherTableWithTheOldOne) {
    using TableType = typename TypeParam::SwTable;
    const auto handle = this->handle(1);
    std::vector<TableType*> olds;
    const auto subscription = handle->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == HandleBase::kSwTable)
            olds.push_back(change.oldAs<TableType*>());
    });
    handle->swTableIs(this->table.get());
    EXPECT_TRUE(olds.empty()) << "nothing has changed";
    handle->swTableIs(nullptr);
    EXPECT_EQ(handle->swTable(), nullptr);
    handle->swTableIs(this->table.get());
    EXPECT_EQ(olds, (std::vector<TableType*>{this->table.get(), nullptr}));
}

TYPED_TEST(EntryHandleOf, PublishesALogVersionWithTheOldOne) {
    const auto handle = this->handle(1);
    std::vector<std::uint64_t> olds;
    const auto subscription = handle->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == HandleBase::kLogVersion)
            olds.push_back(change.oldAs<Asic::LogVersion>().value);
    });
    handle->logVersionIs({});
    handle->logVersionIs({5});
    handle->logVersionIs({5});
    handle->logVersionIs({6});
    EXPECT_EQ(olds, (std::vector<std::uint64_t>{0, 5}));
}

TYPED_TEST(EntryHandleOf, PublishesAStateWithTheOldOne) {
    const auto handle = this->handle(1);
    std::vector<Asic::EntryState> olds;
    const auto subscription = handle->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == Asic::DependencyEntryHandle::kEntryState)
            olds.push_back(change.oldAs<Asic::EntryState>());
    });
    handle->entryStateIs(Asic::EntryState::created);
    handle->entryStateIs(Asic::EntryState::written);
    handle->entryStateIs(Asic::EntryState::complete);
    EXPECT_EQ(olds, (std::vector{Asic::EntryState::created, Asic::EntryState::written}));
}

TYPED_TEST(EntryHandleOf, GivesItsVersionInItsTablesLog) {
    const auto handle = this->handle(1);
    handle->logVersionIs({12});
    EXPECT_EQ(handle->entryTableVersion(), (Asic::TableVersion{TypeParam::kTableId, {12}}));
}

TYPED_TEST(EntryHandleOf, GivesItsTablesIdentityAndTracesThat) {
    const auto handle = this->handle(1);
    const TraceCapture traces;
    EXPECT_EQ(handle->tableId(), TypeParam::kTableId);
    EXPECT_EQ(traces.lines(),
              (std::vector<TraceLine>{{8, this->name(), "EntryHandle", "tableId", ""}}));
}

TYPED_TEST(EntryHandleOf, GivesItsTablesCanonicalNameAndTracesThat) {
    const auto handle = this->handle(1);
    ASSERT_NE(this->table->canonicalTableName(), nullptr);
    const TraceCapture traces;
    EXPECT_EQ(handle->tableName(), this->table->canonicalTableName()->name());
    EXPECT_EQ(traces.lines(),
              (std::vector<TraceLine>{{8, this->name(), "EntryHandle", "tableName", ""}}));
}

TYPED_TEST(EntryHandleOf, GivesAnEmptyNameForATableWithoutANameObject) {
    const auto nameless = Brumo::make<typename TypeParam::SwTable>(
        nullptr, TypeParam::kTableId, Asic::UnitId{1}, nullptr, nullptr, nullptr);
    const auto handle = entryHandleFactory<TypeParam>({0, 0}, this->key(1), nameless.get());
    EXPECT_EQ(handle->tableName(), "");
}

TYPED_TEST(EntryHandleOf, KnowsItsTablesIdentityWhenTheTableHasGone) {
    auto swTable = Brumo::make<typename TypeParam::SwTable>(
        nullptr, TypeParam::kTableId, Asic::UnitId{1}, nullptr, nullptr, nullptr);
    const auto handle = entryHandleFactory<TypeParam>({0, 0}, this->key(1), swTable.get());
    swTable = nullptr;
    EXPECT_EQ(handle->tableId(), TypeParam::kTableId);
}

}  // namespace
