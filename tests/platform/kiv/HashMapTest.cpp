// Tests of the keyed hash map; random operations against an ordered map.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>

#include "platform/kiv/HashMap2018.h"

namespace {

/// A key whose hash is chosen, so that keys collide.
struct Key {
    std::uint32_t id = 0;

    auto operator<=>(const Key&) const = default;
    bool isEq(const Key& other) const { return id == other.id; }
    std::uint32_t hash(unsigned) const { return id % 5 == 0 ? 0x80000000U : id * 2654435761U; }
};

struct ByHashAndKey {
    bool operator()(const Key& a, const Key& b) const {
        return std::pair(a.hash(0), a.id) < std::pair(b.hash(0), b.id);
    }
};

using Map = Kiv::HashMap2018<Key, int>;

std::vector<std::uint32_t> keysOf(const Map& map) {
    std::vector<std::uint32_t> keys;
    map.forEach([&](const Key& key, int) { keys.push_back(key.id); });
    return keys;
}

TEST(HashMap, HoldsOneValueAKey) {
    Map map;
    map.insertOrReplace({1}, 10);
    map.insertOrReplace({1}, 11);
    EXPECT_EQ(map.size(), 1U);
    ASSERT_NE(map.find({1}), nullptr);
    EXPECT_EQ(*map.find({1}), 11);
    EXPECT_EQ(map.find({2}), nullptr);
    EXPECT_TRUE(map.erase({1}));
    EXPECT_FALSE(map.erase({1}));
    EXPECT_TRUE(map.empty());
}

TEST(HashMap, KeepsItsOrderWhenItGrows) {
    Map map;
    std::map<Key, int, ByHashAndKey> reference;
    for (std::uint32_t id = 0; id < 3000; ++id) {
        map.insertOrReplace({id}, 0);
        reference[{id}] = 0;
    }
    std::vector<std::uint32_t> expected;
    for (const auto& [key, value] : reference)
        expected.push_back(key.id);
    EXPECT_EQ(keysOf(map), expected);
}

TEST(HashMap, KeepsElementsWhereTheyAre) {
    Map map;
    const int* first = &map.insertOrReplace({1}, 10).value;
    for (std::uint32_t id = 2; id < 500; ++id)
        map.insertOrReplace({id}, 0);
    EXPECT_EQ(map.find({1}), first);
}

TEST(HashMap, ResumesAWalkAtOrAfterAKeyThatHasGone) {
    Map map;
    for (std::uint32_t id = 0; id < 100; ++id)
        map.insertOrReplace({id}, 0);
    const auto order = keysOf(map);
    for (std::size_t i = 0; i + 1 < order.size(); ++i) {
        ASSERT_TRUE(map.erase({order[i]}));
        const auto* resumed = map.lowerBound({order[i]});
        ASSERT_NE(resumed, nullptr);
        EXPECT_EQ(resumed->key.id, order[i + 1]);
    }
    EXPECT_EQ(map.after({order.back()}), nullptr);
}

TEST(HashMap, WalksOverChangesWithoutLosingOrRepeatingAKey) {
    Map map;
    for (std::uint32_t id = 0; id < 64; ++id)
        map.insertOrReplace({id}, 0);
    const auto order = keysOf(map);
    std::vector<std::uint32_t> visited;
    for (const auto* node = map.first(); node != nullptr;) {
        const Key key = node->key;
        visited.push_back(key.id);
        map.erase(key);
        for (std::uint32_t more = 0; visited.size() == 10 && more < 1000; ++more) {
            map.insertOrReplace({100000 + more}, 0);
            map.erase({100000 + more});
        }
        node = map.after(key);
    }
    EXPECT_EQ(visited, order);
    EXPECT_TRUE(map.empty());
}

TEST(HashMap, IsWholeWhenAValueEndsThatLooksAtIt) {
    using Shared = std::shared_ptr<int>;
    Kiv::HashMap2018<Key, Shared> map;
    std::size_t seen = 99;
    map.insertOrReplace({1}, Shared(nullptr, [&](const int*) { seen = map.size(); }));
    map.insertOrReplace({2}, nullptr);
    map.erase({1});
    EXPECT_EQ(seen, 1U);
}

TEST(HashMap, DoesWhatAnOrderedMapDoes) {
    for (std::uint32_t seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Map map;
        std::map<Key, int, ByHashAndKey> reference;
        for (int step = 0; step < 300; ++step) {
            const Key key{static_cast<std::uint32_t>(random() % 60)};
            switch (random() % 4) {
                case 0:
                case 1:
                    map.insertOrReplace(key, step);
                    reference[key] = step;
                    break;
                case 2:
                    ASSERT_EQ(map.erase(key), reference.erase(key) > 0);
                    break;
                default: {
                    const auto* node = map.lowerBound(key);
                    const auto expected = reference.lower_bound(key);
                    ASSERT_EQ(node == nullptr, expected == reference.end());
                    if (node != nullptr) {
                        ASSERT_EQ(node->key, expected->first);
                        ASSERT_EQ(node->value, expected->second);
                    }
                }
            }
            ASSERT_EQ(map.size(), reference.size());
        }
        std::vector<std::uint32_t> expected;
        for (const auto& [key, value] : reference)
            expected.push_back(key.id);
        ASSERT_EQ(keysOf(map), expected);
        map.clear();
        ASSERT_TRUE(map.empty());
        ASSERT_EQ(map.first(), nullptr);
    }
}

}  // namespace
