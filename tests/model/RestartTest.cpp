// What random sequences have found about restarts, told once more by itself.
#include <gtest/gtest.h>

#include "tests/support/InProcessAgent.h"

namespace {

using namespace TestSupport;

/// Commits entries whose resources have failed.
class CommitAllTheSame final : public VornPolicyCpu::PolicyCpuTcamActionSwTableHelperBase {
public:
    std::uint32_t finalizeOnFailure(const WrapperPtr&, bool, const TablePtr&) override { return 1; }
};

TEST(Restart, KeepsWhatAnExhaustedPolicerWasRequestedWith) {
    InProcessAgent agent({.capacityCeiling = 1024, .counters = 1, .policers = 1});
    const auto table = [&] {
        return agent.actions()->makeSwTable({1}, Brumo::make<CommitAllTheSame>(), false);
    };
    table()->entryWrite(actionKey(1), actionEntry(1, 0, 1), nullptr);
    table()->entryWrite(actionKey(2), actionEntry(2, 0, 2), nullptr);
    agent.settle();
    const auto committed = table()->entryFromConfig(actionKey(2));
    ASSERT_EQ(committed.policerIndex, VornPolicyCpu::kNoPolicerIndex);
    ASSERT_EQ(committed.policerClientData.rate.get(), 1000U);
    const auto version = table()->logVersion();
    agent.restart();
    EXPECT_EQ(table()->entryFromConfig(actionKey(2)), committed);
    agent.settle();
    EXPECT_EQ(table()->entryFromConfig(actionKey(2)), committed);
    EXPECT_EQ(table()->logVersion(), version) << "nothing has changed, so nothing is written";
}

}  // namespace
