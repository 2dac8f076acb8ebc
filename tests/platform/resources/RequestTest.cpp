// Requests, answers, and changes made to resources in use.
#include "tests/platform/resources/World.h"

namespace ResourceTests {
namespace {

template <class Binding>
class ResourceRequest : public ::testing::Test {
protected:
    World<Binding> world{3};
    using Handle = typename Binding::Handle;
};
TYPED_TEST_SUITE(ResourceRequest, Bindings);

TYPED_TEST(ResourceRequest, IsAnsweredOnALaterTurn) {
    auto& w = this->world;
    const auto handle = w.request(w.a, 1);
    const Publications<typename TestFixture::Handle> publications(handle);
    EXPECT_EQ(handle->entryState(), EntryState::created);
    EXPECT_TRUE(handle->neededVersions().empty());
    EXPECT_EQ(publications.count(), 0);
    w.turn();
    EXPECT_EQ(handle->entryState(), EntryState::complete);
    EXPECT_EQ(publications.count(), 1);
    EXPECT_LT(w.index(handle), 3U);
}

TYPED_TEST(ResourceRequest, OfDefaultKeyGivesNothing) {
    auto& w = this->world;
    EXPECT_EQ(Calls<TypeParam>::request(*w.a, {}, {}), nullptr);
    EXPECT_NE(w.request(w.a, 0), nullptr) << "a unit alone makes a key";
}

TYPED_TEST(ResourceRequest, RepeatedGivesTheSameHandle) {
    auto& w = this->world;
    const auto handle = w.request(w.a, 1);
    EXPECT_EQ(w.request(w.a, 1), handle);
    EXPECT_EQ(w.request(w.b, 1), handle);
    w.turn();
    EXPECT_EQ(w.request(w.b, 1), handle);
    EXPECT_EQ(w.table->entries(), 1U);
}

TYPED_TEST(ResourceRequest, BeyondThePoolFailsAndGetsWhatIsFreedOldestFirst) {
    auto& w = this->world;
    auto first = w.use(w.a, 1);
    const auto second = w.use(w.a, 2);
    const auto third = w.use(w.a, 3);
    const auto fourth = w.request(w.a, 4);
    const auto fifth = w.request(w.a, 5);
    w.turn();
    EXPECT_EQ(fourth->entryState(), EntryState::exhausted);
    EXPECT_EQ(fifth->entryState(), EntryState::exhausted);
    const auto sixth = w.request(w.a, 6);
    w.release(w.a, first, nullptr);
    EXPECT_EQ(fourth->entryState(), EntryState::exhausted) << "told on a later turn";
    const Publications<typename TestFixture::Handle> publications(fourth);
    w.turn();
    EXPECT_EQ(fourth->entryState(), EntryState::complete);
    EXPECT_EQ(publications.count(), 1);
    EXPECT_EQ(w.index(fourth), w.index(first));
    EXPECT_EQ(fifth->entryState(), EntryState::exhausted);
    EXPECT_EQ(sixth->entryState(), EntryState::exhausted);
}

TYPED_TEST(ResourceRequest, NeverAcknowledgedIsGivenBackWithItsHandle) {
    auto& w = this->world;
    auto handle = w.request(w.a, 1);
    auto unanswered = w.request(w.a, 2);
    unanswered = nullptr;
    w.check();
    w.turn();
    EXPECT_EQ(w.used(), 1U);
    handle = nullptr;
    w.check();
    EXPECT_EQ(w.table->pool(), (Asic::ResourcePoolFigures{3, 0, 0}));
    EXPECT_EQ(w.table->entries(), 0U);
}

TYPED_TEST(ResourceRequest, AcknowledgedStaysWithoutHandle) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    const auto index = w.index(handle);
    handle = nullptr;
    w.check();
    EXPECT_EQ(w.used(), 1U);
    EXPECT_EQ(w.index(w.request(w.a, 1)), index);
}

TYPED_TEST(ResourceRequest, NeedsTheVersionOfItsAllocation) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    ASSERT_EQ(handle->neededVersions().size(), 1U);
    EXPECT_EQ(handle->neededVersions()[0], (TableVersion{kResourceTable, {1}}));
    EXPECT_EQ(w.kept->announced, handle->neededVersions());
    ASSERT_TRUE(w.table->move(w.key(1)));
    EXPECT_EQ(handle->neededVersions(), (std::vector{TableVersion{kResourceTable, {2}}}));
}

TYPED_TEST(ResourceRequest, WithoutGroupNeedsNothing) {
    World<TypeParam> w(1, false);
    const auto handle = w.use(w.a, 1);
    EXPECT_TRUE(handle->neededVersions().empty());
    const auto entry = w.entry(5);
    w.release(w.a, handle, entry);
    EXPECT_EQ(w.returning(), 1U);
    entry->entryStateIs(EntryState::complete);
    EXPECT_EQ(w.returning(), 0U);
}

TYPED_TEST(ResourceRequest, MoveGivesTheSameHandleAnotherIndex) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    const auto before = w.index(handle);
    const auto version = handle->updateVersion();
    const Publications<typename TestFixture::Handle> publications(handle);
    EXPECT_TRUE(w.table->move(w.key(1)));
    w.check();
    EXPECT_EQ(publications.count(), 0);
    w.turn();
    EXPECT_EQ(publications.count(), 1);
    EXPECT_NE(w.index(handle), before);
    EXPECT_EQ(handle->updateVersion(), version + 1);
    EXPECT_EQ(w.request(w.a, 1), handle);
}

TYPED_TEST(ResourceRequest, MoveIsRefusedWithoutAFreeIndex) {
    auto& w = this->world;
    const auto first = w.use(w.a, 1);
    const auto second = w.use(w.a, 2);
    const auto third = w.use(w.a, 3);
    const auto index = w.index(first);
    const auto announced = w.kept->announced.size();
    EXPECT_FALSE(w.table->move(w.key(1)));
    w.check();
    EXPECT_EQ(w.index(first), index);
    EXPECT_EQ(w.kept->announced.size(), announced);
    EXPECT_TRUE(w.loop.idle());
}

TYPED_TEST(ResourceRequest, FailureAndRecoveryArePublished) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    const Publications<typename TestFixture::Handle> publications(handle);
    EXPECT_TRUE(w.table->fail(w.key(1)));
    EXPECT_TRUE(w.table->fail(w.key(1))) << "nothing new";
    w.turn();
    EXPECT_EQ(handle->entryState(), EntryState::resourceFailed);
    EXPECT_EQ(publications.count(), 1);
    EXPECT_TRUE(w.table->restore(w.key(1)));
    w.turn();
    EXPECT_EQ(handle->entryState(), EntryState::complete);
    EXPECT_EQ(publications.count(), 2);
}

TYPED_TEST(ResourceRequest, UnknownKeysCannotBeChanged) {
    auto& w = this->world;
    const auto pending = w.request(w.a, 1);
    for (const std::uint32_t id : {1U, 2U}) {
        EXPECT_FALSE(w.table->move(w.key(id)));
        EXPECT_FALSE(w.table->fail(w.key(id)));
        EXPECT_FALSE(w.table->restore(w.key(id)));
    }
}

TYPED_TEST(ResourceRequest, InspectionShowsIndexStateAndUsers) {
    auto& w = this->world;
    const auto handle = w.use(w.a, 1);
    w.ack(w.b, handle, nullptr);
    const auto keys = w.table->keys();
    ASSERT_EQ(keys.size(), 1U);
    EXPECT_EQ(keys[0].key, w.key(1));
    EXPECT_EQ(keys[0].index, w.index(handle));
    EXPECT_EQ(keys[0].state, EntryState::complete);
    EXPECT_EQ(keys[0].users, 2U);
}

TYPED_TEST(ResourceRequest, ManyAreAnsweredOverSeveralTurns) {
    World<TypeParam> w(3000);
    std::vector<typename World<TypeParam>::HandlePtr> handles;
    for (std::uint32_t id = 1; id <= 3000; ++id) {
        handles.push_back(Calls<TypeParam>::request(*w.a, w.key(id), {}));
    }
    w.loop.turn();
    EXPECT_LT(w.used(), 3000U);
    w.turn();
    EXPECT_EQ(w.used(), 3000U);
}

TYPED_TEST(ResourceRequest, ObserversErrorLosesNoOtherAnswer) {
    auto& w = this->world;
    const auto first = w.request(w.a, 1);
    const auto second = w.request(w.a, 2);
    const auto subscription = first->publisher().subscribe(
        [](const Kiv::Change&) { throw std::runtime_error("not today"); });
    EXPECT_THROW(w.loop.runUntilIdle(), std::runtime_error);
    w.check();
    w.turn();
    EXPECT_EQ(second->entryState(), EntryState::complete);
}

TYPED_TEST(ResourceRequest, ObserversMayReleaseAndRequest) {
    auto& w = this->world;
    auto first = w.request(w.a, 1);
    auto second = w.request(w.a, 2);
    typename World<TypeParam>::HandlePtr third;
    const auto subscription = first->publisher().subscribe([&](const Kiv::Change&) {
        w.release(w.a, second, nullptr);
        third = w.request(w.a, 3);
        first = nullptr;
    });
    w.turn();
    EXPECT_EQ(third->entryState(), EntryState::complete);
    EXPECT_EQ(w.table->entries(), 1U);
}

TYPED_TEST(ResourceRequest, HandlesMayOutliveTheTable) {
    auto& w = this->world;
    auto handle = w.use(w.a, 1);
    auto pending = w.request(w.a, 2);
    w.stop();
    EXPECT_EQ(handle->entryState(), EntryState::complete);
    handle = nullptr;
    pending = nullptr;
    EXPECT_EQ(w.kept->records.size(), 1U);
    w.start();
}

TEST(CounterRequest, HasFeatureIdThatSurvivesMoves) {
    World<VornCountersLib::CounterBinding> w(3);
    const auto handle = w.request(w.a, 1);
    EXPECT_EQ(handle->featureId(), 0);
    EXPECT_EQ(handle->counterIndex(), 0xFFFFFFFF);
    w.turn();
    const auto featureId = handle->featureId();
    EXPECT_NE(featureId, 0);
    w.table->move(w.key(1));
    w.turn();
    EXPECT_EQ(handle->featureId(), featureId);
}

VornPolicerLib::PolicerIndexRequestClientData rate(std::uint64_t value) {
    VornPolicerLib::PolicerIndexRequestClientData data;
    data.rate = value;
    data.mode = VornPolicerLib::PolicerMode::packets;
    return data;
}

class PolicerRequest : public ::testing::Test {
protected:
    World<VornPolicerLib::PolicerBinding> w{3};
    std::vector<World<VornPolicerLib::PolicerBinding>::HandlePtr> held;
};

TEST_F(PolicerRequest, WithOtherClientDataSetsThePolicerAnewInPlace) {
    const auto handle = w.use(w.a, 1, rate(10));
    EXPECT_EQ(handle->clientData(), rate(10));
    const auto index = handle->policerIndex();
    const auto version = handle->updateVersion();
    const auto needed = handle->neededVersions().at(0).version;
    const Publications<VornPolicerLib::PolicerResourceHandle> publications(handle);
    EXPECT_EQ(w.request(w.a, 1, rate(20)), handle);
    EXPECT_EQ(publications.count(), 0);
    w.turn();
    EXPECT_EQ(publications.count(), 1);
    EXPECT_EQ(handle->clientData(), rate(20));
    EXPECT_EQ(handle->policerIndex(), index);
    EXPECT_EQ(handle->updateVersion(), version + 1);
    EXPECT_GT(handle->neededVersions().at(0).version, needed);
    EXPECT_EQ(w.kept->announced.back(), handle->neededVersions().at(0));
}

TEST_F(PolicerRequest, WithEqualClientDataPublishesNothing) {
    const auto handle = w.use(w.a, 1, rate(10));
    const auto announced = w.kept->announced.size();
    w.request(w.b, 1, rate(10));
    EXPECT_TRUE(w.loop.idle());
    EXPECT_EQ(w.kept->announced.size(), announced);
}

TEST_F(PolicerRequest, BeforeItsAnswerMayChangeItsClientData) {
    const auto handle = w.request(w.a, 1, rate(10));
    w.request(w.a, 1, rate(20));
    const Publications<VornPolicerLib::PolicerResourceHandle> publications(handle);
    w.turn();
    EXPECT_EQ(publications.count(), 1);
    EXPECT_EQ(handle->clientData(), rate(20));
}

TEST_F(PolicerRequest, ThatFoundNoIndexPublishesOtherClientData) {
    for (std::uint32_t id = 1; id <= 3; ++id)
        held.push_back(w.use(w.a, id));
    const auto handle = w.request(w.a, 4, rate(10));
    w.turn();
    ASSERT_EQ(handle->entryState(), EntryState::exhausted);
    const auto version = handle->updateVersion();
    const auto announced = w.kept->announced.size();
    const Publications<VornPolicerLib::PolicerResourceHandle> publications(handle);
    w.request(w.a, 4, rate(20));
    EXPECT_EQ(publications.count(), 0) << "on a later turn";
    w.turn();
    EXPECT_EQ(publications.count(), 1);
    EXPECT_EQ(handle->updateVersion(), version + 1);
    EXPECT_EQ(handle->clientData(), rate(20));
    EXPECT_EQ(handle->entryState(), EntryState::exhausted);
    EXPECT_EQ(w.kept->announced.size(), announced) << "there is nothing to program";
}

TEST_F(PolicerRequest, ChangesInOneTurnArePublishedOnce) {
    const auto handle = w.use(w.a, 1, rate(10));
    const Publications<VornPolicerLib::PolicerResourceHandle> publications(handle);
    w.request(w.a, 1, rate(20));
    w.table->move(w.key(1));
    w.request(w.a, 1, rate(30));
    w.turn();
    EXPECT_EQ(publications.count(), 1);
}

}  // namespace
}  // namespace ResourceTests
