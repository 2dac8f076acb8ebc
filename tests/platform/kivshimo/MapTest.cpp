#include <atomic>
#include <bit>
#include <chrono>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>

#include "platform/kivshimo/MapReader.h"
#include "tests/platform/kivshimo/Fixture.h"

namespace KivShimo::Test {
namespace {

class MapTest : public ShimoTest {
protected:
    /// Leaves a value of the items as a store that was cut off does, or makes it right again.
    void tear(std::uint64_t slots, std::uint64_t slot) const {
        flip(itemsFile(), itemSlotOffset(slots, slot) + 24 + 100);
        flip(itemsFile(), itemSlotOffset(slots, slot));
    }
};
using Reader = MapReader<Item>;

/// The oracle's order.
struct InOrder {
    bool operator()(const ItemKey& a, const ItemKey& b) const {
        return Kiv::KeyOrder<ItemKey>(a) < Kiv::KeyOrder<ItemKey>(b);
    }
};
using Model = std::map<ItemKey, Item, InOrder>;

std::vector<Item> valuesOf(const Model& model) {
    std::vector<Item> result;
    for (const auto& entry : model)
        result.push_back(entry.second);
    return result;
}

template <class Collection>
std::vector<Item> valuesIn(const Collection& collection) {
    std::vector<Item> result;
    collection.forEach([&](const Item& value) { result.push_back(value); });
    return result;
}

using Position = Map<Item>::Position;

std::optional<Item> valueFrom(const Map<Item>& map, const ItemKey& key, Position guess) {
    return map.valueAt(map.atOrAfter(key, guess));
}
std::optional<Item> valueBehind(const Map<Item>& map, const ItemKey& key, Position guess) {
    return map.valueAt(map.after(key, guess));
}
std::optional<Item> firstIn(const Model& model, Model::const_iterator at) {
    return at == model.end() ? std::nullopt : std::optional(at->second);
}

TEST_F(MapTest, StoresFindsReplacesAndErases) {
    const auto table = items();
    EXPECT_TRUE(table->items.insertOrReplace(item(1, 10)));
    EXPECT_TRUE(table->items.insertOrReplace(item(2, 20)));
    EXPECT_TRUE(table->items.insertOrReplace(item(1, 11)));
    EXPECT_EQ(table->items.count(), 2U);
    EXPECT_EQ(table->items.find(item(1, 0).key()), item(1, 11));
    EXPECT_EQ(table->items.find(item(3, 0).key()), std::nullopt);
    EXPECT_TRUE(table->items.erase(item(1, 0).key()));
    EXPECT_FALSE(table->items.erase(item(1, 0).key()));
    EXPECT_EQ(table->items.find(item(1, 0).key()), std::nullopt);
    table->items.assertConsistent();
}

TEST_F(MapTest, RefusesNewKeysWhenFullAndStillReplaces) {
    const auto table = items(5);
    for (std::uint32_t id = 0; id < 5; ++id)
        EXPECT_TRUE(table->items.insertOrReplace(item(id, 1)));
    EXPECT_FALSE(table->items.insertOrReplace(item(9, 1)));
    EXPECT_TRUE(table->items.insertOrReplace(item(3, 2)));
    EXPECT_TRUE(table->items.erase(item(0, 0).key()));
    EXPECT_TRUE(table->items.insertOrReplace(item(9, 1)));
    EXPECT_EQ(table->items.count(), 5U);
    table->items.assertConsistent();
}

class MapModelTest : public MapTest, public testing::WithParamInterface<unsigned> {};

TEST_P(MapModelTest, BehavesAsAnOrderedMapOverRestarts) {
    constexpr std::uint64_t kCapacity = 60;
    std::mt19937 random(GetParam());
    Model model;
    auto table = items(kCapacity);
    std::vector<std::pair<ItemKey, Position>> guesses;
    for (int step = 0; step < 1500; ++step) {
        const Item value = item(random() % 250, random());
        const auto action = random() % 100;
        if (action < 55) {
            const bool fits = model.contains(value.key()) || model.size() < kCapacity;
            ASSERT_EQ(table->items.insertOrReplace(value), fits);
            if (fits)
                model[value.key()] = value;
        } else if (action < 97) {
            ASSERT_EQ(table->items.erase(value.key()), model.erase(value.key()) == 1);
        } else {
            table = nullptr;
            restart();
            table = items(kCapacity);
            ASSERT_EQ(table->corruptions(), 0U);
        }
        table->items.assertConsistent();
        ASSERT_EQ(table->items.count(), model.size());
        const auto at = model.lower_bound(value.key());
        const auto after = model.upper_bound(value.key());
        ASSERT_EQ(table->items.lowerBound(value.key()),
                  at == model.end() ? std::nullopt : std::optional(at->second));
        ASSERT_EQ(table->items.next(value.key()),
                  after == model.end() ? std::nullopt : std::optional(after->second));
        guesses.emplace_back(value.key(), table->items.atOrAfter(value.key()));
        for (int i = 0; i < 10; ++i) {
            const auto& [key, guess] = guesses[random() % guesses.size()];
            ASSERT_EQ(valueFrom(table->items, key, guess), firstIn(model, model.lower_bound(key)));
            ASSERT_EQ(valueBehind(table->items, key, guess),
                      firstIn(model, model.upper_bound(key)));
        }
        if (step % 50 == 0) {
            const Reader reader(itemsFile(), kItemType, "items");
            ASSERT_EQ(valuesIn(reader), valuesOf(model));
            ASSERT_EQ(valuesIn(table->items), valuesOf(model));
            ASSERT_EQ(reader.find(value.key()), table->items.find(value.key()));
            ASSERT_EQ(reader.lowerBound(value.key()), table->items.lowerBound(value.key()));
            ASSERT_EQ(reader.count(), model.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, MapModelTest, testing::Range(1U, 6U));

TEST_F(MapTest, WalkSurvivesErasingTheBookmarkAndInserting) {
    const auto table = items();
    for (std::uint32_t id = 0; id < 20; ++id)
        table->items.insertOrReplace(item(id, id));
    std::vector<std::uint32_t> seen;
    table->items.forEach([&](const Item& value) {
        seen.push_back(value.key().id);
        table->items.erase(value.key());
        table->items.insertOrReplace(item(value.key().id + 97 * 3, 0));
        if (seen.size() > 100)
            FAIL() << "the walk does not end";
        table->items.erase(item(value.key().id + 97 * 3, 0).key());
    });
    EXPECT_EQ(seen.size(), 20U);
    EXPECT_EQ(table->items.count(), 0U);
}

TEST_F(MapTest, PositionOfAKeyWhoseSlotAnotherKeyHasTakenLeadsToNeither) {
    const auto table = items();
    for (const std::uint32_t id : {1U, 2U, 3U})
        table->items.insertOrReplace(item(id, id));
    const ItemKey key = item(2, 0).key();
    const Position guess = table->items.atOrAfter(key);
    const auto behind = table->items.next(key);
    table->items.erase(key);
    EXPECT_EQ(valueFrom(table->items, key, guess), behind) << "its slot is free";
    const Item other = item(2 + 97, 5);
    table->items.insertOrReplace(other);
    EXPECT_EQ(valueFrom(table->items, key, guess), table->items.lowerBound(key));
    EXPECT_EQ(valueFrom(table->items, other.key(), guess), other);
}

TEST_F(MapTest, PositionInALargerMapIsNoneInASmallerOne) {
    const auto larger = items(64);
    for (std::uint32_t id = 0; id < 64; ++id)
        larger->items.insertOrReplace(item(id, id));
    const auto smaller = items(4, "items/2");
    smaller->items.insertOrReplace(item(1, 7));
    for (std::uint32_t id = 0; id < 64; ++id) {
        const ItemKey key = item(id, 0).key();
        EXPECT_EQ(valueFrom(smaller->items, key, larger->items.atOrAfter(key)),
                  smaller->items.lowerBound(key));
    }
}

TEST_F(MapTest, OtherProcessReadsWhileTheWriterGoesOn) {
    constexpr std::uint32_t kStable = 20;
    const auto table = items();
    for (std::uint32_t id = 0; id < kStable; ++id)
        table->items.insertOrReplace(item(id, 1));
    const pid_t child = fork();
    if (child == 0) {
        const Reader reader(itemsFile(), kItemType, "items");
        bool good = true;
        for (std::uint32_t round = 0; round < 3000 && good; ++round) {
            const auto found = reader.find(item(round % kStable, 0).key());
            good = found && std::ranges::all_of(found->payload,
                                                [&](auto w) { return w == found->payload[0]; });
            if (round % 100 == 0) {
                std::size_t stable = 0;
                reader.forEach([&](const Item& v) { stable += v.key().id < kStable ? 1U : 0U; });
                good = good && stable == kStable;
            }
        }
        _exit(good ? 0 : 1);
    }
    int status = 0;
    for (std::uint64_t i = 0; waitpid(child, &status, WNOHANG) == 0; ++i) {
        table->items.insertOrReplace(item(static_cast<std::uint32_t>(i % kStable), i));
        table->items.insertOrReplace(item(kStable + i % 30, i));
        table->items.erase(item(kStable + (i + 15) % 30, i).key());
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(MapTest, EveryFlippedBitOfASlotIsNoticedOrHarmless) {
    const std::uint64_t slot = itemSlotOffset(64, 0);
    for (std::uint64_t at = 0; at < detail::mapSlotBytes(sizeof(Item)); ++at) {
        auto table = items();
        table->items.insertOrReplace(item(1, 5));
        flip(itemsFile(), slot + at, static_cast<unsigned>(at % 8));
        const Reader reader(itemsFile(), kItemType, "items");
        try {
            EXPECT_EQ(reader.find(item(1, 0).key()), item(1, 5)) << at;
        } catch (const CorruptionError&) {
        } catch (const BusyError&) {
        }
        table = nullptr;
        restart();
        table = items();
        table->items.assertConsistent();
        if (table->corruptions() == 0 || table->items.count() > 0) {
            EXPECT_EQ(table->items.find(item(1, 0).key()), item(1, 5)) << at;
        } else {
            EXPECT_EQ(table->items.count(), 0U) << at;
        }
        table->items.erase(item(1, 0).key());
    }
}

TEST_F(MapTest, ValueOfALostPageIsReportedByReadersAndByTheMount) {
    {
        const auto table = items();
        for (std::uint32_t id = 0; id < 10; ++id)
            table->items.insertOrReplace(item(id, id));
    }
    for (std::uint64_t at = 0; at < detail::mapSlotBytes(sizeof(Item)); at += 8)
        overwrite(itemsFile(), itemSlotOffset(64, 4) + at, 0);
    const Reader reader(itemsFile(), kItemType, "items");
    EXPECT_THROW(reader.find(item(4, 0).key()), CorruptionError);
    EXPECT_THROW(valuesIn(reader), CorruptionError);
    restart();
    const auto table = items();
    EXPECT_EQ(table->corruptions(), 1U);
    EXPECT_EQ(table->items.count(), 9U);
    EXPECT_EQ(reader.find(item(4, 0).key()), std::nullopt);
    table->items.assertConsistent();
}

TEST_F(MapTest, VisitOfAllSlotsGoesOnBehindARottenValueOrLink) {
    const auto table = items();
    for (std::uint32_t id = 0; id < 10; ++id)
        table->items.insertOrReplace(item(id, id));
    flip(itemsFile(), itemSlotOffset(64, 4) + 24 + 100);
    flip(itemsFile(), itemSlotOffset(64, 7) + 16);
    std::size_t seen = 0;
    std::vector<std::string> reports;
    Reader(itemsFile(), kItemType, "items")
        .visitSlots(
            [&](const Item& value) {
                EXPECT_EQ(value, item(value.key().id, value.key().id));
                EXPECT_NE(value.key().id, 4U);
                ++seen;
            },
            [&](const CorruptionError& error) { reports.emplace_back(error.what()); });
    EXPECT_EQ(seen, 9U);
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_NE(reports[0].find("items: slot 4"), std::string::npos) << reports[0];
}

TEST_F(MapTest, VisitOfSlotsGivesUpAtASlotLeftInMidStore) {
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->items.insertOrReplace(item(2, 2));
    tear(64, 1);
    std::size_t seen = 0;
    EXPECT_THROW(Reader(itemsFile(), kItemType, "items")
                     .visitSlots([&](const Item&) { ++seen; },
                                 [](const CorruptionError& error) { FAIL() << error.what(); }),
                 BusyError);
    EXPECT_EQ(seen, 1U);
}

TEST_F(MapTest, VisitOfSlotsWaitsForAStoreThatIsFinishedLate) {
    using Clock = std::chrono::steady_clock;
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->items.insertOrReplace(item(2, 2));
    tear(64, 1);
    std::atomic<bool> hasBegun{false};
    std::thread writer([&] {
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (!hasBegun && Clock::now() < deadline)
            std::this_thread::yield();
        tear(64, 1);  // the bits are right again
    });
    readPatienceIs(std::chrono::seconds(10));
    std::size_t seen = 0;
    EXPECT_NO_THROW(Reader(itemsFile(), kItemType, "items")
                        .visitSlots(
                            [&](const Item&) {
                                ++seen;
                                hasBegun = true;
                            },
                            [](const CorruptionError& error) { FAIL() << error.what(); }));
    writer.join();
    readPatienceIs(kReadPatience);
    EXPECT_EQ(seen, 2U);
}

TEST_F(MapTest, RottenValueThrowsNamesItsPlaceAndCanBeReplaced) {
    const auto table = items();
    for (std::uint32_t id = 0; id < 10; ++id)
        table->items.insertOrReplace(item(id, id));
    flip(itemsFile(), itemSlotOffset(64, 4) + 24 + 100);
    const Reader reader(itemsFile(), kItemType, "items");
    for (const auto& look : {std::function<void()>([&] { table->items.find(item(4, 0).key()); }),
                             std::function<void()>([&] { reader.find(item(4, 0).key()); })}) {
        try {
            look();
            ADD_FAILURE() << "no exception";
        } catch (const CorruptionError& error) {
            const std::string text = error.what();
            EXPECT_NE(text.find(itemsFile()), std::string::npos) << text;
            EXPECT_NE(text.find("items: slot 4"), std::string::npos) << text;
        }
    }
    EXPECT_THROW(valuesIn(table->items), CorruptionError);
    EXPECT_THROW(valuesIn(reader), CorruptionError);
    EXPECT_EQ(reader.find(item(5, 0).key()), item(5, 5));
    EXPECT_EQ(reader.slotState(4), Reader::SlotState::rotten);
    table->items.insertOrReplace(item(4, 44));
    EXPECT_EQ(reader.find(item(4, 0).key()), item(4, 44));
    EXPECT_TRUE(table->items.erase(item(4, 0).key()));
    table->items.assertConsistent();
}

TEST_F(MapTest, RottenHeadOfAChainIsNoAbsence) {
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    const Reader reader(itemsFile(), kItemType, "items");
    for (std::uint64_t bucket = 0; bucket < 64; ++bucket) {
        flip(itemsFile(), detail::kAreasOffset + 8 * bucket + 1);
    }
    EXPECT_THROW(reader.find(item(1, 0).key()), CorruptionError);
    EXPECT_THROW(reader.find(item(2, 0).key()), CorruptionError);
    EXPECT_EQ(table->items.find(item(1, 0).key()), item(1, 1));
}

TEST_F(MapTest, LinkThatPassesOverAValueOfItsChainIsNoAbsence) {
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->items.insertOrReplace(item(98, 98));  // of the same hash
    const Reader reader(itemsFile(), kItemType, "items");
    const std::uint64_t bucket =
        item(1, 0).key().hash(0) >> (32U - std::countr_zero(detail::mapBuckets(64)));
    flip(itemsFile(), detail::kAreasOffset + 8 * bucket);  // from slot 0 to slot 1
    EXPECT_THROW(reader.find(item(1, 0).key()), CorruptionError);
    EXPECT_THROW(reader.first(), CorruptionError);
}

TEST_F(MapTest, WalkDoesNotFollowALinkIntoAnotherChain) {
    const auto table = items();
    for (std::uint64_t id = 1; id <= 20; ++id)
        table->items.insertOrReplace(item(id, id));
    const Reader reader(itemsFile(), kItemType, "items");
    const std::uint64_t seed = detail::mixed(table->identity(), 1);
    const std::uint64_t last = detail::mapBuckets(64) - 1;
    overwrite(itemsFile(), detail::kAreasOffset + 8 * last,
              detail::Link::encoded(0, detail::Link::headPlace(seed, last)));
    std::uint64_t met = 0;
    const auto walk = [&] {
        reader.forEach([&](const Item& /*item*/) {
            if (++met > 20)
                throw std::logic_error("the walk goes round");
        });
    };
    EXPECT_THROW(walk(), CorruptionError);
    EXPECT_EQ(met, 20U);
}

TEST_F(MapTest, ValueOfAnotherSlotDoesNotVerify) {
    auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table = nullptr;
    restart();
    for (std::uint64_t at = 0; at < detail::mapSlotBytes(sizeof(Item)); at += 8) {
        const int fd = open(itemsFile().c_str(), O_RDWR | O_CLOEXEC);
        std::uint64_t word = 0;
        ASSERT_EQ(pread(fd, &word, 8, static_cast<off_t>(itemSlotOffset(64, 0) + at)), 8);
        close(fd);
        overwrite(itemsFile(), itemSlotOffset(64, 1) + at, word);
    }
    table = items();
    EXPECT_EQ(table->corruptions(), 1U);
    EXPECT_EQ(table->items.count(), 1U);
    table->items.assertConsistent();
}

/// As between the moment in which a file appears and that in which its writer has made the index.
TEST_F(MapTest, ReaderFindsNothingWhereTheIndexWasNeverMade) {
    constexpr std::uint64_t kSlots = 64;
    auto table = items(kSlots);
    overwrite(itemsFile(), detail::kDynamicOffset + offsetof(detail::DynamicHeader, structure), 0);
    for (std::uint64_t bucket = 0; bucket < detail::mapBuckets(kSlots); ++bucket)
        overwrite(itemsFile(), detail::kAreasOffset + 8 * bucket, 0);
    const Reader reader(itemsFile(), kItemType, "items");
    EXPECT_FALSE(reader.first().has_value());
    EXPECT_FALSE(reader.find(item(1, 0).key()).has_value());
    table->items.insertOrReplace(item(1, 1));
    EXPECT_TRUE(reader.find(item(1, 0).key()).has_value());
}

TEST_F(MapTest, ReaderGivesUpOnASlotLeftInMidStore) {
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    tear(64, 0);
    const Reader reader(itemsFile(), kItemType, "items");
    EXPECT_THROW(reader.find(item(1, 0).key()), BusyError);
    EXPECT_THROW(reader.first(), BusyError);
}

/// A writer that does nothing never puts it right.
TEST_F(MapTest, SequenceOfASlotThatRotsHidesNoValue) {
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->items.insertOrReplace(item(2, 2));
    flip(itemsFile(), itemSlotOffset(64, 0));
    flip(itemsFile(), itemSlotOffset(64, 5));  // holds nothing
    const Reader reader(itemsFile(), kItemType, "items");
    EXPECT_EQ(reader.find(item(1, 0).key()), item(1, 1));
    std::size_t seen = 0;
    reader.forEach([&](const Item&) { ++seen; });
    reader.visitSlots([&](const Item&) { ++seen; },
                      [](const CorruptionError& error) { FAIL() << error.what(); });
    EXPECT_EQ(seen, 4U);
}

TEST_F(MapTest, SequenceOfTheLinksThatRotsIsReportedWhereAResultDependsOnIt) {
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    const Reader reader(itemsFile(), kItemType, "items");
    const std::size_t at = detail::kDynamicOffset + offsetof(detail::DynamicHeader, structure);
    for (std::size_t bit = 0; bit < 64; ++bit) {
        flip(itemsFile(), at + bit / 8, bit % 8);
        EXPECT_EQ(reader.find(item(1, 0).key()), item(1, 1)) << "it verifies by itself";
        EXPECT_THROW(reader.find(item(2, 0).key()), CorruptionError) << bit;
        EXPECT_THROW(reader.first(), CorruptionError) << bit;
        flip(itemsFile(), at + bit / 8, bit % 8);
    }
    flip(itemsFile(), at);
    table->items.insertOrReplace(item(2, 2));
    EXPECT_EQ(reader.find(item(2, 0).key()), item(2, 2)) << "the writer has stored it anew";
    EXPECT_FALSE(reader.find(item(3, 0).key()).has_value());
}

TEST_F(MapTest, MountCountsARottenSequenceOfTheLinksAndStoresAnother) {
    auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table = nullptr;
    restart();
    flip(itemsFile(), detail::kDynamicOffset + offsetof(detail::DynamicHeader, structure) + 5);
    table = items();
    EXPECT_EQ(table->corruptions(), 1U);
    const Reader reader(itemsFile(), kItemType, "items");
    EXPECT_EQ(reader.first(), item(1, 1));
    table->items.assertConsistent();
}

/// What is torn is on its way to be stored again by whoever has it in a journal.
TEST_F(MapTest, TornValueIsBusyForReadersUntilItIsSettled) {
    auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->items.insertOrReplace(item(2, 2));
    table = nullptr;
    restart();
    tear(64, 0);
    tear(64, 1);
    table = items();
    const Reader reader(itemsFile(), kItemType, "items");
    EXPECT_THROW(reader.find(item(1, 0).key()), BusyError);
    EXPECT_EQ(table->corruptions(), 0U);
    table->tornSettled(tornKeyOf(item(1, 0).key()));
    EXPECT_EQ(table->corruptions(), 1U);
    EXPECT_THROW(reader.find(item(1, 0).key()), BusyError);
    EXPECT_FALSE(reader.find(item(2, 0).key()).has_value());
    table->items.insertOrReplace(item(1, 3));
    EXPECT_EQ(reader.find(item(1, 0).key()), item(1, 3));
    table->items.assertConsistent();
}

TEST_F(MapTest, MountKeepsAWholeValueOfACutOffStore) {
    auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table = nullptr;
    restart();
    flip(itemsFile(), itemSlotOffset(64, 0));
    table = items();
    EXPECT_EQ(table->corruptions(), 0U);
    EXPECT_EQ(table->items.find(item(1, 0).key()), item(1, 1));
    table->items.assertConsistent();
}

TEST_F(MapTest, MountStoresAgainWhatTheJournalHolds) {
    auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->items.insertOrReplace(item(2, 2));
    table->journal().begin(kStoreValue, 0, 1);
    table->journal().valueIs(item(2, 3));
    table->journal().seal();
    table = nullptr;
    restart();
    flip(itemsFile(), itemSlotOffset(64, 1));       // a store was under way
    flip(itemsFile(), itemSlotOffset(64, 1) + 40);  // and not finished
    table = items();
    EXPECT_EQ(table->items.find(item(2, 0).key()), item(2, 3));
    EXPECT_EQ(table->items.find(item(1, 0).key()), item(1, 1));
    EXPECT_EQ(table->corruptions(), 0U);
    EXPECT_FALSE(table->journal().pending().has_value());
    table->items.assertConsistent();
}

TEST_F(MapTest, PendingValueOfNoSlotIsCorruption) {
    auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->journal().begin(kStoreValue, 0, 64);
    table->journal().valueIs(item(2, 3));
    table->journal().seal();
    table = nullptr;
    restart();
    table = items();
    EXPECT_EQ(table->corruptions(), 1U);
    EXPECT_EQ(table->items.count(), 1U);
    EXPECT_FALSE(table->journal().pending().has_value());
}

TEST_F(MapTest, PendingChangeThatNobodyCanCarryOutIsCorruption) {
    for (const auto& [operation, collection] :
         {std::pair(kStoreValue, 1), std::pair(kStoreValue + 1, 0)}) {
        auto table = items();
        table->journal().begin(operation, static_cast<std::uint64_t>(collection), 0);
        table->journal().seal();
        table = nullptr;
        restart();
        table = items();
        EXPECT_EQ(table->corruptions(), 1U);
        EXPECT_FALSE(table->journal().pending().has_value());
        table = nullptr;
        restart();
    }
}

TEST_F(MapTest, ReplacedValueIsInNoJournalAfterwards) {
    const auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table->items.insertOrReplace(item(1, 2));
    EXPECT_FALSE(table->journal().pending().has_value());
    EXPECT_FALSE(table->journal().rotten());
}

TEST_F(MapTest, MountFreesATornValue) {
    auto table = items();
    table->items.insertOrReplace(item(1, 1));
    table = nullptr;
    restart();
    flip(itemsFile(), itemSlotOffset(64, 0));
    flip(itemsFile(), itemSlotOffset(64, 0) + 40);
    table = items();
    EXPECT_EQ(table->corruptions(), 0U);
    table->tornSettled();
    EXPECT_EQ(table->corruptions(), 1U);
    EXPECT_EQ(table->items.count(), 0U);
    table->items.assertConsistent();
}

TEST_F(MapTest, OnlyTheTornValueOfThePendingKeyIsNoCorruption) {
    for (const std::uint64_t pending : {1U, 2U}) {
        auto table = items();
        table->items.insertOrReplace(item(1, 1));
        table->items.insertOrReplace(item(2, 2));
        table = nullptr;
        restart();
        flip(itemsFile(), itemSlotOffset(64, 0));
        flip(itemsFile(), itemSlotOffset(64, 0) + 40);
        table = items();
        table->tornSettled(tornKeyOf(item(pending, 0).key()));
        EXPECT_EQ(table->corruptions(), pending == 1 ? 0U : 1U);
        EXPECT_EQ(table->items.count(), pending == 1 ? 2U : 1U) << "it is to be stored again";
        table->items.erase(item(2, 0).key());
        table = nullptr;
        restart();
    }
}

TEST(MapLayout, ValueOf160BytesStaysInItsBudget) {
    const double perSlot = static_cast<double>(detail::mapBytes(65536, sizeof(Item))) / 65536;
    EXPECT_LE(perSlot, 1.4 * sizeof(Item));
}

}  // namespace
}  // namespace KivShimo::Test
