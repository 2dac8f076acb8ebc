#include <gtest/gtest.h>

#include "tests/support/InProcessAgent.h"

namespace {

using namespace TestSupport;

TEST(OneChange, IsStagedCommittedAcknowledgedAndSurvivesARestart) {
    InProcessAgent agent;
    auto table = agent.actionTable();
    int answers = 0;
    auto handle = table->entryWriteWithResponseHandler(
        actionKey(7), actionEntry(7, 1, 2), nullptr,
        [&](const Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>&) { ++answers; });
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(handle->logVersion().value, 1U);
    const auto committed = table->entryFromConfig(actionKey(7));
    EXPECT_NE(committed.counterIndex, VornPolicyCpu::kNoCounterIndex);
    EXPECT_NE(committed.policerIndex, VornPolicyCpu::kNoPolicerIndex);
    EXPECT_EQ(answers, 0);
    agent.acknowledgeAll();
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
    EXPECT_FALSE(table->hasPendingHwWrites());
    table->assertConsistent();

    handle = nullptr;
    table = nullptr;
    agent.restart();
    table = agent.actionTable();
    EXPECT_EQ(table->entrys(), 1U);
    EXPECT_EQ(table->entryRead(actionKey(7)), committed);
    EXPECT_EQ(table->logVersion().value, 1U) << "a restart writes nothing that has not changed";
}

}  // namespace
