// Tests of the set of keys; random operations against an ordered set.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "platform/kiv/KeySet.h"

namespace {

/// A key whose hash is chosen, so that keys collide: some at the last hash there is, behind which
/// no key has its home.
struct SetKey {
    std::uint32_t id = 0;

    auto operator<=>(const SetKey&) const = default;
    bool isEq(const SetKey& other) const { return id == other.id; }
    std::uint32_t hash(unsigned) const {
        if (id % 5 == 0)
            return 0x80000000U;
        return id % 7 == 0 ? 0xFFFFFFFFU : id * 2654435761U;
    }
};

struct InSetOrder {
    bool operator()(const SetKey& a, const SetKey& b) const {
        return std::pair(a.hash(0), a.id) < std::pair(b.hash(0), b.id);
    }
};

using Set = Kiv::KeySet<SetKey>;
using OrderedSet = std::set<SetKey, InSetOrder>;

std::vector<SetKey> keysOf(const Set& set) {
    std::vector<SetKey> keys;
    set.forEach([&](const SetKey& key) { keys.push_back(key); });
    return keys;
}

std::vector<SetKey> keysOf(const OrderedSet& reference) {
    return {reference.begin(), reference.end()};
}

TEST(KeySet, HoldsAKeyOnce) {
    Set set;
    EXPECT_TRUE(set.insert({1}));
    EXPECT_FALSE(set.insert({1}));
    EXPECT_EQ(set.size(), 1U);
    EXPECT_TRUE(set.contains({1}));
    EXPECT_FALSE(set.contains({2}));
    EXPECT_TRUE(set.erase({1}));
    EXPECT_FALSE(set.erase({1}));
    EXPECT_TRUE(set.empty());
}

TEST(KeySet, HoldsTheDefaultKeyLikeAnyOther) {
    Set set;
    EXPECT_FALSE(set.contains({}));
    EXPECT_TRUE(set.insert({}));
    EXPECT_TRUE(set.contains({}));
    EXPECT_EQ(set.first()->key, SetKey{});
}

TEST(KeySet, EndsItsWalkWhenItIsEmpty) {
    Set set;
    EXPECT_FALSE(set.first().has_value());
    EXPECT_FALSE(set.after(SetKey{1}).has_value());
    set.insert({1});
    set.clear();
    EXPECT_FALSE(set.first().has_value());
    EXPECT_EQ(set.size(), 0U);
}

TEST(KeySet, KeepsItsOrderWhenItGrows) {
    Set set;
    OrderedSet reference;
    for (std::uint32_t id = 0; id < 3000; ++id) {
        set.insert({id});
        reference.insert({id});
        if (id % 100 == 0)
            set.assertConsistent();
    }
    EXPECT_EQ(keysOf(set), keysOf(reference));
}

TEST(KeySet, WalksOverChangesWithoutLosingOrRepeatingAKey) {
    Set set;
    for (std::uint32_t id = 0; id < 64; ++id)
        set.insert({id});
    const auto order = keysOf(set);
    std::vector<SetKey> visited;
    for (auto step = set.first(); step; step = set.after(*step)) {
        visited.push_back(step->key);
        set.erase(step->key);
        for (std::uint32_t more = 0; visited.size() == 10 && more < 1000; ++more)
            set.insert({100000 + more});
        for (std::uint32_t more = 0; visited.size() == 10 && more < 1000; ++more)
            set.erase({100000 + more});
    }
    EXPECT_EQ(visited, order);
    EXPECT_TRUE(set.empty());
}

TEST(KeySet, GoesOnBehindAKeyThatHasMovedOrGone) {
    Set set;
    OrderedSet reference;
    for (std::uint32_t id = 0; id < 40; ++id)
        reference.insert({id});
    for (const SetKey& key : reference)
        set.insert(key);
    const auto step = set.after(*std::next(reference.begin(), 20));
    ASSERT_TRUE(step.has_value());
    const auto next = std::next(reference.find(step->key));
    for (std::uint32_t before = 0; before < 21; ++before) {
        EXPECT_EQ(set.after(*step)->key, *next);
        set.erase(*std::next(reference.begin(), before));
    }
    set.erase(step->key);
    EXPECT_EQ(set.after(*step)->key, *next);
    set.clear();
    EXPECT_FALSE(set.after(*step).has_value());
}

TEST(KeySet, DoesWhatAnOrderedSetDoes) {
    for (std::uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Set set;
        OrderedSet reference;
        for (int step = 0; step < 300; ++step) {
            const SetKey key{static_cast<std::uint32_t>(random() % 60)};
            switch (random() % 4) {
                case 0:
                case 1:
                    ASSERT_EQ(set.insert(key), reference.insert(key).second);
                    break;
                case 2:
                    ASSERT_EQ(set.erase(key), reference.erase(key) > 0);
                    break;
                default: {
                    const auto expected = reference.upper_bound(key);
                    const auto found = set.after(key);
                    ASSERT_EQ(found.has_value(), expected != reference.end());
                    if (found.has_value()) {
                        ASSERT_EQ(found->key, *expected);
                    }
                }
            }
            ASSERT_EQ(set.contains(key), reference.contains(key));
            ASSERT_EQ(set.size(), reference.size());
            set.assertConsistent();
        }
        ASSERT_EQ(keysOf(set), keysOf(reference));
    }
}

}  // namespace
