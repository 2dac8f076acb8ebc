// The way of an index back to the pool: make before break.
#include "tests/platform/resources/World.h"

namespace ResourceTests {
namespace {

template <class Binding>
class ResourceReturn : public ::testing::Test {
protected:
    World<Binding> world{2};
};
TYPED_TEST_SUITE(ResourceReturn, Bindings);

TYPED_TEST(ResourceReturn, IsImmediateWithoutEntryHandle) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.release(w.a, handle, nullptr);
    EXPECT_TRUE(handle->isPostReleaseProtoState());
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{2, 0, 0}));
}

TYPED_TEST(ResourceReturn, WaitsForTheEntryToBeCompleteOrFailed) {
    auto& w = this->world;
    for (const auto end : {EntryState::complete, EntryState::failed, EntryState::exhausted,
                           EntryState::resourceFailed}) {
        const auto handle = w.use(w.a, 1);
        const auto entry = w.entry();
        w.release(w.a, handle, entry);
        EXPECT_EQ(w.returning(), 1U);
        entry->entryStateIs(EntryState::written);
        w.check();
        EXPECT_EQ(w.returning(), 1U);
        entry->entryStateIs(end);
        w.check();
        EXPECT_EQ(w.returning(), 0U);
    }
}

TYPED_TEST(ResourceReturn, WaitsForTheLogVersionToBeAcknowledged) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    const auto entry = w.entry(7);
    w.release(w.a, handle, entry);
    w.acknowledge(6);
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(7);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, WaitsForAVersionThatTheEntryGetsLater) {
    auto& w = this->world;
    const auto removeAll = w.entry();
    const auto first = w.use(w.a, 1);
    const auto second = w.use(w.a, 2);
    w.release(w.a, first, removeAll);
    w.release(w.a, second, removeAll);
    w.acknowledge(100);
    EXPECT_EQ(w.returning(), 2U);
    removeAll->logVersionIs({101});
    w.check();
    EXPECT_EQ(w.returning(), 2U);
    w.acknowledge(101);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, IsImmediateWhenTheVersionIsAcknowledgedAlready) {
    auto& w = this->world;
    w.acknowledge(9);
    const auto handle = w.use(w.a, 1);
    w.release(w.a, handle, w.entry(9));
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, ReturningIndexIsNotReused) {
    auto& w = this->world;
    const auto first = w.use(w.a, 1);
    const auto second = w.use(w.a, 2);
    const auto entry = w.entry(5);
    w.release(w.a, first, entry);
    const auto third = w.request(w.a, 3);
    w.turn();
    EXPECT_EQ(third->entryState(), EntryState::exhausted);
    w.acknowledge(5);
    w.turn();
    EXPECT_EQ(w.index(third), w.index(first));
}

TYPED_TEST(ResourceReturn, BeginsWithTheLastOfSeveralUsers) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.ack(w.b, handle, nullptr);
    w.release(w.a, handle, w.entry(5));
    EXPECT_FALSE(handle->isPostReleaseProtoState());
    EXPECT_EQ(w.used(), 1U);
    w.release(w.b, handle, nullptr);
    EXPECT_TRUE(handle->isPostReleaseProtoState());
    EXPECT_EQ(w.returning(), 1U) << "the first user's change is still on its way";
    w.acknowledge(5);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, IsRevivedByANewRequestWithANewHandle) {
    auto& w = this->world;
    const auto released = w.use(w.a, 1);
    const auto entry = w.entry(5);
    w.release(w.a, released, entry);
    auto revived = w.request(w.a, 1);
    EXPECT_NE(revived, released);
    EXPECT_TRUE(released->isPostReleaseProtoState());
    EXPECT_FALSE(revived->isPostReleaseProtoState());
    w.acknowledge(5);
    w.turn();
    EXPECT_EQ(revived->entryState(), EntryState::complete);
    EXPECT_EQ(w.index(revived), w.index(released));
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{2, 1, 0}));
}

TYPED_TEST(ResourceReturn, OfARevivedIndexStillWaitsForItsFirstUse) {
    auto& w = this->world;
    const auto released = w.use(w.a, 1);
    w.release(w.a, released, w.entry(5));
    auto revived = w.request(w.a, 1);
    w.turn();
    revived = nullptr;
    w.check();
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(5);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, OfAReplacedIndexNeedsItsAcknowledgement) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    const auto version = handle->updateVersion();
    w.table->move(w.key(1));
    w.turn();
    EXPECT_EQ(w.returning(), 1U);
    w.a->ackUpdate(handle, version, nullptr);
    w.check();
    EXPECT_EQ(w.returning(), 1U) << "an older version was acknowledged";
    w.ack(w.a, handle, w.entry(5));
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(5);
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{2, 1, 0}));
}

/// The handle of an update need not be the table's latest change.
TYPED_TEST(ResourceReturn, OfAReplacedIndexNeedsAllThatTheTableHasHandedOut) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.table->move(w.key(1));
    w.turn();
    w.kept->handedOut[kUserTable] = {7};
    w.ack(w.a, handle, w.entry(5));
    w.acknowledge(6);
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(7);
    EXPECT_EQ(w.returning(), 0U);
}

/// A table that was cleared, its resources kept, has no entry to name; hardware still has it.
TYPED_TEST(ResourceReturn, OfAReplacedIndexNeedsAllThatTheTableHasHandedOutWithoutAnEntryToo) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.ack(w.a, handle, w.entry(5));
    w.table->move(w.key(1));
    w.turn();
    w.kept->handedOut[kUserTable] = {7};
    w.ack(w.a, handle, nullptr);
    w.acknowledge(6);
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(7);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, OfAReplacedIndexIsImmediateWithoutAnEntryWhereNoTableIsKnown) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.table->move(w.key(1));
    w.turn();
    w.kept->handedOut[kUserTable] = {7};
    w.ack(w.a, handle, nullptr);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, OfAReleasedIndexNeedsItsOwnEntryOnly) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.kept->handedOut[kUserTable] = {7};
    w.release(w.a, handle, w.entry(5));
    w.acknowledge(5);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceReturn, OfAReplacedIndexNeedsAllUsers) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.ack(w.b, handle, nullptr);
    w.table->move(w.key(1));
    w.turn();
    w.ack(w.a, handle, nullptr);
    EXPECT_EQ(w.returning(), 1U);
    w.release(w.b, handle, w.entry(5));
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(5);
    EXPECT_EQ(w.returning(), 0U);
    EXPECT_EQ(w.used(), 1U);
}

TYPED_TEST(ResourceReturn, OfAReplacedIndexIsImmediateWhenNobodyUsedIt) {
    auto& w = this->world;
    const auto handle = w.request(w.a, 1);
    w.turn();
    w.table->move(w.key(1));
    w.check();
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{2, 1, 0}));
}

TYPED_TEST(ResourceReturn, ReleasedHandlesAreIgnored) {
    auto& w = this->world;
    const auto released = w.use(w.a, 1);
    w.release(w.a, released, nullptr);
    const auto again = w.use(w.a, 1);
    w.release(w.a, released, nullptr);
    w.ack(w.b, released, nullptr);
    EXPECT_EQ(w.table->keys().at(0).users, 1U);
}

TYPED_TEST(ResourceReturn, OfAnUnansweredRequestTellsWhoWaits) {
    auto& w = this->world;
    const auto handle = w.request(w.a, 1);
    const Publications<typename TypeParam::Handle> publications(handle);
    w.release(w.a, handle, nullptr);
    w.turn();
    EXPECT_TRUE(handle->isPostReleaseProtoState());
    EXPECT_EQ(publications.count(), 1);
    EXPECT_EQ(w.table->entries(), 0U);
}

TYPED_TEST(ResourceReturn, OfWhatALostClientUsedAwaitsTheSweep) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    w.ack(w.a, handle, w.entry(1));
    handle = nullptr;
    w.a = nullptr;
    w.check();
    EXPECT_EQ(w.used(), 1U);
    w.kept->handedOut[kUserTable] = {4};
    w.table->sweepUnclaimed();
    w.check();
    EXPECT_EQ(w.returning(), 1U);
    w.acknowledge(4);
    EXPECT_EQ(w.returning(), 0U);
}

}  // namespace
}  // namespace ResourceTests
