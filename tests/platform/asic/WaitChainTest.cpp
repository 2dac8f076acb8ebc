#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/asic/WaitChain.h"
#include "tests/platform/asic/Fakes.h"

namespace AsicTests {
namespace {

using Asic::Blocker;
using Asic::ChainEnd;
using Asic::EntryFlags;
using Asic::Hold;
using Asic::QueuedChange;
using Asic::QueueView;
using testing::ElementsAre;
using testing::Pair;

class WaitChainTest : public testing::Test {
protected:
    using Change = Brumo::Ptr<FakeChange>;

    Change queued(std::uint64_t key, const Brumo::Ptr<FakeHandle>& dependency = nullptr,
                  EntryFlags flags = EntryFlags::write) {
        const Change made =
            Brumo::make<FakeChange>(journal_, table_.get(), key, "change", flags, dependency);
        if (dependency != nullptr)
            made->waitsFor = {Blocker::Cause::dependency, dependency};
        enqueue(made);
        return made;
    }
    Change waiting(std::uint64_t key) {
        const Change made = Brumo::make<FakeChange>(journal_, table_.get(), key, "change");
        made->waitsFor = {Blocker::Cause::resource, blocker_};
        enqueue(made);
        return made;
    }
    void enqueue(const Change& change) {
        change->handle->stagedAtIs(std::chrono::nanoseconds(++time_));
        resolver_->resolverQueueEnq(change);
    }
    void settle() { ASSERT_TRUE(loop_.runUntilIdle()); }
    /// The links from a change on: which change, and what holds it.
    std::vector<std::pair<const Asic::ResolverEntry*, Hold>> links(const Change& change,
                                                                   ChainEnd end = ChainEnd::root) {
        const QueueView view(*resolver_);
        const auto found = view.find(change->handle.get());
        EXPECT_TRUE(found.has_value());
        const Asic::WaitChain chain = view.chainFrom(*found);
        EXPECT_EQ(chain.end, end);
        std::vector<std::pair<const Asic::ResolverEntry*, Hold>> result;
        for (const QueuedChange& link : chain.links)
            result.emplace_back(link.entry, link.hold);
        return result;
    }

    Kiv::ManualEventLoop loop_;
    Journal journal_;
    Brumo::Ptr<Asic::GroupResolver> resolver_ = Brumo::make<Asic::GroupResolver>(loop_);
    Brumo::Ptr<FakeTable> table_ = Brumo::make<FakeTable>(resolver_);
    Brumo::Ptr<Kiv::Entity> blocker_ = Brumo::make<Kiv::Entity>();
    std::int64_t time_ = 0;
};

TEST_F(WaitChainTest, OfAChangeThatWasNotAskedYetIsItself) {
    const Change change = queued(1);
    EXPECT_THAT(links(change), ElementsAre(Pair(change.get(), Hold::turn)));
}

TEST_F(WaitChainTest, LeadsThroughDependenciesToWhatWaitsForAResource) {
    const Change root = waiting(1);
    const Change middle = queued(2, root->handle);
    const Change last = queued(3, middle->handle);
    const auto expected = ElementsAre(Pair(last.get(), Hold::turn), Pair(middle.get(), Hold::turn),
                                      Pair(root.get(), Hold::turn));
    EXPECT_THAT(links(last), expected) << "also before they were asked";
    settle();
    EXPECT_THAT(links(last),
                ElementsAre(Pair(last.get(), Hold::blocker), Pair(middle.get(), Hold::blocker),
                            Pair(root.get(), Hold::blocker)));
}

TEST_F(WaitChainTest, LeadsFromALaterChangeOfAKeyToTheEarlierOnes) {
    const Change first = waiting(1);
    const Change second = queued(1);
    const Change third = queued(1);
    settle();
    EXPECT_THAT(links(third), ElementsAre(Pair(third.get(), Hold::earlierChange),
                                          Pair(second.get(), Hold::earlierChange),
                                          Pair(first.get(), Hold::blocker)));
}

TEST_F(WaitChainTest, LeadsOverARemoveAllToTheOldestChangeBeforeIt) {
    const Change oldest = waiting(1);
    const Change other = waiting(2);
    const Change removeAll = queued(0, nullptr, EntryFlags::tableDelete);
    const Change later = queued(3);
    settle();
    EXPECT_THAT(links(later), ElementsAre(Pair(later.get(), Hold::removeAll),
                                          Pair(removeAll.get(), Hold::earlierChanges),
                                          Pair(oldest.get(), Hold::blocker)));
}

/// No table makes one, but what feature code brings along as a dependency might.
TEST_F(WaitChainTest, EndsWhereACycleCloses) {
    const auto handle = Brumo::make<FakeHandle>();
    const Change middle = queued(1, handle);
    const Change last = queued(2, middle->handle);
    const Change first = Brumo::make<FakeChange>(journal_, table_.get(), std::uint64_t{3}, "change",
                                                 EntryFlags::write, last->handle);
    first->handle = handle;
    first->waitsFor = {Blocker::Cause::dependency, last->handle};
    enqueue(first);
    settle();
    EXPECT_THAT(links(last, ChainEnd::cycle),
                ElementsAre(Pair(last.get(), Hold::blocker), Pair(middle.get(), Hold::blocker),
                            Pair(first.get(), Hold::blocker)));
}

TEST_F(WaitChainTest, EndsWhereWhatItWaitsForIsNotUnderWay) {
    const auto dropped = Brumo::make<FakeHandle>();
    const Change change = queued(1, dropped);
    settle();
    EXPECT_THAT(links(change, ChainEnd::lost), ElementsAre(Pair(change.get(), Hold::blocker)));
}

TEST_F(WaitChainTest, DoesNotFollowADependencyThatIsCommitted) {
    const auto committed = Brumo::make<FakeHandle>();
    committed->entryStateIs(Asic::EntryState::written);
    const Change change = queued(1, committed);
    EXPECT_THAT(links(change), ElementsAre(Pair(change.get(), Hold::turn)));
}

TEST_F(WaitChainTest, ShowsEveryQueuedChangeOnce) {
    waiting(1);
    queued(1);
    queued(0, nullptr, EntryFlags::tableDelete);
    queued(2);
    queued(0, nullptr, EntryFlags::tableDelete);
    queued(1);
    settle();
    EXPECT_EQ(QueueView(*resolver_).changes().size(), 6U);
    EXPECT_EQ(resolver_->queued(), 6U);
}

}  // namespace
}  // namespace AsicTests
