// A long run of the whole way of a change, in one process: no memory is left behind.
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
    const std::uint64_t changes = isLongRun() ? 10'000'000 : 100'000;
    const std::uint64_t step = changes / 10;
    std::uint64_t warm_bytes = 0;
    for (std::uint64_t done = 1; done <= changes; ++done) {
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
    acknowledge();
    EXPECT_EQ(log_->entryLogConfigs(), 0U);
    EXPECT_EQ(log_->entrysInDeletion(kUnit), 0U);
    EXPECT_EQ(tcam_.entries<HwSide::ActionTypes>(), log_->entrys(kUnit));
    EXPECT_EQ(hardware_.counters().rotten + hardware_.counters().lost, 0U);
    EXPECT_LE(hardware_.counters().snapshots, 1U);
}

}  // namespace
}  // namespace Rot
