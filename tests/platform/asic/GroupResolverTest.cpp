#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/platform/asic/Fakes.h"

namespace AsicTests {
namespace {

using Asic::Blocker;
using Asic::EntryFlags;
using testing::ElementsAre;
using testing::IsEmpty;

class GroupResolverTest : public testing::Test {
protected:
    using Change = Brumo::Ptr<FakeChange>;

    Change change(const std::string& name, std::uint64_t key,
                  EntryFlags flags = EntryFlags::write) {
        return Brumo::make<FakeChange>(journal_, table_.get(), key, name, flags);
    }
    Change queued(const std::string& name, std::uint64_t key,
                  EntryFlags flags = EntryFlags::write) {
        const Change made = change(name, key, flags);
        resolver_->resolverQueueEnq(made);
        return made;
    }
    Change waiting(const std::string& name, std::uint64_t key,
                   const Brumo::Ptr<Kiv::Entity>& blocker, EntryFlags flags = EntryFlags::write) {
        const Change made = change(name, key, flags);
        made->waitsFor = {Blocker::Cause::resource, blocker};
        resolver_->resolverQueueEnq(made);
        return made;
    }
    static void free(const Change& change, const Brumo::Ptr<Kiv::Entity>& blocker) {
        change->waitsFor = {};
        blocker->publisher().publish(1);
    }
    void settle() { ASSERT_TRUE(loop_.runUntilIdle()); }
    const std::vector<std::string>& committed() const { return journal_.committed; }

    Kiv::ManualEventLoop loop_;
    Journal journal_;
    Brumo::Ptr<Asic::GroupResolver> resolver_ = Brumo::make<Asic::GroupResolver>(loop_);
    Brumo::Ptr<FakeTable> table_ = Brumo::make<FakeTable>(resolver_);
    Brumo::Ptr<Kiv::Entity> blocker_ = Brumo::make<Kiv::Entity>();
};

TEST_F(GroupResolverTest, CommitsOnALaterTurnAndOnce) {
    queued("a", 1);
    EXPECT_THAT(committed(), IsEmpty());
    EXPECT_EQ(resolver_->queued(), 1U);
    settle();
    settle();
    EXPECT_THAT(committed(), ElementsAre("a"));
    EXPECT_EQ(resolver_->queued(), 0U);
}

TEST_F(GroupResolverTest, CommitsChangesOfAKeyInTheirOrder) {
    const Change first = waiting("first", 1, blocker_);
    queued("second", 1);
    queued("third", 1);
    settle();
    EXPECT_THAT(committed(), IsEmpty());
    free(first, blocker_);
    settle();
    EXPECT_THAT(committed(), ElementsAre("first", "second", "third"));
}

TEST_F(GroupResolverTest, LetsOtherKeysPassAWaitingOne) {
    const Change first = waiting("first", 1, blocker_);
    queued("other", 2);
    settle();
    EXPECT_THAT(committed(), ElementsAre("other"));
    free(first, blocker_);
    settle();
    EXPECT_THAT(committed(), ElementsAre("other", "first"));
}

TEST_F(GroupResolverTest, TakesARemoveAllForABarrier) {
    const Change earlier = waiting("earlier", 1, blocker_);
    queued("early", 2);
    queued("all", 0, EntryFlags::tableDelete);
    queued("late", 3);
    queued("all-again", 0, EntryFlags::tableDelete);
    queued("last", 3);
    settle();
    EXPECT_THAT(committed(), ElementsAre("early"));
    free(earlier, blocker_);
    settle();
    EXPECT_THAT(committed(), ElementsAre("early", "earlier", "all", "late", "all-again", "last"));
    EXPECT_EQ(resolver_->queued(), 0U);
}

TEST_F(GroupResolverTest, HoldsBackNoOtherTableForARemoveAll) {
    const Change all = change("all", 0, EntryFlags::tableDelete);
    all->waitsFor = {Blocker::Cause::dependency, blocker_};
    resolver_->resolverQueueEnq(all);
    const auto other = Brumo::make<FakeTable>(resolver_);
    resolver_->resolverQueueEnq(Brumo::make<FakeChange>(journal_, other.get(), 0U, "other"));
    settle();
    EXPECT_THAT(committed(), ElementsAre("other"));
}

TEST_F(GroupResolverTest, AsksAWaitingChangeAgainOnlyWhenItsBlockerMoves) {
    constexpr std::size_t kWaiting = 10000;
    std::vector<Brumo::Ptr<Kiv::Entity>> blockers;
    std::vector<Change> changes;
    for (std::size_t i = 0; i < kWaiting; ++i) {
        blockers.push_back(Brumo::make<Kiv::Entity>());
        changes.push_back(waiting("waiting", i, blockers.back()));
    }
    settle();
    EXPECT_EQ(journal_.questions, kWaiting);
    for (std::size_t i = 0; i < 100; ++i) {
        queued("passing", kWaiting + i);
        resolver_->updateGenId();
        settle();
    }
    EXPECT_EQ(journal_.questions, kWaiting + 100);
    blockers[4711]->publisher().publish(1);
    settle();
    EXPECT_EQ(journal_.questions, kWaiting + 101);
    EXPECT_EQ(changes[4711]->asked, 2);
    EXPECT_EQ(resolver_->queued(), kWaiting);
    std::size_t visited = 0;
    resolver_->forEachQueued([&](const Asic::QueuedChange& change) {
        EXPECT_EQ(change.hold, Asic::Hold::blocker);
        ++visited;
    });
    EXPECT_EQ(visited, kWaiting);
}

TEST_F(GroupResolverTest, WakesAllThatWaitForOneBlocker) {
    std::vector<Change> changes;
    for (std::uint64_t key = 0; key < 1000; ++key)
        changes.push_back(waiting("waiting", key, blocker_));
    settle();
    EXPECT_EQ(blocker_->publisher().observers(), 1U) << "one subscription a blocker";
    for (const Change& change : changes)
        change->waitsFor = {};
    blocker_->publisher().publish(1);
    settle();
    EXPECT_EQ(committed().size(), 1000U);
    EXPECT_EQ(blocker_->publisher().observers(), 0U);
}

TEST_F(GroupResolverTest, CommitsNoMoreThanItsBudgetInATurn) {
    resolver_->budgetIs(3);
    for (std::uint64_t key = 0; key < 7; ++key)
        queued("change", key);
    loop_.turn();
    EXPECT_EQ(committed().size(), 3U);
    loop_.turn();
    EXPECT_EQ(committed().size(), 6U);
    loop_.turn();
    EXPECT_EQ(committed().size(), 7U);
    EXPECT_TRUE(loop_.idle());
}

TEST_F(GroupResolverTest, PausesBetweenTwoCommitsAndGoesOn) {
    std::vector<bool> told;
    const auto subscription = resolver_->publisher().subscribe([&](const Kiv::Change& change) {
        EXPECT_EQ(change.attribute, Asic::GroupResolver::kSuspended);
        told.push_back(!change.oldAs<bool>());
    });
    queued("first", 1)->onCommit = [this] {
        resolver_->suspendRequestedIs(true);
        EXPECT_FALSE(resolver_->suspended()) << "taken up between two commits only";
        resolver_->maybeUpdateSuspend();
    };
    queued("second", 2);
    settle();
    EXPECT_THAT(committed(), ElementsAre("first"));
    EXPECT_TRUE(resolver_->suspended());
    queued("third", 3);
    resolver_->updateGenId();
    settle();
    EXPECT_THAT(committed(), ElementsAre("first"));
    resolver_->suspendRequestedIs(false);
    resolver_->maybeUpdateSuspend();
    settle();
    EXPECT_THAT(committed(), ElementsAre("first", "second", "third"));
    EXPECT_THAT(told, ElementsAre(true, false));
}

TEST_F(GroupResolverTest, LetsACommitEnqueueFurtherChanges) {
    queued("first", 1)->onCommit = [this] {
        queued("same-key", 1);
        queued("other-key", 2);
        queued("all", 0, EntryFlags::tableDelete);
    };
    settle();
    EXPECT_EQ(committed().size(), 4U);
    EXPECT_EQ(committed().back(), "all");
    EXPECT_EQ(resolver_->queued(), 0U);
}

TEST_F(GroupResolverTest, LetsACommitEndItsTable) {
    const auto other = Brumo::make<FakeTable>(resolver_);
    queued("first", 1)->onCommit = [this] { table_ = nullptr; };
    queued("dropped", 1);
    queued("dropped-too", 2);
    waiting("dropped-waiting", 3, blocker_);
    resolver_->resolverQueueEnq(Brumo::make<FakeChange>(journal_, other.get(), 1U, "other"));
    settle();
    EXPECT_THAT(committed(), ElementsAre("first", "other"));
    EXPECT_EQ(resolver_->queued(), 0U);
    blocker_->publisher().publish(1);
    settle();
    EXPECT_THAT(committed(), ElementsAre("first", "other"));
}

TEST_F(GroupResolverTest, DropsWhatATableLeavesBehindWhereverItWaits) {
    waiting("resource", 1, blocker_);
    const Change full = change("full", 2);
    full->waitsFor = {Blocker::Cause::logFull, nullptr};
    resolver_->resolverQueueEnq(full);
    queued("all", 0, EntryFlags::tableDelete);
    queued("held", 3);
    settle();
    EXPECT_EQ(resolver_->queued(), 4U);
    table_ = nullptr;
    EXPECT_EQ(resolver_->queued(), 0U);
    blocker_->publisher().publish(1);
    resolver_->updateGenId();
    settle();
    EXPECT_THAT(committed(), IsEmpty());
}

/// A dropped change may hold the last reference on another table, which then comes to the resolver
/// too.
TEST_F(GroupResolverTest, LetsWhatIsDroppedEndAnotherTable) {
    auto other = Brumo::make<FakeTable>(resolver_);
    const auto owns = [&other](const Change& change) {
        change->onCommit = [kept = other] { static_cast<void>(kept); };
    };
    const auto ofOther = [&](std::uint64_t key, EntryFlags flags = EntryFlags::write) {
        const auto made = Brumo::make<FakeChange>(journal_, other.get(), key, "other", flags);
        resolver_->resolverQueueEnq(made);
        return made;
    };
    for (const std::uint64_t key : {1U, 2U}) {
        owns(waiting("waiting", key, blocker_));
        ofOther(key)->waitsFor = {Blocker::Cause::resource, blocker_};
        const Change full = queued("full", 10 + key);
        full->waitsFor = {Blocker::Cause::logFull, nullptr};
        owns(full);
        ofOther(10 + key)->waitsFor = {Blocker::Cause::logFull, nullptr};
    }
    settle();
    for (const std::uint64_t key : {21U, 22U}) {
        owns(queued("ready", key));
        owns(queued("follower", key));
        ofOther(key);
        ofOther(key);
    }
    owns(queued("all", 0, EntryFlags::tableDelete));
    owns(queued("held", 3));
    ofOther(0, EntryFlags::tableDelete);
    ofOther(3);
    other = nullptr;
    table_ = nullptr;
    EXPECT_EQ(resolver_->queued(), 0U);
    blocker_->publisher().publish(1);
    resolver_->updateGenId();
    settle();
    EXPECT_THAT(committed(), IsEmpty());
}

TEST_F(GroupResolverTest, TablesWhoseLogsWereFullGoOnInTheOrderOfTheirUnits) {
    // Made the other way round, so that their places in memory would most likely say otherwise.
    std::vector<Brumo::Ptr<FakeTable>> tables;
    std::vector<Change> changes;
    for (std::uint16_t unit = 8; unit > 0; --unit) {
        tables.push_back(Brumo::make<FakeTable>(resolver_, kTable, unit));
        changes.push_back(
            Brumo::make<FakeChange>(journal_, tables.back().get(), unit, std::to_string(unit)));
        changes.back()->waitsFor = {Blocker::Cause::logFull, nullptr};
        resolver_->resolverQueueEnq(changes.back());
    }
    settle();
    for (const Change& full : changes)
        full->waitsFor = {};
    resolver_->updateGenId();
    settle();
    EXPECT_THAT(committed(), ElementsAre("1", "2", "3", "4", "5", "6", "7", "8"));
}

TEST_F(GroupResolverTest, HoldsEverythingWhileThereIsNoRoomAndThenGoesOn) {
    bool room = false;
    resolver_->hasRoomIs([&room] { return room; });
    queued("a", 1);
    queued("b", 2);
    settle();
    EXPECT_EQ(journal_.questions, 0U);
    resolver_->updateGenId();
    settle();
    EXPECT_THAT(committed(), IsEmpty());
    room = true;
    resolver_->updateGenId();
    settle();
    EXPECT_THAT(committed(), ElementsAre("a", "b"));
}

TEST_F(GroupResolverTest, AsksOneChangeATableWhetherAFullLogHasRoom) {
    std::vector<Change> changes;
    for (std::uint64_t key = 0; key < 1000; ++key) {
        changes.push_back(change("change", key));
        changes.back()->waitsFor = {Blocker::Cause::logFull, nullptr};
        resolver_->resolverQueueEnq(changes.back());
    }
    settle();
    EXPECT_EQ(journal_.questions, 1000U);
    resolver_->updateGenId();
    settle();
    EXPECT_EQ(journal_.questions, 1001U);
    for (const Change& change : changes)
        change->waitsFor = {};
    settle();
    EXPECT_EQ(committed().size(), 0U) << "nothing has said that there is room";
    resolver_->updateGenId();
    settle();
    EXPECT_EQ(committed().size(), 1000U);
}

TEST_F(GroupResolverTest, AsksWhatWaitsForAFullLogAfterAPauseThatCameBefore) {
    const Change full = queued("full", 1);
    full->waitsFor = {Blocker::Cause::logFull, nullptr};
    settle();
    full->waitsFor = {};
    resolver_->updateGenId();
    resolver_->suspendRequestedIs(true);
    resolver_->maybeUpdateSuspend();
    settle();
    EXPECT_THAT(committed(), IsEmpty());
    resolver_->suspendRequestedIs(false);
    resolver_->maybeUpdateSuspend();
    settle();
    EXPECT_THAT(committed(), ElementsAre("full"));
}

TEST_F(GroupResolverTest, AsksTheOthersThatWaitForAFullLogAfterAPause) {
    std::vector<Change> changes;
    for (std::uint64_t key = 1; key <= 3; ++key) {
        changes.push_back(queued("full", key));
        changes.back()->waitsFor = {Blocker::Cause::logFull, nullptr};
    }
    settle();
    for (const Change& change : changes)
        change->waitsFor = {};
    changes[0]->onCommit = [this] {
        resolver_->suspendRequestedIs(true);
        resolver_->maybeUpdateSuspend();
    };
    resolver_->updateGenId();
    settle();
    EXPECT_EQ(committed().size(), 1U);
    resolver_->suspendRequestedIs(false);
    resolver_->maybeUpdateSuspend();
    settle();
    EXPECT_EQ(committed().size(), 3U);
}

TEST_F(GroupResolverTest, ParksAgainWhatFindsAnotherBlocker) {
    const auto second = Brumo::make<Kiv::Entity>();
    const Change waits = waiting("waits", 1, blocker_);
    settle();
    waits->waitsFor = {Blocker::Cause::resource, second};
    blocker_->publisher().publish(1);
    settle();
    EXPECT_EQ(waits->asked, 2);
    blocker_->publisher().publish(1);
    settle();
    EXPECT_EQ(waits->asked, 2) << "it does not wait for the first any more";
    free(waits, second);
    settle();
    EXPECT_THAT(committed(), ElementsAre("waits"));
}

TEST_F(GroupResolverTest, RaisesItsGenerationWithEveryUpdate) {
    const auto before = resolver_->genId();
    resolver_->updateGenId();
    resolver_->updateGenId();
    EXPECT_EQ(resolver_->genId(), before + 2);
    EXPECT_TRUE(loop_.idle()) << "nothing waits, so there is nothing to do";
}

}  // namespace
}  // namespace AsicTests
