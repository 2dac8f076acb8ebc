// Requesting resources for entries, and what a linkage says of them.
#include <gtest/gtest.h>

#include "tests/linkage/LinkageFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class Side>
class Resolve : public LinkageFixture<Side> {};
TYPED_TEST_SUITE(Resolve, BothSides, SideName);

TYPED_TEST(Resolve, OfAnEntryThatNeedsNothingMakesNoRequest) {
    const auto wrapper = this->wrapperOf(1, 0);
    const TraceCapture traces;
    this->linkage().resolveEntry(wrapper);
    EXPECT_EQ(this->calls(traces, "request"), 0U);
    EXPECT_EQ(this->linkage().resourceOf(*wrapper), nullptr);
    EXPECT_EQ(this->linkage().entryResolutionState(wrapper), Asic::EntryState::complete);
}

TYPED_TEST(Resolve, RequestsTheEntrysResource) {
    const auto wrapper = this->wrapperOf(1, 5);
    const TraceCapture traces;
    this->linkage().resolveEntry(wrapper);
    EXPECT_EQ(this->calls(traces, "request"), 1U);
    const auto resource = this->linkage().resourceOf(*wrapper);
    ASSERT_NE(resource, nullptr);
    EXPECT_TRUE(resource->key().isEq(this->rkey(5)));
    EXPECT_EQ(this->linkage().entryResolutionState(wrapper), Asic::EntryState::created);
    this->agent.settle();
    EXPECT_EQ(this->linkage().entryResolutionState(wrapper), Asic::EntryState::complete);
}

TYPED_TEST(Resolve, RequestsAgainWhenRepeatedAndKeepsTheSameHandle) {
    const auto wrapper = this->wrapperOf(1, 5);
    this->linkage().resolveEntry(wrapper);
    const auto resource = this->linkage().resourceOf(*wrapper);
    const TraceCapture traces;
    this->linkage().resolveEntry(wrapper);
    EXPECT_EQ(this->calls(traces, "request"), 1U);
    EXPECT_EQ(this->linkage().resourceOf(*wrapper), resource);
}

TYPED_TEST(Resolve, ReplacesTheHandleOfAnotherKey) {
    const auto wrapper = this->wrapperOf(1, 5);
    this->linkage().resolveEntry(wrapper);
    TypeParam::request(wrapper->entry(), 6);
    this->linkage().resolveEntry(wrapper);
    EXPECT_TRUE(this->linkage().resourceOf(*wrapper)->key().isEq(this->rkey(6)));
}

TYPED_TEST(Resolve, WithADefaultKeyKeepsTheOldHandleAndItsState) {
    const auto wrapper = this->wrapperOf(1, 5);
    this->linkage().resolveEntry(wrapper);
    const auto resource = this->linkage().resourceOf(*wrapper);
    TypeParam::request(wrapper->entry(), 0);
    this->linkage().resolveEntry(wrapper);
    EXPECT_EQ(this->linkage().resourceOf(*wrapper), resource);
    EXPECT_EQ(this->linkage().entryResolutionState(wrapper), Asic::EntryState::created);
}

TYPED_TEST(Resolve, TakesTheKeyFromItsFieldOfTheEntry) {
    EXPECT_TRUE(this->linkage().resourceKeyFromEntry(this->action(1, 5)).isEq(this->rkey(5)));
}

TEST(PolicerRequest, CarriesTheClientDataOfTheEntry) {
    InProcessAgent agent;
    const auto table = agent.actionTable();
    auto entry = actionEntry(1, 0, 6);
    entry.policerClientData.rate = 4242;
    table->entryWrite(actionKey(1), entry, nullptr);
    agent.settle();
    const auto machine = table->policerIndexRequestLinkage()->entryUsageSm({6});
    EXPECT_EQ(machine->resPtr()->clientData(), entry.policerClientData);
}

// Resolution states.

template <class Side>
class ResolutionState : public LinkageFixture<Side> {
protected:
    Asic::EntryState of(unsigned state) {
        const auto wrapper = this->wrapperOf(1, 0);
        wrapper->template resourceIs<typename Side::L>(this->resourceIn(state));
        return this->linkage().entryResolutionState(wrapper);
    }
};
TYPED_TEST_SUITE(ResolutionState, BothSides, SideName);

TYPED_TEST(ResolutionState, WithoutWrapperOrHandleIsResolved) {
    EXPECT_EQ(this->linkage().entryResolutionState(nullptr), Asic::EntryState::complete);
    EXPECT_EQ(this->linkage().entryResolutionState(this->wrapperOf(1, 5)),
              Asic::EntryState::complete);
}

TYPED_TEST(ResolutionState, FollowsTheHandle) {
    EXPECT_EQ(static_cast<int>(this->of(0)), 0);
    EXPECT_EQ(static_cast<int>(this->of(1)), 0);
    EXPECT_EQ(static_cast<int>(this->of(3)), 6);
    EXPECT_EQ(static_cast<int>(this->of(4)), 4);
    EXPECT_EQ(static_cast<int>(this->of(5)), 6);
    EXPECT_EQ(static_cast<int>(this->of(6)), 6);
}

TYPED_TEST(ResolutionState, DoesNotExistFor2AndAbove6) {
    for (const unsigned state : {2U, 7U, 255U}) {
        EXPECT_DEATH(this->of(state),
                     R"(assertion failed: false && "Unhandled resHandle entryState")"
                     R"( \(OrderedTableResourceAccessor:144\))");
    }
}

// Reconnecting.

template <class Side>
class SetResourceHandle : public LinkageFixture<Side> {};
TYPED_TEST_SUITE(SetResourceHandle, BothSides, SideName);

TYPED_TEST(SetResourceHandle, WithoutStateMachineLeavesTheSlotAlone) {
    const auto wrapper = this->wrapperOf(1, 5);
    this->linkage().setResourceHandle(wrapper);
    EXPECT_EQ(this->linkage().resourceOf(*wrapper), nullptr);
    const auto other = this->resourceIn(4, 9);
    wrapper->template resourceIs<typename TypeParam::L>(other);
    this->linkage().setResourceHandle(wrapper);
    EXPECT_EQ(this->linkage().resourceOf(*wrapper), other);
}

TYPED_TEST(SetResourceHandle, TakesTheTrackedHandleWithoutARequest) {
    this->committedAction(1, 5);
    const auto wrapper = this->wrapperOf(2, 5);
    wrapper->template resourceIs<typename TypeParam::L>(this->resourceIn(4, 9));
    const TraceCapture traces;
    this->linkage().setResourceHandle(wrapper);
    EXPECT_EQ(this->linkage().resourceOf(*wrapper), this->machine(5)->resPtr());
    EXPECT_EQ(this->calls(traces, "request"), 0U);
}

// Needed versions.

template <class Side>
class Needed : public LinkageFixture<Side> {};
TYPED_TEST_SUITE(Needed, BothSides, SideName);

TYPED_TEST(Needed, IsNothingWithoutWrapperOrHandle) {
    const TraceCapture traces;
    EXPECT_TRUE(this->linkage().getNeededEntrySet(nullptr)->empty());
    EXPECT_TRUE(this->linkage().getNeededEntrySet(this->wrapperOf(1, 5))->empty());
    EXPECT_TRUE(traces.lines().empty());
}

TYPED_TEST(Needed, IsWhatTheHandleNeedsInItsOrder) {
    const auto resource = this->resourceIn(4);
    const Asic::TableVersion first{Asic::SwTableId(0x2C010002), {7}};
    const Asic::TableVersion second{Asic::SwTableId(0x2C010001), {9}};
    resource->neededVersionsIs({first, second});
    const auto wrapper = this->wrapperOf(1, 5);
    wrapper->template resourceIs<typename TypeParam::L>(resource);
    const TraceCapture traces;
    const auto needed = this->linkage().getNeededEntrySet(wrapper);
    ASSERT_EQ(needed->size(), 2U);
    EXPECT_EQ(*needed->begin(), first);
    EXPECT_EQ(*(needed->begin() + 1), second);
    ASSERT_EQ(traces.lines().size(), 2U);
    EXPECT_EQ(traces.lines()[0].handle, this->traced());
    EXPECT_EQ(traces.lines()[0].level, 9);
    EXPECT_EQ(traces.lines()[0].function, "getNeededEntrySet");
    EXPECT_EQ(traces.lines()[0].text, "neededVersion: 7");
    EXPECT_EQ(traces.lines()[1].text, "neededVersion: 9");
}

TYPED_TEST(Needed, TravelsIntoTheLogWithTheChange) {
    this->committedAction(1, 5);
    const auto needed = this->neededOf(1);
    ASSERT_EQ(needed.size(), 1U);
    EXPECT_EQ(needed[0].tableId, this->resources().tableId().whole());
}

// Restored entries.

template <class Side>
class RestoreEntry : public LinkageFixture<Side> {};
TYPED_TEST_SUITE(RestoreEntry, BothSides, SideName);

TYPED_TEST(RestoreEntry, RecordsNothingForNoWrapperAndNoResource) {
    const TraceCapture traces;
    this->linkage().restoreEntry(nullptr);
    this->linkage().restoreEntry(this->wrapperOf(1, 0));
    EXPECT_EQ(this->linkage().entryUsageSms(), 0U);
    EXPECT_TRUE(traces.lines().empty());
}

TYPED_TEST(RestoreEntry, RecordsTheUseWithoutAWordToTheResourceTable) {
    const auto wrapper = this->wrapperOf(1, 5);
    this->linkage().resolveEntry(wrapper);
    const TraceCapture traces;
    this->linkage().restoreEntry(wrapper);
    ASSERT_NE(this->machine(5), nullptr);
    EXPECT_TRUE(this->machine(5)->entryUsage().contains(this->key(1)));
    EXPECT_TRUE(this->messages(traces).empty());
    EXPECT_EQ(this->calls(traces, "request"), 0U);
}

// Construction.

TYPED_TEST(Resolve, MadeByItsFactoryKnowsTableAndClientAndUsesNothing) {
    const auto client = this->resources().makeClientInstance();
    const auto check = [&](const auto& made) {
        EXPECT_EQ(made->swTable(), this->table.get());
        EXPECT_EQ(made->resTblClient(), client);
        EXPECT_EQ(made->entryUsageSms(), 0U);
    };
    if constexpr (std::is_same_v<TypeParam, CounterSide>) {
        check(policyCpuTcamActionCrpsIndexRequestLinkageFactory(this->table.get(), client));
    } else {
        check(policyCpuTcamActionPolicerIndexRequestLinkageFactory(this->table.get(), client));
    }
}

}  // namespace
