// When a change may be committed, and what it waits for when not.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using Cause = Asic::Blocker::Cause;

template <class B>
class Resolution : public SwTableFixture<B> {};
TYPED_TEST_SUITE(Resolution, AllBindings, TableName);

TYPED_TEST(Resolution, OfAWriteWithoutDependencyIsGivenAndTraced) {
    const auto change = this->change(Asic::EntryFlags::write, this->wrapper(1));
    const TraceCapture traces;
    EXPECT_TRUE(this->table->isResolverEntryResolved(change));
    EXPECT_EQ(change->blocker().cause, Cause::none);
    EXPECT_EQ(traces.texts(this->name(), 3),
              std::vector<std::string>{"key: " + this->text(1) +
                                       ", isEntryDeleted: false, isTableDeleted: false, "
                                       "resolved: true"});
}

TYPED_TEST(Resolution, OfARemoveSaysSoInItsTrace) {
    const auto change = this->change(Asic::EntryFlags::entryDelete, this->wrapper(1));
    const TraceCapture traces;
    EXPECT_TRUE(this->table->isResolverEntryResolved(change));
    EXPECT_TRUE(traces.has(
        this->name(), 3,
        "key: " + this->text(1) + ", isEntryDeleted: true, isTableDeleted: false, resolved: true"));
}

TYPED_TEST(Resolution, OfARemoveAllSaysSoInItsTrace) {
    const auto change = this->change(Asic::EntryFlags::tableDelete, this->wrapper(0));
    const TraceCapture traces;
    EXPECT_TRUE(this->table->isResolverEntryResolved(change));
    EXPECT_TRUE(traces.has(
        this->name(), 3,
        "key: " + this->text(0) + ", isEntryDeleted: false, isTableDeleted: true, resolved: true"));
}

TYPED_TEST(Resolution, RefreshesResourcesOfAWriteOnly) {
    const auto refreshes = [&](Asic::EntryFlags flags) {
        const auto change = this->change(flags, this->wrapper(1));
        const TraceCapture traces;
        EXPECT_TRUE(this->table->isResolverEntryResolved(change));
        return traces.count(this->name(), 8, "key: " + this->text(1) + ", refresh: true");
    };
    EXPECT_EQ(refreshes(Asic::EntryFlags::write), 1U);
    EXPECT_EQ(refreshes(Asic::EntryFlags::tableDelete), 1U);
    EXPECT_EQ(refreshes(Asic::EntryFlags::entryDelete), 0U);
}

TYPED_TEST(Resolution, WaitsForADependencyInState0AndNamesIt) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::created);
    const auto change = this->change(Asic::EntryFlags::write, this->wrapper(1), dependency);
    const TraceCapture traces;
    EXPECT_FALSE(this->table->isResolverEntryResolved(change));
    EXPECT_EQ(change->blocker().cause, Cause::dependency);
    EXPECT_EQ(change->blocker().entity, dependency);
    EXPECT_EQ(
        traces.texts(this->name(), 3),
        std::vector<std::string>{"key: " + this->text(1) + " dependant entry not yet resolved"});
    EXPECT_EQ(traces.count(this->name(), 8, "key: " + this->text(1) + ", refresh: true"), 0U)
        << "resources are asked for behind the dependency";
}

TYPED_TEST(Resolution, TakesEveryOtherStateOfADependencyForResolved) {
    for (const unsigned state : {1U, 2U, 3U, 4U, 5U, 6U}) {
        const auto dependency = Brumo::make<ForeignChange>(static_cast<Asic::EntryState>(state));
        const auto change = this->change(Asic::EntryFlags::write, this->wrapper(1), dependency);
        const TraceCapture traces;
        EXPECT_TRUE(this->table->isResolverEntryResolved(change)) << state;
        EXPECT_TRUE(
            traces.has(this->name(), 3, "key: " + this->text(1) + " dependant entry is resolved"))
            << state;
    }
}

TYPED_TEST(Resolution, ChangesNothingAndMayBeAskedAgain) {
    const auto change = this->change(Asic::EntryFlags::write, this->wrapper(1));
    EXPECT_TRUE(this->table->isResolverEntryResolved(change));
    EXPECT_TRUE(this->table->isResolverEntryResolved(change));
    EXPECT_EQ(this->version(), 0U);
    EXPECT_EQ(this->table->stats()->commitCnt(), 0U);
    EXPECT_EQ(change->entryWrapper()->entryHandle()->entryState(), Asic::EntryState::created);
}

// The resources of an action. Its keys are the default ones here, so the resolution leaves the
// slots as the test fills them.

class ActionResolution : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    static auto counter(std::uint8_t state) {
        const auto handle = Brumo::make<CrpsIndexRequestBinding::ResourceHandle>(
            CrpsIndexRequestBinding::ResourceKey{77});
        handle->entryStateIs(static_cast<State>(state));
        return handle;
    }
    static auto policer(std::uint8_t state) {
        const auto handle = Brumo::make<PolicerIndexRequestBinding::ResourceHandle>(
            PolicerIndexRequestBinding::ResourceKey{78});
        handle->entryStateIs(static_cast<State>(state));
        return handle;
    }
};

TEST_F(ActionResolution, WaitsForTheCounterAndDoesNotAskThePolicer) {
    const auto wrapper = this->wrapper(1);
    const auto pending = counter(0);
    wrapper->resourceIs<CrpsIndexRequestBinding>(pending);
    wrapper->resourceIs<PolicerIndexRequestBinding>(policer(2));  // asking it would end the process
    const auto change = this->change(Flags::write, wrapper);
    const TraceCapture traces;
    EXPECT_FALSE(table->isResolverEntryResolved(change));
    EXPECT_EQ(change->blocker().cause, Cause::resource);
    EXPECT_EQ(change->blocker().entity, pending);
    EXPECT_EQ(traces.texts(name(), 3),
              std::vector<std::string>{"SwTable key: " + text(1) +
                                       ", resourceKey: 00000000/0 is still unresolved!"});
}

TEST_F(ActionResolution, WaitsForThePolicer) {
    const auto wrapper = this->wrapper(1);
    const auto pending = policer(1);
    wrapper->resourceIs<CrpsIndexRequestBinding>(counter(4));
    wrapper->resourceIs<PolicerIndexRequestBinding>(pending);
    const auto change = this->change(Flags::write, wrapper);
    EXPECT_FALSE(table->isResolverEntryResolved(change));
    EXPECT_EQ(change->blocker().entity, pending);
}

TEST_F(ActionResolution, NamesTheResourceKeyThatItWaitsFor) {
    auto entry = actionEntry(1, 5, 6);
    const auto change = this->change(Flags::write, Brumo::make<Wrapper>(entry, handle(1)));
    const TraceCapture traces;
    EXPECT_FALSE(table->isResolverEntryResolved(change));
    EXPECT_TRUE(traces.has(name(), 3,
                           "SwTable key: " + actionKey(1).toText() +
                               ", resourceKey: 00000005/0 is still unresolved!"));
    EXPECT_EQ(change->blocker().entity, change->entryWrapper()->counterRequestKeyResPtr());
}

TEST_F(ActionResolution, NamesThePolicersKeyWhenOnlyThatIsWaitedFor) {
    const auto change =
        this->change(Flags::write, Brumo::make<Wrapper>(actionEntry(1, 0, 6), handle(1)));
    const TraceCapture traces;
    EXPECT_FALSE(table->isResolverEntryResolved(change));
    EXPECT_TRUE(traces.has(name(), 3,
                           "SwTable key: " + actionKey(1).toText() +
                               ", resourceKey: 00000006/0 is still unresolved!"));
    EXPECT_EQ(change->blocker().entity, change->entryWrapper()->policerRequestKeyResPtr());
}

TEST_F(ActionResolution, TakesFailedResourcesForResolved) {
    for (const std::uint8_t failed : {std::uint8_t{3}, std::uint8_t{5}, std::uint8_t{6}}) {
        const auto wrapper = this->wrapper(1);
        wrapper->resourceIs<CrpsIndexRequestBinding>(counter(failed));
        wrapper->resourceIs<PolicerIndexRequestBinding>(policer(failed));
        EXPECT_TRUE(table->isResolverEntryResolved(change(Flags::write, wrapper))) << +failed;
    }
}

TEST_F(ActionResolution, OfARemoveNeverWaitsForResources) {
    const auto wrapper = this->wrapper(1);
    wrapper->resourceIs<CrpsIndexRequestBinding>(counter(0));
    EXPECT_TRUE(table->isResolverEntryResolved(change(Flags::entryDelete, wrapper)));
}

// The real way: what waits is committed when, and only when, what it waits for has moved.

TEST_F(ActionResolution, LetsAnActionInWhenItsResourcesAreAllocated) {
    const auto handle = table->entryWrite(actionKey(1), actionEntry(1, 5, 6), nullptr);
    EXPECT_EQ(handle->entryState(), State::created);
    agent.settle();
    EXPECT_EQ(handle->entryState(), State::written);
    EXPECT_TRUE(table->entryFromConfig(actionKey(1)).counterIndex != kNoCounterIndex);
}

TYPED_TEST(Resolution, WakesAChangeWhenItsDependencyMoves) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::created);
    const auto handle = this->table->entryWrite(this->key(1), this->entry(1), dependency);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    dependency->entryStateIs(Asic::EntryState::written);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
}

TYPED_TEST(Resolution, OfOneKeyHoldsNoOtherKeyUp) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::created);
    this->table->entryWrite(this->key(1), this->entry(1), dependency);
    const auto other = this->write(2);
    this->agent.settle();
    EXPECT_EQ(other->entryState(), Asic::EntryState::written);
}

// A full change log.

template <class B>
class FullLog : public SwTableFixture<B> {
protected:
    static constexpr std::uint64_t kMost = 999999;

    FullLog() : SwTableFixture<B>({.capacityCeiling = 1048576}) {}

    /// Puts records into the log that no change of this table made, far behind its own versions.
    void fillTo(std::uint64_t records) {
        auto& log = this->changeLog();
        while (log.entryLogConfigs() < records) {
            typename VornPolicyCpu::EntryLog<B>::Record record;
            record.version = {++filled};
            ASSERT_TRUE(log.entryLogConfigIs(record));
        }
    }

    /// As cleanup does when the hardware side has consumed the oldest of them.
    void makeRoomForOne() {
        this->changeLog().entryLogConfigDel({++reclaimed});
        this->table->tableStatusVersion({0});
    }

    std::uint64_t filled = 10000;
    std::uint64_t reclaimed = filled;
};
TYPED_TEST_SUITE(FullLog, AllBindings, TableName);

TYPED_TEST(FullLog, HoldsEveryChangeBackAbove999999Records) {
    this->fillTo(this->kMost);
    const auto write = this->change(Asic::EntryFlags::write, this->wrapper(1));
    const auto remove = this->change(Asic::EntryFlags::entryDelete, this->wrapper(1));
    const auto removeAll = this->change(Asic::EntryFlags::tableDelete, this->wrapper(0));
    EXPECT_TRUE(this->table->isResolverEntryResolved(write)) << "999,999 records are not too many";

    this->fillTo(this->kMost + 1);
    const TraceCapture traces;
    for (const auto& change : {write, remove, removeAll}) {
        EXPECT_FALSE(this->table->isResolverEntryResolved(change));
        EXPECT_EQ(change->blocker().cause, Cause::logFull);
        EXPECT_EQ(change->blocker().entity, nullptr);
    }
    EXPECT_EQ(traces.texts(this->name(), 1),
              (std::vector<std::string>{
                  "key: " + this->text(1) + ", isEntryDeleted: false : no space in entryLog!",
                  "key: " + this->text(1) + ", isEntryDeleted: true : no space in entryLog!",
                  "key: " + this->text(0) + ", isEntryDeleted: false : no space in entryLog!"}));
    EXPECT_TRUE(traces.texts(this->name(), 3).empty()) << "nothing else was looked at";
}

TYPED_TEST(FullLog, LetsWaitingChangesInWhenCleanupHasMadeRoom) {
    this->fillTo(this->kMost + 1);
    const auto first = this->write(1);
    const auto second = this->remove(2);
    this->agent.settle();
    EXPECT_EQ(first->entryState(), Asic::EntryState::created);
    EXPECT_EQ(second->entryState(), Asic::EntryState::created);
    this->makeRoomForOne();
    this->agent.settle();
    EXPECT_EQ(first->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->changeLog().entryLogConfigs(), this->kMost + 1);
    EXPECT_EQ(second->entryState(), Asic::EntryState::created) << "the write took the room";
    this->makeRoomForOne();
    this->agent.settle();
    EXPECT_EQ(second->entryState(), Asic::EntryState::complete);
}

}  // namespace
