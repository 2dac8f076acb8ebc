// A further table costs a header of types and a binding: this one has no more, and the whole engine
// runs on it.
#include <gtest/gtest.h>

#include <set>

#include "interface/InterfaceImpl.h"
#include "swtable/SwTableImpl.h"
#include "tests/fourthtable/QueueShareBinding.h"
#include "tests/support/InProcessAgent.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace VornPolicyCpu;

using Family = Interface<QueueShareBinding>;
using Table = QueueShareBinding::SwTable;
using HandlePtr = Brumo::Ptr<const SwTable<QueueShareBinding>::EntryHandle>;

const ShimoTypes<QueueShareTypes> shimoTypes;

QueueShareEntry entryOf(std::uint32_t port, std::uint32_t counter) {
    QueueShareEntry entry;
    entry.key = {port, 1};
    entry.counterRequestKey.requestId = counter;
    entry.share = 10 * port;
    return entry;
}

class FourthTable : public testing::Test {
protected:
    FourthTable() : FourthTable({.capacityCeiling = 1024, .counters = 4, .policers = 4}) {}
    explicit FourthTable(const TestSupport::InProcessAgent::Options& options) : agent_(options) {
        open();
    }
    ~FourthTable() override { close(); }
    FourthTable(const FourthTable&) = delete;
    FourthTable& operator=(const FourthTable&) = delete;

    void open() {
        table_ = Family::getIntf(agent_.orderedTableIntf())->makeSwTable({1}, {}, false);
    }
    void close() {
        table_ = nullptr;
        TestSupport::endFamily(Family::registryName());
    }
    void restart() {
        close();
        agent_.restart();
        open();
    }

    HandlePtr write(std::uint32_t port, std::uint32_t counter) {
        const auto entry = entryOf(port, counter);
        return table_->entryWriteWithResponseHandler(
            entry.key, entry, nullptr, [this, port](const auto&) { answered_.insert(port); });
    }
    QueueShareEntry committed(std::uint32_t port) { return table_->entryFromConfig({port, 1}); }
    void acknowledgeAll() {
        agent_.acknowledge(QueueShareBinding::kTableId, table_->logVersion().value);
    }

    TestSupport::InProcessAgent agent_;
    Brumo::Ptr<Table> table_;
    std::multiset<std::uint32_t> answered_;
};

TEST_F(FourthTable, WaitsForItsResourceCommitsAndIsAnsweredWhenAcknowledged) {
    const auto handle = write(3, 7);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_EQ(handle->tableName(), "OrderedSwTable.VornPolicyCpu.QueueShare");
    agent_.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(committed(3).share, 30U);
    EXPECT_EQ(committed(3).counterIndex, agent_.counters()->keys().at(0).index);
    EXPECT_TRUE(answered_.empty());
    acknowledgeAll();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(answered_, std::multiset<std::uint32_t>{3});
    EXPECT_FALSE(table_->hasPendingHwWrites());
    table_->assertConsistent();
}

TEST_F(FourthTable, FailsWhenNoResourceIsLeft) {
    for (std::uint32_t port = 1; port <= 4; ++port)
        write(port, port);
    agent_.settle();
    const auto handle = write(5, 5);
    agent_.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::failed);
    EXPECT_EQ(table_->entrys(), 4U);
    EXPECT_EQ(table_->stats()->resolveFailCnt(), 1U);
}

TEST_F(FourthTable, RemovesAKeyAndReleasesItsResource) {
    write(1, 1);
    agent_.settle();
    const auto handle = table_->entryRemove({1, 1}, nullptr);
    EXPECT_FALSE(table_->entryHas({1, 1}));
    agent_.settle();
    acknowledgeAll();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(table_->entrys(), 0U);
    EXPECT_EQ(agent_.counters()->pool(), (Asic::ResourcePoolFigures{4, 0, 0}));
}

TEST_F(FourthTable, RemovesAllAndReleasesTheResources) {
    write(1, 1);
    write(2, 2);
    table_->entryRemoveAll(nullptr);
    write(3, 3);
    agent_.settle();
    EXPECT_EQ(table_->entrys(), 1U);
    EXPECT_EQ(table_->entryLog()->entrysInDeletion({1}), 2U);
    acknowledgeAll();
    EXPECT_EQ(table_->entryLog()->entrysInDeletion({1}), 0U);
    EXPECT_EQ(agent_.counters()->pool(), (Asic::ResourcePoolFigures{4, 1, 0}));
}

TEST_F(FourthTable, FollowsAResourceThatMoves) {
    write(1, 1);
    write(2, 1);
    agent_.settle();
    const auto before = committed(1).counterIndex;
    ASSERT_TRUE(agent_.counters()->move(entryOf(1, 1).counterRequestKey));
    agent_.settle();
    EXPECT_NE(committed(1).counterIndex, before);
    EXPECT_EQ(committed(2).counterIndex, committed(1).counterIndex);
    EXPECT_EQ(table_->stats()->updateCnt(), 2U);
}

TEST_F(FourthTable, ComesBackAfterARestartAndWritesNothing) {
    write(1, 1);
    write(2, 2);
    agent_.settle();
    const auto first = committed(1);
    const auto version = table_->logVersion();
    restart();
    agent_.settle();
    EXPECT_EQ(table_->entrys(), 2U);
    EXPECT_EQ(committed(1), first);
    EXPECT_EQ(table_->logVersion(), version);
    EXPECT_EQ(table_->linkage<QueueShareCounterBinding>()->entryUsageSms(), 2U);
    table_->assertConsistent();
}

TEST_F(FourthTable, LooksAnEntryUpOnceToUpdateIt) {
    write(1, 1);
    agent_.settle();
    const QueueShareKey key{1, 1};
    const auto usesOf = [](const auto& work) {
        const std::uint64_t before = QueueShareKey::uses;
        work();
        return QueueShareKey::uses - before;
    };
    const std::uint64_t read = usesOf([&] { table_->entryFromConfig(key); });
    EXPECT_EQ(usesOf([&] { table_->updateEntry(key); }), read);
}

class ManyEntries : public FourthTable {
protected:
    ManyEntries() : FourthTable({.capacityCeiling = 16384, .counters = 8192, .policers = 4}) {}

    struct Work {
        std::uint64_t keyUses = 0;
        std::uint64_t steps = 0;  ///< that are traced
    };
    /// What a restart costs in which nothing has to be written.
    Work restarted() {
        const auto version = table_->logVersion();
        const TestSupport::TraceCapture traces;
        const std::uint64_t before = QueueShareKey::uses;
        restart();
        agent_.counters()->sweepUnclaimed();
        agent_.settle();
        EXPECT_EQ(table_->logVersion(), version);
        return {QueueShareKey::uses - before, traces.lines().size()};
    }
};

TEST_F(ManyEntries, WithAsManyCountersComeBackInWorkThatGrowsWithTheirNumber) {
    constexpr std::uint32_t kEntries = 2000;
    for (std::uint32_t port = 1; port <= kEntries; ++port)
        write(port, port);
    agent_.settle();
    const Work once = restarted();
    for (std::uint32_t port = kEntries + 1; port <= 2 * kEntries; ++port)
        write(port, port);
    agent_.settle();
    const Work twice = restarted();
    EXPECT_EQ(table_->entrys(), 2 * kEntries);
    EXPECT_EQ(agent_.counters()->pool().used, 2 * kEntries);
    EXPECT_GT(once.keyUses, kEntries);
    EXPECT_GT(once.steps, kEntries);
    // Chains of buckets may be a little longer; the square would be 4.
    EXPECT_LT(twice.keyUses, once.keyUses * 5 / 2);
    EXPECT_LT(twice.steps, once.steps * 5 / 2);
}

}  // namespace
