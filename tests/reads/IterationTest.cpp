// Walks over a table: layers, flags, bookmarks and traces of every step.
#include <gtest/gtest.h>

#include "entrylog/ShimoManager.h"
#include "swtable/ReadPath.h"
#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using StateBase = Asic::SwTableIteratorStateBase;

constexpr unsigned kValid = StateBase::kCurrentEntryValid;
constexpr unsigned kAdds = StateBase::kInAddCollection;
constexpr unsigned kConfig = StateBase::kInConfiguration;
constexpr unsigned kRemoveAll = StateBase::kRemoveAllPending;
constexpr unsigned kBookmark = StateBase::kBookmarkSet;

template <class B>
class Iteration : public SwTableFixture<B> {
protected:
    using Key = typename B::Key;
    using Entry = typename B::Entry;

    template <class Iterator>
    static std::vector<Key> rest(Iterator iterator) {
        std::vector<Key> keys;
        for (; iterator.valid(); ++iterator)
            keys.push_back(iterator->key);
        return keys;
    }
    std::vector<Key> all() { return rest(this->table->entryIteratorConst()); }
    /// The keys of those numbers in the order of keyed collections.
    static std::vector<Key> ordered(std::initializer_list<std::uint32_t> numbers) {
        std::vector<Key> keys;
        for (const std::uint32_t number : numbers)
            keys.push_back(keyOf<B>(number));
        std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
            return Kiv::KeyOrder<Key>(a) < Kiv::KeyOrder<Key>(b);
        });
        return keys;
    }
    /// Step by step: the next entry of a state.
    template <class State>
    static Entry step(const State& state) {
        Entry entry;
        IterStateAccessor<B>::maybeUpdateCurrentEntry(*state, entry);
        return entry;
    }
    static std::vector<std::string> steps(const TraceCapture& traces) {
        return traces.texts("SwTableIter", 9);
    }
};
TYPED_TEST_SUITE(Iteration, AllBindings, TableName);

TYPED_TEST(Iteration, FlagsHaveTheirValues) {
    EXPECT_EQ(kValid, 1U);
    EXPECT_EQ(kAdds, 2U);
    EXPECT_EQ(kConfig, 4U);
    EXPECT_EQ(kRemoveAll, 8U);
    EXPECT_EQ(kBookmark, 16U);
}

TYPED_TEST(Iteration, OfAnEmptyTableIsAtItsEnd) {
    const TraceCapture traces;
    const auto iterator = this->table->entryIteratorConst();
    EXPECT_FALSE(iterator.valid());
    EXPECT_TRUE(iterator->isEq(typename TypeParam::Entry{}));
    EXPECT_EQ(this->steps(traces),
              (std::vector<std::string>{"  in transientAdd collection", "  done with transAdd",
                                        "  in cfgShimo collection", "  no more entries"}));
    EXPECT_EQ(callsOf(traces, "SwTableIter", "maybeUpdateCurrentEntry"), 1U);
}

TYPED_TEST(Iteration, GivesStagedWritesFirstAndEachLayerInItsOrder) {
    for (std::uint32_t number = 1; number <= 4; ++number)
        this->committed(number);
    this->write(11);
    this->write(12);
    this->write(13);
    auto expected = this->ordered({11, 12, 13});
    for (const auto& key : this->ordered({1, 2, 3, 4}))
        expected.push_back(key);
    EXPECT_EQ(this->all(), expected);
}

TYPED_TEST(Iteration, GivesAKeyOfBothLayersOnceFromTheStagedWrites) {
    this->committed(1, 5);
    this->committed(2, 5);
    this->write(1, 6);
    EXPECT_EQ(this->all(), (std::vector{this->key(1), this->key(2)}));
    EXPECT_EQ(*this->table->entryIteratorConst(), this->entry(1, 6));
}

TYPED_TEST(Iteration, SkipsStagedRemovesAndKeysInDeletion) {
    for (std::uint32_t number = 1; number <= 3; ++number)
        this->committed(number);
    this->remove(1);
    this->agent.settle();
    this->remove(2);
    EXPECT_EQ(this->all(), std::vector{this->key(3)});
}

TYPED_TEST(Iteration, SkipsTheConfigurationBehindARemoveAll) {
    this->committed(1, 5);
    this->table->entryRemoveAll(nullptr);
    this->write(2);
    this->write(3);
    EXPECT_EQ(this->all(), this->ordered({2, 3}));
    EXPECT_EQ(this->table->entrys(), 2U);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 5));
}

TYPED_TEST(Iteration, StartsWithTheStagedWritesAndNotesARemoveAll) {
    EXPECT_EQ(this->table->initIterState()->flags(), kAdds);
    this->table->entryRemoveAll(nullptr);
    EXPECT_EQ(this->table->initIterState()->flags(), kAdds | kRemoveAll);
}

TYPED_TEST(Iteration, FromAKeyStartsInTheLayerThatHasIt) {
    this->committed(1);
    this->committed(2);
    this->write(2);
    const TraceCapture traces;
    const auto staged = this->table->initIterStateFromKey(this->key(2));
    EXPECT_EQ(staged->flags(), kBookmark | kAdds);
    EXPECT_TRUE(staged->bookmark().isEq(this->key(2)));
    EXPECT_EQ(this->table->initIterStateFromKey(this->key(1))->flags(), kBookmark | kConfig);
    EXPECT_EQ(this->table->initIterStateFromKey(this->key(9))->flags(), kBookmark);
    EXPECT_EQ(callsOf(traces, this->name(), "initIterStateFromKey"), 3U);
    this->table->entryRemoveAll(nullptr);
    EXPECT_EQ(this->table->initIterStateFromKey(this->key(1))->flags(), kBookmark | kRemoveAll);
}

TYPED_TEST(Iteration, FromAKeyThatExistsNowhereIsAtItsEnd) {
    this->committed(1);
    this->write(2);
    const TraceCapture traces;
    const auto iterator = this->table->entryIteratorConst(this->key(9));
    EXPECT_FALSE(iterator.valid());
    EXPECT_EQ(this->steps(traces), std::vector<std::string>{"  no more entries"});
}

TYPED_TEST(Iteration, FromACommittedKeyGoesOnFromThere) {
    for (std::uint32_t number = 1; number <= 4; ++number)
        this->committed(number);
    const auto keys = this->ordered({1, 2, 3, 4});
    EXPECT_EQ(this->rest(this->table->entryIteratorConst(keys[2])),
              (std::vector{keys[2], keys[3]}));
}

TYPED_TEST(Iteration, FromAStagedKeyGoesOnThereAndThroughTheWholeConfiguration) {
    this->committed(1);
    this->committed(2);
    this->write(11);
    this->write(12);
    const auto staged = this->ordered({11, 12});
    auto expected = std::vector{staged[1]};
    for (const auto& key : this->ordered({1, 2}))
        expected.push_back(key);
    EXPECT_EQ(this->rest(this->table->entryIteratorConst(staged[1])), expected);
}

TYPED_TEST(Iteration, BookmarksTheNextCandidateNeverTheReturnedEntry) {
    for (std::uint32_t number : {1U, 2U})
        this->committed(number);
    for (std::uint32_t number : {11U, 12U})
        this->write(number);
    const auto staged = this->ordered({11, 12});
    const auto committed = this->ordered({1, 2});
    const auto state = this->table->initIterState();

    EXPECT_EQ(this->step(state).key, staged[0]);
    EXPECT_EQ(state->flags(), kValid | kAdds | kBookmark);
    EXPECT_TRUE(state->bookmark().isEq(staged[1]));
    EXPECT_EQ(this->step(state).key, staged[1]);
    EXPECT_EQ(state->flags(), kValid | kConfig) << "the layer's last one clears the bookmark";
    EXPECT_EQ(this->step(state).key, committed[0]);
    EXPECT_EQ(state->flags(), kValid | kConfig | kBookmark);
    EXPECT_TRUE(state->bookmark().isEq(committed[1]));
    EXPECT_EQ(this->step(state).key, committed[1]);
    EXPECT_EQ(state->flags(), kValid) << "the current entry stays valid";
    EXPECT_TRUE(this->step(state).isEq(typename TypeParam::Entry{}));
    EXPECT_EQ(state->flags(), 0U);
    EXPECT_TRUE(this->step(state).isEq(typename TypeParam::Entry{}));
}

TYPED_TEST(Iteration, TracesEveryStep) {
    this->committed(1);
    this->committed(2);
    this->write(11);
    const auto committed = this->ordered({1, 2});
    const auto state = this->table->initIterState();
    const auto stepTraces = [&] {
        const TraceCapture traces;
        this->step(state);
        EXPECT_EQ(traces.lines()[0].level, 8);
        EXPECT_EQ(traces.lines()[0].handle, "SwTableIter");
        EXPECT_EQ(traces.lines()[0].function, "maybeUpdateCurrentEntry");
        return this->steps(traces);
    };
    const auto found = [&](const typename TypeParam::Key& key) {
        return "  found entry: " + this->table->entryRead(key).toText();
    };
    EXPECT_EQ(stepTraces(),
              (std::vector<std::string>{"  in transientAdd collection", found(this->key(11)),
                                        "  done with transAdd"}));
    EXPECT_EQ(stepTraces(),
              (std::vector<std::string>{"  in cfgShimo collection", found(committed[0])}));
    EXPECT_EQ(stepTraces(),
              (std::vector<std::string>{"  in cfgShimo collection", found(committed[1]),
                                        "  done with cfgShimo"}));
    EXPECT_EQ(stepTraces(), std::vector<std::string>{"  no more entries"});
}

TYPED_TEST(Iteration, EndsBehindTheStagedWritesOfARemoveAll) {
    this->committed(1);
    this->table->entryRemoveAll(nullptr);
    this->write(2);
    const auto state = this->table->initIterState();
    EXPECT_EQ(this->step(state).key, this->key(2));
    EXPECT_EQ(state->flags(), kValid | kRemoveAll);
    const TraceCapture traces;
    this->step(state);
    EXPECT_EQ(this->steps(traces), std::vector<std::string>{"  no more entries"});
    EXPECT_EQ(state->flags(), kRemoveAll);
}

TYPED_TEST(Iteration, ResetsTheCurrentEntryAtTheEnd) {
    this->committed(1, 5);
    auto iterator = this->table->entryIteratorConst();
    EXPECT_EQ(*iterator, this->entry(1, 5));
    ++iterator;
    EXPECT_TRUE(iterator->isEq(typename TypeParam::Entry{}));
}

TYPED_TEST(Iteration, ResumesBehindABookmarkedKeyThatHasGone) {
    for (std::uint32_t number : {11U, 12U, 13U})
        this->write(number);
    const auto staged = this->ordered({11, 12, 13});
    const auto state = this->table->initIterState();
    this->step(state);
    this->table->transientAddEntryDel(staged[1]);
    EXPECT_EQ(this->step(state).key, staged[2]);
}

TYPED_TEST(Iteration, GoesOnFromTheBookmarkWhereTheStagedWritesHaveGone) {
    for (std::uint32_t number : {1U, 2U, 3U})
        this->committed(number);
    const auto keys = this->ordered({1, 2, 3});
    for (const auto& key : keys)
        this->table->entryWrite(key, {}, nullptr);
    const auto state = this->table->initIterState();
    EXPECT_EQ(this->step(state).key, keys[0]);
    this->agent.settle();
    EXPECT_EQ(this->step(state).key, keys[1]);
    EXPECT_EQ(this->step(state).key, keys[2]);
    EXPECT_TRUE(this->step(state).isEq(typename TypeParam::Entry{}));
}

TYPED_TEST(Iteration, GoesOnBehindABookmarkWhoseValueHasGone) {
    for (std::uint32_t number : {1U, 2U, 3U})
        this->committed(number);
    const auto keys = this->ordered({1, 2, 3});
    const auto state = this->table->initIterState();
    EXPECT_EQ(this->step(state).key, keys[0]);
    this->config()->swTableEntriesDel(keys[1]);
    EXPECT_EQ(this->step(state).key, keys[2]);
    EXPECT_TRUE(this->step(state).isEq(typename TypeParam::Entry{}));
}

TYPED_TEST(Iteration, GivesWhatHasComeBetweenTwoStepsInItsOrder) {
    const auto keys = this->ordered({1, 2, 3, 4, 5, 6});
    const auto add = [&](std::size_t at) {
        typename TypeParam::Entry entry;
        entry.key = keys[at];
        this->table->entryWrite(keys[at], entry, nullptr);
        this->agent.settle();
    };
    for (const std::size_t at : {0U, 2U, 4U})
        add(at);
    const auto state = this->table->initIterState();
    EXPECT_EQ(this->step(state).key, keys[0]);
    this->config()->swTableEntriesDel(keys[2]);
    add(3);  // takes the slot of the bookmark
    EXPECT_EQ(this->step(state).key, keys[3]);
    add(2);
    EXPECT_EQ(this->step(state).key, keys[4]);
    add(5);
    EXPECT_TRUE(this->step(state).isEq(typename TypeParam::Entry{})) << "had no bookmark any more";
}

TYPED_TEST(Iteration, GoesOnInAConfigurationThatWasMountedAnew) {
    for (std::uint32_t number = 1; number <= 6; ++number)
        this->committed(number);
    const auto keys = this->ordered({1, 2, 3, 4, 5, 6});
    const auto log = this->table->entryLog();
    const auto unit = this->table->unitId();
    const auto state = this->table->initIterState();
    for (const auto& key : keys) {
        EXPECT_EQ(this->step(state).key, key);
        log->tableConfigShimoDel(unit);
        shimoManagerOf(*log->entityManager())
            ->entityDel(Constants<typename TypeParam::Types>::configShimoPath(unit));
        log->mountShimoConfig(unit, {});
    }
    EXPECT_TRUE(this->step(state).isEq(typename TypeParam::Entry{}));
}

TYPED_TEST(Iteration, OfAUnitWithoutConfigurationGivesStagedWritesOnly) {
    this->committed(1);
    this->write(2);
    this->table->entryLog()->tableConfigShimoDel(this->table->unitId());
    const TraceCapture traces;
    EXPECT_EQ(this->all(), std::vector{this->key(2)});
    EXPECT_EQ(this->steps(traces).back(), "  no more entries");
}

TYPED_TEST(Iteration, WithBothLayersMarkedIsABrokenInvariant) {
    const auto state = this->table->initIterState();
    state->set(StateBase::kInConfiguration);
    EXPECT_DEATH(this->step(state), R"(assertion failed: !iterState_->state\(\)\.inTblCfg\(\))");
}

TYPED_TEST(Iteration, IsListedForInspection) {
    this->committed(1, 5);
    this->write(2, 6);
    auto& listing = this->table->getTableEntries_py();
    EXPECT_EQ(listing.lines(),
              (std::vector<std::string>{this->entry(2, 6).toText(), this->entry(1, 5).toText()}));
    listing.tableEntriesIs(this->entry(3));
    EXPECT_EQ(listing.lines().size(), 3U);
    EXPECT_FALSE(this->table->entryHas(this->key(3))) << "the table does not consult it";
    listing.tableEntriesDel(this->key(3));
    EXPECT_EQ(listing.lines().size(), 2U);
    listing.tableEntriesIs(this->entry(3));
    listing.tableEntriesDelAll();
    EXPECT_EQ(listing.lines().size(), 2U);
}

// Corruption.

/// Walks and reads over three committed keys, of which the second in order has rotted.
template <class B>
class RottenEntry : public Iteration<B> {
protected:
    RottenEntry() {
        for (std::uint32_t number : {1U, 2U, 3U})
            this->committed(number, 5);
        keys = this->ordered({1, 2, 3});
        spoilEntry(*this->config(), keys[1]);
    }
    std::uint64_t reported() { return this->config()->corruptions(); }

    std::vector<typename B::Key> keys;
};
TYPED_TEST_SUITE(RottenEntry, AllBindings, TableName);

TYPED_TEST(RottenEntry, ReadsAsTheDefaultAndIsReported) {
    EXPECT_TRUE(this->table->entryFromConfig(this->keys[1]).isEq(typename TypeParam::Entry{}));
    EXPECT_EQ(this->reported(), 1U);
    EXPECT_TRUE(this->table->entryRead(this->keys[1]).isEq(typename TypeParam::Entry{}));
    EXPECT_FALSE(this->table->entryHas(this->keys[1]));
    EXPECT_EQ(this->reported(), 3U);
    EXPECT_FALSE(this->table->entryRead(this->keys[2]).isEq(typename TypeParam::Entry{}));
    EXPECT_EQ(this->reported(), 3U);
}

TYPED_TEST(RottenEntry, EndsAWalkThatReachesItAndIsReported) {
    EXPECT_EQ(this->all(), std::vector{this->keys[0]});
    EXPECT_EQ(this->reported(), 1U);
}

TYPED_TEST(RottenEntry, BehindTheStartOfAWalkDoesNotMatter) {
    EXPECT_EQ(this->rest(this->table->entryIteratorConst(this->keys[2])),
              std::vector{this->keys[2]});
    EXPECT_EQ(this->reported(), 0U);
}

TYPED_TEST(RottenEntry, IsRepairedByTheNextWrite) {
    auto entry = this->entry(1, 8);
    entry.key = this->keys[1];
    this->table->entryWrite(this->keys[1], entry, nullptr);
    this->agent.settle();
    EXPECT_EQ(this->table->entryRead(this->keys[1]), entry);
    EXPECT_EQ(this->all(), this->keys);
}

}  // namespace
