#include <gtest/gtest.h>

#include "platform/asic/OrderedSwTableSet.h"
#include "tests/platform/asic/Fakes.h"

namespace AsicTests {
namespace {

class TableSetTest : public testing::Test {
protected:
    Brumo::Ptr<FakeTable> addTable(std::uint16_t unit) {
        auto table = Brumo::make<FakeTable>(nullptr, kTable, unit, set_.get());
        set_->swTableIs(table);
        return table;
    }

    Brumo::Ptr<Asic::OrderedSwTableStatus> status_ =
        Brumo::make<Asic::OrderedSwTableStatus>(kTable);
    Brumo::Ptr<Asic::OrderedSwTableSet> set_ =
        Brumo::make<Asic::OrderedSwTableSet>(kTable, status_);
};

TEST_F(TableSetTest, FindsTablesByUnit) {
    const auto table = addTable(3);
    EXPECT_TRUE(set_->swTableHas({3}));
    EXPECT_EQ(set_->swTable({3}).get(), table.get());
    EXPECT_EQ(set_->swTable({4}), nullptr);
    set_->swTableDel({3});
    EXPECT_FALSE(set_->swTableHas({3}));
}

TEST_F(TableSetTest, IsPendingWhileAnyTableIs) {
    const auto first = addTable(1);
    const auto second = addTable(2);
    second->pending = true;
    set_->maybeUpdatePendingHwWrites();
    EXPECT_TRUE(status_->pendingHwWrites());
    second->pending = false;
    set_->maybeUpdatePendingHwWrites();
    EXPECT_FALSE(status_->pendingHwWrites());
}

TEST_F(TableSetTest, KeepsItsStatusWhileThereIsNoTable) {
    status_->pendingHwWritesIs(true);
    set_->maybeUpdatePendingHwWrites();
    EXPECT_TRUE(status_->pendingHwWrites());
}

TEST_F(TableSetTest, PublishesTheStatusOnlyWhenItChanges) {
    std::vector<bool> before;
    const auto subscription = status_->publisher().subscribe([&](const Kiv::Change& change) {
        EXPECT_EQ(change.attribute, Asic::OrderedSwTableStatus::kPendingHwWrites);
        before.push_back(change.oldAs<bool>());
    });
    const auto table = addTable(1);
    set_->maybeUpdatePendingHwWrites();
    table->pending = true;
    set_->maybeUpdatePendingHwWrites();
    set_->maybeUpdatePendingHwWrites();
    table->pending = false;
    set_->maybeUpdatePendingHwWrites();
    EXPECT_EQ(before, (std::vector<bool>{false, true}));
}

TEST_F(TableSetTest, IsForgottenByItsTablesWhenItGoes) {
    const auto table = addTable(1);
    EXPECT_EQ(table->tableSet(), set_.get());
    set_ = nullptr;
    EXPECT_EQ(table->tableSet(), nullptr);
}

}  // namespace
}  // namespace AsicTests
