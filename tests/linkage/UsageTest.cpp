// Which committed entries use which resource, and what the resource table hears of it.
#include <gtest/gtest.h>

#include "tests/linkage/LinkageFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using Messages = std::vector<std::string>;

template <class Side>
class Usage : public LinkageFixture<Side> {
protected:
    using Entry = PolicyCpuTcamActionEntry;

    /// A wrapper whose resource is requested and allocated.
    auto resolved(std::uint32_t number, std::uint32_t id) {
        const auto wrapper = this->wrapperOf(number, id);
        this->linkage().resolveEntry(wrapper);
        this->agent.settle();
        return wrapper;
    }
    bool uses(std::uint32_t number, std::uint32_t id) {
        const auto machine = this->machine(id);
        return machine != nullptr && machine->entryUsage().contains(this->key(number));
    }
};
TYPED_TEST_SUITE(Usage, BothSides, SideName);

TYPED_TEST(Usage, TracesKeyFlagAndOldEntry) {
    const auto old = this->action(1, 9);
    const TraceCapture traces;
    this->linkage().updateLocalUsage(this->wrapperOf(1, 0), old, true);
    EXPECT_TRUE(
        traces.has(this->traced(), 8,
                   "key: " + this->text(1) + ", isDeleted: true, oldEntry:" + old.toText()));
    EXPECT_EQ(callsOf(traces, this->traced(), "updateLocalUsage"), 1U);
}

TYPED_TEST(Usage, OfTheFirstUserMakesAStateMachineAndAcknowledges) {
    const auto wrapper = this->resolved(1, 5);
    const TraceCapture traces;
    this->linkage().updateLocalUsage(wrapper, {}, false);
    EXPECT_TRUE(this->uses(1, 5));
    EXPECT_EQ(this->machine(5)->resPtr(), this->linkage().resourceOf(*wrapper));
    EXPECT_EQ(this->messages(traces), Messages{"ackUpdate 00000005"});
    EXPECT_TRUE(traces.has(this->traced(), 8, "resKey: 00000005/0, swKey: " + this->text(1)));
    EXPECT_EQ(callsOf(traces, this->traced(), "addResKeyMapping"), 1U);
    const auto acknowledged = "key: 00000005/0, updateVersion: " +
                              std::to_string(this->machine(5)->resPtr()->updateVersion());
    bool named = false;
    for (const std::string& text : traces.texts(TypeParam::kResources, 8))
        named = named || text.starts_with(acknowledged + ",");
    EXPECT_TRUE(named) << acknowledged;
}

TYPED_TEST(Usage, OfFurtherUsersSaysNothing) {
    this->committedAction(1, 5);
    const auto wrapper = this->resolved(2, 5);
    const TraceCapture traces;
    this->linkage().updateLocalUsage(wrapper, {}, false);
    EXPECT_EQ(this->linkage().entryUsageSms(), 1U);
    EXPECT_TRUE(this->uses(1, 5) && this->uses(2, 5));
    EXPECT_TRUE(this->messages(traces).empty());
}

TYPED_TEST(Usage, OfTheSameKeyAsBeforeChangesNothing) {
    this->committedAction(1, 5);
    const TraceCapture traces;
    this->committedAction(1, 5, 8);
    EXPECT_EQ(this->version(), 2U);
    EXPECT_TRUE(this->uses(1, 5));
    EXPECT_TRUE(this->messages(traces).empty());
    EXPECT_EQ(callsOf(traces, this->traced(), "updateLocalUsage"), 1U);
    EXPECT_EQ(callsOf(traces, this->traced(), "addResKeyMapping"), 0U);
    EXPECT_EQ(callsOf(traces, this->traced(), "deleteResKeyMapping"), 0U);
}

TYPED_TEST(Usage, MovingToAnotherKeyReleasesBeforeItAcknowledges) {
    this->committedAction(1, 5);
    const TraceCapture traces;
    this->committedAction(1, 6);
    EXPECT_EQ(this->messages(traces), (Messages{"release 00000005", "ackUpdate 00000006"}));
    EXPECT_EQ(this->machine(5), nullptr);
    EXPECT_TRUE(this->uses(1, 6));
}

TYPED_TEST(Usage, MovingAwayFromASharedKeyReleasesNothing) {
    this->committedAction(1, 5);
    this->committedAction(2, 5);
    const TraceCapture traces;
    this->committedAction(1, 6);
    EXPECT_EQ(this->messages(traces), Messages{"ackUpdate 00000006"});
    EXPECT_FALSE(this->uses(1, 5));
    EXPECT_TRUE(this->uses(2, 5));
}

TYPED_TEST(Usage, OfTheDefaultKeyIsTracedAndNotRecorded) {
    const TraceCapture traces;
    this->committedAction(1, 0);
    EXPECT_TRUE(traces.has(this->traced(), 3, "Null resKey: 00000000/0"));
    EXPECT_EQ(this->linkage().entryUsageSms(), 0U);
}

TYPED_TEST(Usage, MovingToTheDefaultKeyEndsTheOldUse) {
    this->committedAction(1, 5);
    const TraceCapture traces;
    this->committedAction(1, 0);
    EXPECT_EQ(this->messages(traces), Messages{"release 00000005"});
    EXPECT_TRUE(traces.has(this->traced(), 3, "Null resKey: 00000000/0"));
    EXPECT_EQ(this->linkage().entryUsageSms(), 0U);
    EXPECT_EQ(this->committedIndex(1), TypeParam::kNoIndex);
}

TYPED_TEST(Usage, MovingFromTheDefaultKeyAcknowledgesTheNewUse) {
    this->committedAction(1, 0, 3);
    const TraceCapture traces;
    this->committedAction(1, 5, 3);
    EXPECT_EQ(this->messages(traces), Messages{"ackUpdate 00000005"});
    EXPECT_TRUE(this->uses(1, 5));
}

TYPED_TEST(Usage, EndsWithTheLastUserOnly) {
    this->committedAction(1, 5);
    this->committedAction(2, 5);
    const auto machine = this->machine(5);
    {
        const TraceCapture traces;
        this->remove(1);
        this->agent.settle();
        EXPECT_TRUE(this->messages(traces).empty());
        EXPECT_EQ(callsOf(traces, this->traced(), "deleteResKeyMapping"), 1U);
        EXPECT_EQ(callsOf(traces, this->traced(), "addResKeyMapping"), 0U)
            << "a remove puts no other key in the old one's place";
        EXPECT_TRUE(traces.has(this->traced(), 8, "resKey: 00000005/0, swKey: " + this->text(1)));
    }
    EXPECT_TRUE(machine->hasNotificationActive());
    const TraceCapture traces;
    this->remove(2);
    this->agent.settle();
    EXPECT_EQ(this->messages(traces), Messages{"release 00000005"});
    EXPECT_EQ(this->machine(5), nullptr);
    EXPECT_FALSE(machine->hasNotificationActive());
    EXPECT_TRUE(machine->resPtr()->isPostReleaseProtoState());
}

TYPED_TEST(Usage, OfADeletedEntryThatWasNotCommittedDoesNotMatter) {
    this->committedAction(1, 5);
    const TraceCapture traces;
    this->linkage().updateLocalUsage(this->wrapperOf(1, 5), {}, true);
    EXPECT_TRUE(this->uses(1, 5));
    EXPECT_EQ(callsOf(traces, this->traced(), "deleteResKeyMapping"), 0U);
}

TYPED_TEST(Usage, OfADeletedEntryIsThatOfTheOldEntryNotOfTheWrapper) {
    this->committedAction(1, 5);
    this->linkage().updateLocalUsage(this->wrapperOf(1, 0), this->action(1, 5), true);
    EXPECT_EQ(this->machine(5), nullptr);
}

TYPED_TEST(Usage, EndedTwiceIsEndedOnce) {
    this->committedAction(1, 5);
    this->remove(1);
    this->agent.settle();
    const TraceCapture traces;
    this->linkage().updateLocalUsage(this->wrapperOf(1, 0), this->action(1, 5), true);
    EXPECT_TRUE(this->messages(traces).empty());
}

TYPED_TEST(Usage, WithoutAWrapperIsThatOfTheDefaultKey) {
    this->committedAction(1, 5);
    const TraceCapture traces;
    this->linkage().updateLocalUsage(nullptr, this->action(1, 5), false);
    EXPECT_TRUE(traces.has(this->traced(), 3, "Null resKey: 00000000/0"));
    EXPECT_TRUE(this->uses(1, 5)) << "the default key is no user";
}

TYPED_TEST(Usage, OfACommittedRemoveAllEndsForEveryEntry) {
    this->committedAction(1, 5);
    this->committedAction(2, 5);
    this->committedAction(3, 6);
    const TraceCapture traces;
    this->table->entryRemoveAll(nullptr);
    this->agent.settle();
    auto released = this->messages(traces);
    std::sort(released.begin(), released.end());
    EXPECT_EQ(released, (Messages{"release 00000005", "release 00000006"}));
    EXPECT_EQ(this->linkage().entryUsageSms(), 0U);
}

TYPED_TEST(Usage, GivesTheIndexBackWhenTheHardwareSideHasTheChange) {
    this->committedAction(1, 5);
    this->agent.acknowledgeAll();
    this->remove(1);
    this->agent.settle();
    EXPECT_EQ(this->resources().pool().returning, 1U);
    this->agent.acknowledgeAll();
    EXPECT_EQ(this->resources().pool().returning, 0U);
    EXPECT_EQ(this->resources().pool().used, 0U);
    this->resources().assertConsistent();
}

TYPED_TEST(Usage, IsUpdatedForTheCounterThenForThePolicer) {
    const TraceCapture traces;
    this->table->entryWrite(actionKey(1), actionEntry(1, 5, 6), nullptr);
    this->agent.settle();
    Messages order;
    for (const TraceLine& line : traces.lines()) {
        if (line.function == "updateLocalUsage" && line.level == 8)
            order.push_back(line.handle);
    }
    EXPECT_EQ(order, (Messages{std::string(CrpsIndexRequestBinding::kClassName),
                               std::string(PolicerIndexRequestBinding::kClassName)}));
}

// The collection of state machines.

template <class Side>
class StateMachines : public LinkageFixture<Side> {
protected:
    std::size_t publishedBy(const std::function<void()>& act) {
        std::size_t published = 0;
        const auto subscription = this->linkage().publisher().subscribe(
            [&](const Kiv::Change& change) { published += change.attribute == 1 ? 1 : 0; });
        act();
        return published;
    }
};
TYPED_TEST_SUITE(StateMachines, BothSides, SideName);

TYPED_TEST(StateMachines, AreMadeOncePerHandle) {
    const auto resource = this->resourceIn(4, 7);
    const auto made = this->linkage().entryUsageSmIs(resource);
    EXPECT_TRUE(made->hasNotificationActive());
    EXPECT_EQ(made->resPtr(), resource);
    EXPECT_EQ(made->parent(), &this->linkage());
    EXPECT_TRUE(made->entryUsage().empty());
    EXPECT_EQ(this->linkage().entryUsageSmIs(resource), made);
    EXPECT_EQ(this->machine(7), made);
    EXPECT_EQ(resource->publisher().observers(), 1U);
}

TYPED_TEST(StateMachines, AreNotMadeForNullNorForAnotherHandleOfTheKey) {
    EXPECT_THROW(this->linkage().entryUsageSmIs(nullptr), Kiv::NullArgumentError);
    EXPECT_EQ(this->linkage().entryUsageSms(), 0U);
    const auto made = this->linkage().entryUsageSmIs(this->resourceIn(4, 7));
    EXPECT_THROW(this->linkage().entryUsageSmIs(this->resourceIn(4, 7)), Kiv::ReinstantiationError);
    EXPECT_EQ(this->machine(7), made);
}

TYPED_TEST(StateMachines, ArePublishedWhenTheyComeAndGo) {
    const auto resource = this->resourceIn(4, 7);
    EXPECT_EQ(this->publishedBy([&] { this->linkage().entryUsageSmIs(resource); }), 1U);
    EXPECT_EQ(this->publishedBy([&] { this->linkage().entryUsageSmIs(resource); }), 0U);
    EXPECT_EQ(this->publishedBy([&] { this->linkage().entryUsageSmDel(this->rkey(7)); }), 1U);
    EXPECT_EQ(this->publishedBy([&] { this->linkage().entryUsageSmDel(this->rkey(7)); }), 0U);
}

TYPED_TEST(StateMachines, AreHandedOutAndSilentWhenDeleted) {
    const auto resource = this->resourceIn(4, 7);
    const auto made = this->linkage().entryUsageSmIs(resource);
    EXPECT_EQ(this->linkage().entryUsageSmDel(this->rkey(7)), made);
    EXPECT_FALSE(made->hasNotificationActive());
    EXPECT_EQ(resource->publisher().observers(), 0U);
    EXPECT_EQ(this->linkage().entryUsageSmDel(this->rkey(7)), nullptr);
}

TYPED_TEST(StateMachines, GoAllAtOnceWithoutARelease) {
    this->committedAction(1, 5);
    this->committedAction(2, 6);
    const auto machine = this->machine(5);
    const TraceCapture traces;
    EXPECT_EQ(this->publishedBy([&] { this->linkage().entryUsageSmDelAll(); }), 2U);
    EXPECT_EQ(this->linkage().entryUsageSms(), 0U);
    EXPECT_FALSE(machine->hasNotificationActive());
    EXPECT_TRUE(this->messages(traces).empty());
}

TYPED_TEST(StateMachines, SwitchNotificationsOffAndOn) {
    const auto resource = this->resourceIn(4, 7);
    const auto made = this->linkage().entryUsageSmIs(resource);
    made->hasNotificationActiveIs(true);
    EXPECT_EQ(resource->publisher().observers(), 1U);
    made->hasNotificationActiveIs(false);
    EXPECT_EQ(resource->publisher().observers(), 0U);
    made->hasNotificationActiveIs(false);
    made->hasNotificationActiveIs(true);
    EXPECT_EQ(resource->publisher().observers(), 1U);
}

TYPED_TEST(StateMachines, KeepTheirUsersAsASet) {
    const auto made = this->linkage().entryUsageSmIs(this->resourceIn(4, 7));
    made->entryUsageIs(this->key(1));
    made->entryUsageIs(this->key(1));
    made->entryUsageIs(this->key(2));
    EXPECT_EQ(made->entryUsage().size(), 2U);
    made->entryUsageDel(this->key(1));
    EXPECT_EQ(made->entryUsage().size(), 1U);
    made->entryUsageDelAll();
    EXPECT_TRUE(made->entryUsage().empty());
}

}  // namespace
