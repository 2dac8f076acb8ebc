// Changes of resources in use: every user is updated, and the change acknowledged once.
#include <gtest/gtest.h>

#include "tests/linkage/LinkageFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using Messages = std::vector<std::string>;

template <class Side>
class ResourceChange : public LinkageFixture<Side> {
protected:
    /// What was done about changes: one "update" a user, and the acknowledgements.
    std::vector<std::string> steps(const TraceCapture& traces) {
        std::vector<std::string> result;
        for (const TraceLine& line : traces.lines()) {
            if (line.handle == this->traced() && line.level == 3)
                result.push_back(line.text);
            if (line.handle == Side::kResources && line.function == "ackUpdate" && line.level == 8)
                result.push_back("acknowledged");
        }
        return result;
    }
    std::string updating(std::uint32_t number) {
        return "Updating sw table entry for key: " + this->text(number);
    }
    /// Changes the state as the resource table would, and tells.
    static void changed(const typename LinkageFixture<Side>::ResourcePtr& resource) {
        resource->publishState();
    }
};
TYPED_TEST_SUITE(ResourceChange, BothSides, SideName);

TYPED_TEST(ResourceChange, UpdatesAllUsersInOrderThenAcknowledgesOnce) {
    for (std::uint32_t number : {1U, 2U, 3U})
        this->committedAction(number, 5);
    std::vector<std::string> expected;
    this->machine(5)->entryUsage().forEach([&](const auto& swKey) {
        expected.push_back("Updating sw table entry for key: " + swKey.toText());
    });
    expected.push_back("acknowledged");
    const TraceCapture traces;
    this->changed(this->machine(5)->resPtr());
    EXPECT_EQ(this->steps(traces), expected);
    EXPECT_EQ(expected.size(), 4U);
    EXPECT_EQ(callsOf(traces, this->traced(), "handleResourceChange"), 1U);
}

TYPED_TEST(ResourceChange, OfAnyOtherAttributeDoesNothing) {
    this->committedAction(1, 5);
    const TraceCapture traces;
    for (const Kiv::AttributeId attribute : {1U, 516U, 518U})
        this->machine(5)->resPtr()->publisher().publish(attribute);
    EXPECT_TRUE(traces.lines().empty());
    this->machine(5)->resPtr()->publisher().publish(517U);
    EXPECT_FALSE(traces.lines().empty());
}

TYPED_TEST(ResourceChange, AfterItsReleaseIsTracedAndIgnored) {
    this->committedAction(1, 5);
    const auto resource = this->machine(5)->resPtr();
    const_cast<typename TypeParam::L::ResourceHandle&>(*resource).postReleaseProtoStateIs(true);
    const TraceCapture traces;
    this->changed(resource);
    EXPECT_EQ(this->steps(traces), Messages{"Ignoring change for resourceKey: 00000005/0 "});
}

TYPED_TEST(ResourceChange, WithNotificationsOffDoesNothing) {
    this->committedAction(1, 5);
    this->machine(5)->hasNotificationActiveIs(false);
    const TraceCapture traces;
    this->changed(this->machine(5)->resPtr());
    EXPECT_TRUE(traces.lines().empty());
}

TYPED_TEST(ResourceChange, AtTeardownDoesNothing) {
    this->committedAction(1, 5);
    const auto machine = this->machine(5);
    machine->kivDoZombieReactors();
    machine->hasNotificationActiveIs(false);
    machine->hasNotificationActiveIs(true);
    const TraceCapture traces;
    this->changed(machine->resPtr());
    EXPECT_TRUE(traces.lines().empty());
}

TYPED_TEST(ResourceChange, WithoutUsersIsAcknowledgedWithoutAHandle) {
    this->committedAction(1, 5);
    this->agent.acknowledgeAll();
    this->machine(5)->entryUsageDelAll();
    const TraceCapture traces;
    ASSERT_TRUE(this->resources().move(this->rkey(5)));
    this->agent.settle();
    EXPECT_EQ(this->steps(traces), Messages{"acknowledged"});
    EXPECT_EQ(this->version(), 1U);
    EXPECT_EQ(this->resources().pool().returning, 0U) << "no handle ends the old use at once";
}

TYPED_TEST(ResourceChange, OfUsersThatAreGoneIsAcknowledgedWithoutAHandle) {
    this->committedAction(1, 5);
    this->agent.acknowledgeAll();
    this->machine(5)->entryUsageDelAll();
    this->machine(5)->entryUsageIs(this->key(9));
    const TraceCapture traces;
    ASSERT_TRUE(this->resources().move(this->rkey(5)));
    this->agent.settle();
    EXPECT_EQ(this->steps(traces), (Messages{this->updating(9), "acknowledged"}));
    EXPECT_EQ(this->resources().pool().returning, 0U);
}

TYPED_TEST(ResourceChange, IsAcknowledgedWithTheLastUserThatIsStillThere) {
    this->committedAction(1, 5);
    this->agent.acknowledgeAll();
    const auto machine = this->machine(5);
    std::uint32_t absent = 2;
    for (;; ++absent) {
        ASSERT_LT(absent, 100U);
        machine->entryUsageIs(this->key(absent));
        if (!machine->entryUsage().after(this->key(absent)))
            break;
        machine->entryUsageDel(this->key(absent));
    }
    const TraceCapture traces;
    ASSERT_TRUE(this->resources().move(this->rkey(5)));
    this->agent.settle();
    EXPECT_EQ(this->steps(traces),
              (Messages{this->updating(1), this->updating(absent), "acknowledged"}));
    EXPECT_EQ(this->resources().pool().returning, 1U) << "the committed user's change counts";
    this->agent.acknowledgeAll();
    EXPECT_EQ(this->resources().pool().returning, 0U);
}

TYPED_TEST(ResourceChange, IsNotAcknowledgedWhenAnUpdateThrows) {
    struct Throwing final : PolicyCpuTcamActionSwTableHelperBase {
        bool finalizeOnResourceUpdate(const WrapperPtr&, const TablePtr&, bool) override {
            throw std::runtime_error("hook");
        }
    };
    this->committedAction(1, 5);
    this->committedAction(2, 5);
    this->table->swTableHelperIs(Brumo::make<Throwing>());
    const TraceCapture traces;
    EXPECT_THROW(this->changed(this->machine(5)->resPtr()), std::runtime_error);
    EXPECT_EQ(this->steps(traces).size(), 1U) << "the error leaves at the first user";
}

TYPED_TEST(ResourceChange, AtInitIsHandledOnceForEachResourceInOrder) {
    for (std::uint32_t number = 1; number <= 4; ++number)
        this->committedAction(number, number);
    std::vector<std::string> expected;
    this->linkage().entryUsageSmCollection().forEach([&](const auto& resourceKey, const auto&) {
        expected.push_back(this->updating(resourceKey.requestId));
        expected.push_back("acknowledged");
    });
    const TraceCapture traces;
    this->linkage().handleResourceChangeAtInit();
    EXPECT_EQ(this->steps(traces), expected);
    EXPECT_EQ(expected.size(), 8U);
}

/// A table that nothing but the test holds, whose hook drops it at the first update.
template <class Side>
class LastReference : public LinkageFixture<Side> {
protected:
    using typename LinkageFixture<Side>::B;
    using typename LinkageFixture<Side>::L;

    struct Dropping final : PolicyCpuTcamActionSwTableHelperBase {
        bool finalizeOnResourceUpdate(const WrapperPtr&, const TablePtr&, bool) override {
            ++calls;
            drop();
            return true;
        }
        std::function<void()> drop;
        int calls = 0;
    };

    void SetUp() override {
        this->table = Brumo::make<PolicyCpuTcamActionSwTable>(nullptr, B::kTableId, Asic::UnitId{1},
                                                              nullptr, this->table->entryLog(),
                                                              this->table->groupResolver());
        this->table->template linkageIs<L>(
            Brumo::make<Linkage<B, L>>(this->table.get(), this->resources().makeClientInstance()));
        this->committedAction(1, 5);
        this->committedAction(2, 5);
        helper->drop = [this] { this->table = nullptr; };
        this->table->swTableHelperIs(helper);
    }

    Brumo::Ptr<Dropping> helper = Brumo::make<Dropping>();
};
TYPED_TEST_SUITE(LastReference, BothSides, SideName);

TYPED_TEST(LastReference, MayGoWithTheHookOfAResourceChange) {
    const TraceCapture traces;
    ASSERT_TRUE(this->resources().move(this->rkey(5)));
    this->agent.settle();
    EXPECT_EQ(this->table, nullptr);
    EXPECT_EQ(this->helper->calls, 2) << "the table lives until all users are up to date";
    EXPECT_EQ(this->calls(traces, "ackUpdate"), 1U);
}

TYPED_TEST(LastReference, LeavesAMachineThatStaysSilent) {
    const auto machine = this->machine(5);
    const auto resource = machine->resPtr();
    this->helper = nullptr;
    this->table = nullptr;
    const TraceCapture traces;
    resource->publishState();
    EXPECT_TRUE(traces.lines().empty());
    EXPECT_EQ(machine->entryUsage().size(), 2U);
}

TYPED_TEST(LastReference, MayGoWithTheHookOfAChangeAtInit) {
    const TraceCapture traces;
    this->linkage().handleResourceChangeAtInit();
    EXPECT_EQ(this->table, nullptr);
    EXPECT_EQ(this->helper->calls, 2);
    EXPECT_EQ(this->calls(traces, "ackUpdate"), 1U);
}

// The real resource tables: moves, failures, exhaustion.

TYPED_TEST(ResourceChange, OfAMoveBringsTheNewIndexToAllUsers) {
    for (std::uint32_t number : {1U, 2U, 3U})
        this->committedAction(number, 5);
    this->agent.acknowledgeAll();
    const std::uint32_t before = this->committedIndex(1);
    ASSERT_TRUE(this->resources().move(this->rkey(5)));
    const TraceCapture traces;
    this->agent.settle();
    const std::uint32_t after = TypeParam::index(*this->machine(5)->resPtr());
    EXPECT_NE(after, before);
    for (std::uint32_t number : {1U, 2U, 3U})
        EXPECT_EQ(this->committedIndex(number), after);
    EXPECT_EQ(this->version(), 6U);
    EXPECT_EQ(this->calls(traces, "ackUpdate"), 1U);
    EXPECT_EQ(this->table->stats()->updateCnt(), 3U);
}

TYPED_TEST(ResourceChange, OfAMoveReturnsTheOldIndexOnceTheLastUpdateIsAcknowledged) {
    for (std::uint32_t number : {1U, 2U, 3U})
        this->committedAction(number, 5);
    this->agent.acknowledgeAll();
    ASSERT_TRUE(this->resources().move(this->rkey(5)));
    this->agent.settle();
    const auto tableId = this->table->tableId();
    EXPECT_EQ(this->resources().pool().returning, 1U);
    this->agent.acknowledge(tableId, 5);
    EXPECT_EQ(this->resources().pool().returning, 1U);
    this->agent.acknowledge(tableId, 6);
    EXPECT_EQ(this->resources().pool().returning, 0U);
    EXPECT_EQ(this->resources().pool().used, 1U);
    this->resources().assertConsistent();
}

TYPED_TEST(ResourceChange, OfAFailureTellsTheHookAndWritesNothingNew) {
    this->committedAction(1, 5);
    const auto helper = this->notingHelper();
    ASSERT_TRUE(this->resources().fail(this->rkey(5)));
    this->agent.settle();
    EXPECT_EQ(helper->calls, Messages{"update with failure"});
    EXPECT_EQ(this->table->stats()->updateWithFailedResourceCnt(), 1U);
    EXPECT_EQ(this->version(), 1U) << "a lost resource keeps its index";
    ASSERT_TRUE(this->resources().restore(this->rkey(5)));
    this->agent.settle();
    EXPECT_EQ(helper->calls, (Messages{"update with failure", "update"}));
}

TYPED_TEST(ResourceChange, HoldsForTheUsersOfThatResourceOnly) {
    this->committedAction(1, 5);
    this->committedAction(2, 6);
    const TraceCapture traces;
    this->changed(this->machine(6)->resPtr());
    EXPECT_EQ(this->steps(traces), (Messages{this->updating(2), "acknowledged"}));
}

TYPED_TEST(ResourceChange, MayRemoveAUserFromWithinTheHook) {
    struct Removing final : PolicyCpuTcamActionSwTableHelperBase {
        bool finalizeOnResourceUpdate(const WrapperPtr&, const TablePtr&, bool) override {
            usage->entryUsageDelAll();
            return true;
        }
        Brumo::Ptr<typename Linkage<PolicyCpuTcamActionBinding, typename TypeParam::L>::UsageSm>
            usage;
    };
    this->committedAction(1, 5);
    this->committedAction(2, 5);
    const auto helper = Brumo::make<Removing>();
    helper->usage = this->machine(5);
    this->table->swTableHelperIs(helper);
    const TraceCapture traces;
    this->changed(this->machine(5)->resPtr());
    EXPECT_EQ(this->steps(traces).size(), 2U) << "one update, one acknowledgement";
}

/// Both orders: the update of the last user in the set's order may have either version.
TYPED_TEST(ResourceChange, OfSeveralAtOnceReturnsAnIndexOnlyWhenAllUpdatesAreAcknowledged) {
    using Other =
        std::conditional_t<std::is_same_v<TypeParam, CounterSide>, PolicerSide, CounterSide>;
    for (const bool upwards : {true, false}) {
        for (std::uint32_t number : {1U, 2U}) {
            auto shared = this->action(number, 5);
            Other::request(shared, 10 + number);
            this->table->entryWrite(this->key(number), shared, nullptr);
        }
        this->agent.settle();
        this->agent.acknowledgeAll();
        const std::uint64_t before = this->version();
        auto& others = Other::resources(this->agent);
        ASSERT_TRUE(others.move({upwards ? 11U : 12U, 0, 0}));
        ASSERT_TRUE(others.move({upwards ? 12U : 11U, 0, 0}));
        ASSERT_TRUE(this->resources().move(this->rkey(5)));
        this->agent.settle();
        ASSERT_EQ(this->version(), before + 2) << "one update brings both of an entry's indexes";
        this->agent.acknowledge(this->table->tableId(), before + 1);
        EXPECT_EQ(this->resources().pool().returning, 1U) << "an entry still has the old index";
        this->agent.acknowledge(this->table->tableId(), before + 2);
        EXPECT_EQ(this->resources().pool().returning, 0U);
        this->resources().assertConsistent();
    }
}

/// Pools of one index.
template <class Side>
class SmallPool : public LinkageFixture<Side> {
protected:
    SmallPool() : LinkageFixture<Side>({.counters = 1, .policers = 1}) {}
};
TYPED_TEST_SUITE(SmallPool, BothSides, SideName);

TYPED_TEST(SmallPool, GivesAFreedIndexToAnEntryThatWasCommittedWithoutOne) {
    const auto helper = this->notingHelper();
    helper->commitFailed = 1;
    this->committedAction(1, 5);
    this->committedAction(2, 6);
    EXPECT_EQ(this->committedIndex(2), TypeParam::kNoIndex);
    ASSERT_NE(this->machine(6), nullptr) << "it uses what it waits for";
    this->remove(1);
    this->agent.settle();
    EXPECT_EQ(this->committedIndex(2), TypeParam::kNoIndex) << "the hardware still uses the index";
    this->agent.acknowledgeAll();
    this->agent.settle();
    EXPECT_EQ(this->committedIndex(2), TypeParam::index(*this->machine(6)->resPtr()));
    EXPECT_NE(this->committedIndex(2), TypeParam::kNoIndex);
    EXPECT_EQ(helper->calls.back(), "update");
}

TYPED_TEST(SmallPool, IsNotHeldByAWriteThatFailed) {
    const auto failed = this->table->entryWrite(
        this->key(1), this->action(1, 5), Brumo::make<ForeignChange>(Asic::EntryState::failed));
    this->agent.settle();
    EXPECT_EQ(failed->entryState(), Asic::EntryState::failed);
    this->writeAction(1, 0);  // drops what the failed write left staged
    this->agent.settle();
    EXPECT_EQ(this->resources().pool().used, 0U);
    const auto other = this->writeAction(2, 6);
    this->agent.settle();
    EXPECT_EQ(other->entryState(), Asic::EntryState::written);
}

}  // namespace
