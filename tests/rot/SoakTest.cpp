// Long runs of the whole way of a change, in one process: no memory is left behind.
//
// VORN_TORTURE=full makes ten million changes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "entrylog/PolicyCpuTcamActionEntryLog.h"
#include "hwside/LogReader.h"
#include "platform/brumo/Trace.h"
#include "tests/entrylog/Bindings.h"
#include "tests/rot/Specimen.h"
#include "tests/support/InProcessAgent.h"

namespace Rot {
namespace {

using B = VornPolicyCpu::PolicyCpuTcamActionBinding;

constexpr std::uint32_t kSoakKeys = 1000;
constexpr std::uint64_t kBetweenAcknowledgements = 64;
#if defined(__SANITIZE_ADDRESS__)
/// What is freed is kept a while to notice its use.
constexpr std::uint64_t kMostGrowth_bytes = std::uint64_t{512} << 20U;
#else
constexpr std::uint64_t kMostGrowth_bytes = std::uint64_t{256} << 10U;
#endif

std::uint64_t resident_bytes() {
    std::uint64_t size_pages = 0;
    std::uint64_t resident_pages = 0;
    std::ifstream("/proc/self/statm") >> size_pages >> resident_pages;
    return resident_pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::uint64_t soakChanges() {
    return isLongRun() ? 10'000'000 : 100'000;
}

/// Makes the changes; what is resident after the first tenth does not grow any more.
template <class Change, class Acknowledge>
void expectFlat(const Change& change, const Acknowledge& acknowledge) {
    const std::uint64_t step = soakChanges() / 10;
    std::uint64_t warm_bytes = 0;
    for (std::uint64_t done = 1; done <= soakChanges(); ++done) {
        change();
        if (done % kBetweenAcknowledgements == 0)
            acknowledge();
        if (done % step != 0)
            continue;
        const std::uint64_t now_bytes = resident_bytes();
        fmt::print("{} changes: {} KiB resident\n", done, now_bytes / 1024);
        if (warm_bytes == 0)
            warm_bytes = now_bytes;
        ASSERT_LE(now_bytes, warm_bytes + kMostGrowth_bytes) << done;
    }
}

class SoakTest : public testing::Test {
protected:
    SoakTest() : filter_(Brumo::traceFilter()) {
        Brumo::traceFilterIs("*/1");
        log_ = VornPolicyCpu::entryLogFactory<B>(B::kTableId, agent_.stateDatabase(),
                                                 agent_.group(), "VornPolicyCpu");
        log_->mountShimoConfig(kUnit, {});
    }
    ~SoakTest() override { Brumo::traceFilterIs(filter_); }

    /// Two writes for each delete.
    void change() {
        const auto number = static_cast<std::uint32_t>(random_() % kSoakKeys) + 1;
        const auto needed = Brumo::make<Asic::NeededEntry>();
        needed->add({B::kTableId, log_->tableVersion()});
        if (random_() % 3 != 0) {
            const auto word = static_cast<std::uint32_t>(random_() & 0xFFFFFF);
            log_->entryIs(TestSupport::logEntryOf<B>(number, word),
                          TestSupport::resourceKeysOf<B>(number), needed, kUnit, stats_, false);
        } else {
            log_->entryDel(TestSupport::keyOf<B>(number), needed, kUnit);
        }
    }
    void acknowledge() {
        hardware_.pump();
        agent_.group()->acknowledgementsArrived();
        log_->cleanupEntryLog(agent_.group()->acknowledgedVersion(B::kTableId));
    }

    std::string filter_;
    TestSupport::InProcessAgent agent_;
    Brumo::Ptr<VornPolicyCpu::EntryLog<B>> log_;
    Brumo::Ptr<Asic::SwTableStats> stats_ = Brumo::make<Asic::SwTableStats>();
    HwSide::Tcam tcam_;
    HwSide::LogReader hardware_{HwSide::Group{agent_.root()}, tcam_, agent_.hardware()};
    std::mt19937_64 random_{1};
};

TEST_F(SoakTest, ManyChangesLeaveNoMemoryBehind) {
    expectFlat([this] { change(); }, [this] { acknowledge(); });
    acknowledge();
    EXPECT_EQ(log_->entryLogConfigs(), 0U);
    EXPECT_EQ(log_->entrysInDeletion(kUnit), 0U);
    EXPECT_EQ(tcam_.entries<HwSide::ActionTypes>(), log_->entrys(kUnit));
    EXPECT_EQ(hardware_.counters().rotten + hardware_.counters().lost, 0U);
    EXPECT_LE(hardware_.counters().snapshots, 1U);
}

using Actions = VornPolicyCpu::PolicyCpuTcamActionBinding;
using V4Entries = VornPolicyCpu::PolicyCpuV4TcamEntryBinding;
using V6Entries = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;

/// Three tables with their counters and policers, the resolver between them, and hardware.
class WholeSoakTest : public testing::Test {
protected:
    static constexpr std::uint32_t kActions = 100;
    static constexpr std::uint32_t kMatches = 400;
    static constexpr std::uint32_t kCounterRequests = 60;
    static constexpr std::uint32_t kPolicerRequests = 30;
    static constexpr std::uint32_t kCounters = 64;
    static constexpr std::uint32_t kPolicers = 32;

    using Change = Brumo::Ptr<const Asic::DependencyEntryHandle>;

    WholeSoakTest() : filter_(Brumo::traceFilter()) {
        Brumo::traceFilterIs("*/0");
        for (std::uint32_t id = 1; id <= kActions; ++id)
            changesOfActions_.push_back(written(actions_, newAction(id), nullptr));
    }
    ~WholeSoakTest() override { Brumo::traceFilterIs(filter_); }

    std::uint32_t upTo(std::uint32_t limit) {
        return static_cast<std::uint32_t>(random_() % limit) + 1;
    }
    bool oneIn(std::uint32_t number) { return upTo(number) == 1; }

    void change() {
        if (oneIn(5000)) {
            removeAll();
        } else if (oneIn(50)) {
            changeResource();
        } else if (oneIn(4)) {
            changeAction();
        } else if (oneIn(2)) {
            changeMatch(v4_, [](auto number) { return TestSupport::v4Entry(number); });
        } else {
            changeMatch(v6_, [](auto number) { return TestSupport::v6Entry(number); });
        }
    }
    void acknowledge() {
        agent_.settle();
        hardware_.pump();
        agent_.group()->acknowledgementsArrived();
        agent_.settle();
    }
    void settleAll() {
        std::uint64_t before = 0;
        do {
            before = agent_.hardware().consumed();
            acknowledge();
        } while (agent_.hardware().consumed() != before);
    }
    template <class B, class Table>
    void expectSettled(const Table& table) {
        EXPECT_EQ(table->entryLog()->entryLogConfigs(), 0U);
        EXPECT_EQ(table->entryLog()->entrysInDeletion(kUnit), 0U);
        EXPECT_EQ(table->transientAddEntrys() + table->transientRemoveEntrys(), 0U);
        EXPECT_TRUE(table->entryHandlesInLog().empty());
        EXPECT_FALSE(table->hasPendingHwWrites());
        EXPECT_EQ(tcam_.entries<typename B::Types>(), table->entrys());
        table->assertConsistent();
    }

    void expectAllSettled() {
        settleAll();
        expectSettled<Actions>(actions_);
        expectSettled<V4Entries>(v4_);
        expectSettled<V6Entries>(v6_);
        agent_.counters()->assertConsistent();
        agent_.policers()->assertConsistent();
        EXPECT_EQ(actions_->groupResolver()->queued(), 0U);
        EXPECT_EQ(agent_.group()->announcementsWaiting(), 0U);
        EXPECT_EQ(hardware_.waiting(), 0U);
        EXPECT_EQ(answered_, asked_);
    }
    void removeEveryKey() {
        for (std::uint32_t number = 1; number <= kMatches; ++number) {
            v4_->entryRemove(TestSupport::matchKey(number), nullptr);
            v6_->entryRemove(TestSupport::matchKey(number), nullptr);
        }
        changesOfActions_.clear();
        for (std::uint32_t id = 1; id <= kActions; ++id)
            actions_->entryRemove(TestSupport::actionKey(id), nullptr);
    }

    std::uint64_t asked_ = 0;
    std::uint64_t answered_ = 0;
    std::string filter_;
    TestSupport::InProcessAgent agent_{{.counters = kCounters, .policers = kPolicers}};
    Brumo::Ptr<Actions::SwTable> actions_ = agent_.actionTable();
    Brumo::Ptr<V4Entries::SwTable> v4_ = agent_.v4Table();
    Brumo::Ptr<V6Entries::SwTable> v6_ = agent_.v6Table();
    HwSide::Tcam tcam_;
    HwSide::LogReader hardware_{HwSide::Group{agent_.root()}, tcam_, agent_.hardware()};

private:
    auto counted() {
        ++asked_;
        return [this](const auto&) { ++answered_; };
    }
    template <class Table, class Entry>
    Change written(const Table& table, const Entry& entry, const Change& after) {
        return table->entryWriteWithResponseHandler(entry.key, entry, after, counted());
    }
    VornPolicyCpu::PolicyCpuTcamActionEntry newAction(std::uint32_t id) {
        auto entry = TestSupport::actionEntry(id, upTo(kCounterRequests),
                                              oneIn(3) ? upTo(kPolicerRequests) : 0);
        entry.redirect = upTo(1000);
        return entry;
    }
    /// What fails for want of a policer is answered as well.
    void changeAction() {
        const std::uint32_t id = upTo(kActions);
        changesOfActions_[id - 1] = oneIn(4) ? actions_->entryRemoveWithResponseHandler(
                                                   TestSupport::actionKey(id), nullptr, counted())
                                             : written(actions_, newAction(id), nullptr);
    }
    /// A match waits for the last change of its action.
    template <class Table, class Make>
    void changeMatch(const Table& table, const Make& make) {
        auto entry = make(upTo(kMatches));
        if (oneIn(4)) {
            table->entryRemoveWithResponseHandler(entry.key, nullptr, counted());
            return;
        }
        const std::uint32_t id = upTo(kActions);
        entry.priority = upTo(1000);
        entry.actionKey = TestSupport::actionKey(id);
        written(table, entry, changesOfActions_[id - 1]);
    }
    void changeResource() {
        const std::uint32_t counter = upTo(kCounterRequests);
        const std::uint32_t policer = upTo(kPolicerRequests);
        if (oneIn(2)) {
            agent_.counters()->move({counter});
        } else if (oneIn(2)) {
            agent_.policers()->move({policer});
        } else if (oneIn(2)) {
            agent_.policers()->fail({policer});
        } else {
            agent_.policers()->restore({policer});
        }
    }
    void removeAll() {
        const std::uint32_t which = upTo(3);
        if (which == 1) {
            actions_->entryRemoveAll(nullptr);
        } else if (which == 2) {
            v4_->entryRemoveAll(nullptr);
        } else {
            v6_->entryRemoveAll(nullptr);
        }
    }

    std::vector<Change> changesOfActions_;  ///< the last one of each
    std::mt19937_64 random_{2};
};

TEST_F(WholeSoakTest, ManyChangesOfAllTablesLeaveNoMemoryBehind) {
    expectFlat([this] { change(); }, [this] { acknowledge(); });
    expectAllSettled();
    EXPECT_GT(actions_->logVersion().value + v4_->logVersion().value + v6_->logVersion().value,
              soakChanges() * 9 / 10);
    removeEveryKey();
    expectAllSettled();
    EXPECT_EQ(actions_->entrys() + v4_->entrys() + v6_->entrys(), 0U);
    EXPECT_EQ(agent_.counters()->pool(), (Asic::ResourcePoolFigures{kCounters, 0, 0}));
    EXPECT_EQ(agent_.policers()->pool(), (Asic::ResourcePoolFigures{kPolicers, 0, 0}));
    // A table delete leaves the versions of the changes that it dropped to the keys' next changes.
    EXPECT_EQ(actions_->transientVersionForKeys() + v4_->transientVersionForKeys() +
                  v6_->transientVersionForKeys(),
              0U);
    EXPECT_EQ(hardware_.counters().rotten + hardware_.counters().lost, 0U);
    EXPECT_LE(hardware_.counters().snapshots, 1U);
}

}  // namespace
}  // namespace Rot
