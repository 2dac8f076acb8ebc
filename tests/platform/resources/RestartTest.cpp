// What outlives the process: allocations, pending returns, and what a killed process leaves.
#include "platform/brumo/Trace.h"
#include "tests/platform/resources/World.h"

namespace ResourceTests {
namespace {

template <class Binding>
class ResourceRestart : public ::testing::Test {
protected:
    World<Binding> world{3};
};
TYPED_TEST_SUITE(ResourceRestart, Bindings);

TYPED_TEST(ResourceRestart, GivesARequestItsIndexAtOnce) {
    auto& w = this->world;
    auto filler = w.use(w.a, 7);
    auto handle = w.use(w.a, 1);
    const auto index = w.index(handle);
    const auto needed = handle->neededVersions();
    w.restart();
    EXPECT_EQ(w.table->entries(), 2U);
    const auto restored = w.request(w.a, 1);
    EXPECT_NE(restored, handle);
    EXPECT_EQ(restored->entryState(), EntryState::complete);
    EXPECT_EQ(w.index(restored), index);
    EXPECT_EQ(restored->neededVersions(), needed);
    EXPECT_TRUE(w.loop.idle()) << "nothing is published";
}

TYPED_TEST(ResourceRestart, KeepsAnAllocationWhoseHandleIsDroppedBeforeTheSweep) {
    auto& w = this->world;
    const auto index = w.index(w.use(w.a, 1));
    w.restart();
    w.request(w.a, 1);
    EXPECT_EQ(w.used(), 1U);
    EXPECT_EQ(w.index(w.request(w.b, 1)), index);
}

TYPED_TEST(ResourceRestart, SweepGivesBackWhatNobodyClaims) {
    auto& w = this->world;
    auto kept = w.use(w.a, 1);
    auto lost = w.use(w.a, 2);
    w.ack(w.a, lost, w.entry(3));
    w.restart();
    kept = w.request(w.a, 1);
    w.ack(w.a, kept, nullptr);
    w.kept->handedOut[kUserTable] = {9};  // a table that is mounted after the resource table
    w.table->sweepUnclaimed();
    w.check();
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{3, 1, 1}));
    w.acknowledge(8);
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(9);
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{3, 1, 0}));
}

TYPED_TEST(ResourceRestart, PendingReturnAwaitsAllThatTheLogsHeld) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.release(w.a, handle, w.entry(5));
    w.restart();
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{3, 0, 1}));
    w.acknowledge(5);
    EXPECT_EQ(w.returning(), 1U) << "nothing is known before the tables are restored";
    w.kept->handedOut[kUserTable] = {6};
    w.table->sweepUnclaimed();
    w.check();
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(6);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceRestart, PendingReturnOfAMoveAwaitsTheNewAcknowledgement) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    w.ack(w.a, handle, w.entry(1));
    w.table->move(w.key(1));
    const auto index = w.index(handle);
    w.restart();
    handle = w.request(w.a, 1);
    EXPECT_EQ(w.index(handle), index);
    w.kept->handedOut[kUserTable] = {1};
    const auto update = w.entry();
    w.ack(w.a, handle, update);
    w.table->sweepUnclaimed();
    w.acknowledge(1);
    EXPECT_EQ(w.returning(), 1U) << "the entry still has the index of before";
    update->logVersionIs({2});
    w.acknowledge(2);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceRestart, RequestRevivesAPendingReturnAtOnce) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    const auto index = w.index(handle);
    w.release(w.a, handle, w.entry(5));
    w.restart();
    handle = w.request(w.b, 1);
    EXPECT_EQ(handle->entryState(), EntryState::complete);
    EXPECT_EQ(w.index(handle), index);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceRestart, ForgetsRequestsWithoutIndex) {
    auto& w = this->world;
    std::vector<typename World<TypeParam>::HandlePtr> handles;
    for (const std::uint32_t id : {1U, 2U, 3U, 4U})
        handles.push_back(w.use(w.a, id));
    auto pending = w.request(w.a, 5);
    w.restart();
    EXPECT_EQ(w.table->entries(), 3U);
}

TYPED_TEST(ResourceRestart, GoesOnWithTheVersions) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    w.release(w.a, handle, nullptr);
    w.restart();
    EXPECT_EQ(w.kept->handedOut[kResourceTable], (LogVersion{1}));
    handle = w.use(w.a, 1);
    EXPECT_EQ(handle->neededVersions().at(0).version, (LogVersion{2}));
}

TYPED_TEST(ResourceRestart, FailureIsForgotten) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    w.table->fail(w.key(1));
    w.restart();
    EXPECT_EQ(w.request(w.a, 1)->entryState(), EntryState::complete);
}

TYPED_TEST(ResourceRestart, DropsCorruptAllocationsWithATrace) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    w.stop();
    auto outside = w.kept->records.at(w.index(handle));
    outside.index = 3;
    auto keyless = outside;
    keyless.index = 1;
    keyless.requestKey = {};
    auto stateless = outside;
    stateless.index = 2;
    stateless.state = static_cast<Asic::ResourceRecordState>(0);
    for (const auto& record : {outside, keyless, stateless})
        w.kept->records[record.index] = record;
    int traces = 0;
    const auto before = Brumo::traceSinkIs([&](const Brumo::TraceRecord& record) {
        if (record.level == 1)
            ++traces;
    });
    const std::string filter = Brumo::traceFilter();
    Brumo::traceFilterIs("*/1");
    w.start();
    Brumo::traceFilterIs(filter);
    Brumo::traceSinkIs(before);
    EXPECT_EQ(traces, 3);
    EXPECT_EQ(w.kept->records.size(), 1U);
    EXPECT_EQ(w.index(w.request(w.a, 1)), w.index(handle));
}

/// Each store of a sequence of operations is once the last that a process does.
TYPED_TEST(ResourceRestart, FindsTheFileWholeWhereverTheProcessWasKilled) {
    for (int stores = 0; stores < 40; ++stores) {
        World<TypeParam> w(3);
        auto first = w.use(w.a, 1);
        w.ack(w.a, first, w.entry(1));
        w.kept->writesLeft = stores;
        const auto act = [&](auto&& operation) {
            if (w.kept->writesLeft != 0)
                operation();
        };
        typename World<TypeParam>::HandlePtr second;
        // Unchecked: memory is ahead of the file once the process counts as killed.
        act([&] { w.table->move(w.key(1)); });
        act([&] { w.a->ackUpdate(first, first->updateVersion(), w.entry(2)); });
        act([&] { second = Calls<TypeParam>::request(*w.a, w.key(2), {}); });
        act([&] { w.loop.runUntilIdle(); });
        act([&] { w.a->release(first, w.entry(3)); });
        act([&] { first = Calls<TypeParam>::request(*w.a, w.key(1), {}); });
        act([&] { w.loop.runUntilIdle(); });
        w.kept->writesLeft = 0;
        w.stop();
        w.kept->writesLeft = -1;
        w.start();
        const auto restored = w.request(w.a, 1);
        w.turn();
        EXPECT_EQ(restored->entryState(), EntryState::complete);
        w.ack(w.a, restored, nullptr);
        w.kept->handedOut[kUserTable] = {3};
        w.table->sweepUnclaimed();
        w.acknowledge(3);
        EXPECT_EQ(w.returning(), 0U);
        EXPECT_EQ(w.used(), 1U);
    }
}

TEST(PolicerRestart, KeepsClientData) {
    World<VornPolicerLib::PolicerBinding> w(3);
    VornPolicerLib::PolicerIndexRequestClientData data;
    data.burst = 12;
    auto handle = w.use(w.a, 1, data);
    w.restart();
    handle = w.request(w.a, 1, data);
    EXPECT_EQ(handle->clientData(), data);
    EXPECT_TRUE(w.loop.idle());
    data.burst = 13;
    w.request(w.a, 1, data);
    w.turn();
    EXPECT_EQ(handle->clientData(), data);
}

TEST(CounterRestart, KeepsFeatureId) {
    World<VornCountersLib::CounterBinding> w(3);
    auto handle = w.use(w.a, 1);
    const auto featureId = handle->featureId();
    w.restart();
    EXPECT_EQ(w.request(w.a, 1)->featureId(), featureId);
}

}  // namespace
}  // namespace ResourceTests
