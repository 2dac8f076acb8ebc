#include <chrono>
#include <map>
#include <random>

#include "platform/kivshimo/VersionLogReader.h"
#include "tests/platform/kivshimo/Fixture.h"

namespace KivShimo::Test {
namespace {

using VersionLogTest = ShimoTest;
using LogReader = VersionLogReader<ChangeRecord>;
using Versions = std::vector<std::uint64_t>;

Versions versionsIn(const VersionLog<ChangeRecord>& log, std::uint64_t from = 0,
                    std::uint64_t to = ~std::uint64_t{0}) {
    Versions result;
    log.visitVersions(from, to, [&](std::uint64_t version) { result.push_back(version); });
    return result;
}

Versions versionsIn(const LogReader& reader, std::uint64_t to) {
    Versions result;
    reader.forEach(0, to, [&](const ChangeRecord& r) { result.push_back(r.version); });
    return result;
}

std::uint64_t recordOffset(std::uint64_t slots, std::uint64_t version) {
    return detail::kAreasOffset + slots * 8 + version % slots * 32;
}

TEST_F(VersionLogTest, InsertsFindsErasesAndCounts) {
    const auto table = changes();
    for (std::uint64_t v = 3; v <= 12; ++v)
        EXPECT_TRUE(table->changes.insert(change(v)));
    EXPECT_EQ(table->changes.count(), 10U);
    EXPECT_EQ(table->changes.find(7), change(7));
    EXPECT_EQ(table->changes.find(2), std::nullopt);
    EXPECT_EQ(table->changes.lowest(), 3U);
    EXPECT_EQ(table->changes.highestBound(), 12U);
    EXPECT_TRUE(table->changes.erase(7));
    EXPECT_FALSE(table->changes.erase(7));
    EXPECT_EQ(table->changes.find(7), std::nullopt);
    EXPECT_EQ(versionsIn(table->changes, 5, 9), (Versions{5, 6, 8, 9}));
    EXPECT_FALSE(table->changes.insert(change(0)));
    table->changes.assertConsistent();
}

TEST_F(VersionLogTest, StragglerKeepsItsSlot) {
    const auto table = changes(64);
    ASSERT_EQ(table->changes.slots(), 64U);
    EXPECT_TRUE(table->changes.insert(change(5)));
    EXPECT_FALSE(table->changes.hasRoomFor(69));
    EXPECT_FALSE(table->changes.insert(change(69)));
    EXPECT_EQ(table->changes.find(5), change(5));
    EXPECT_EQ(table->changes.find(69), std::nullopt);
    EXPECT_TRUE(table->changes.erase(5));
    EXPECT_TRUE(table->changes.insert(change(69)));
}

TEST_F(VersionLogTest, OffersRoomBeyondItsCapacity) {
    const auto table = changes(1000000);
    EXPECT_EQ(table->changes.capacity(), 1000000U);
    EXPECT_EQ(table->changes.slots(), 1048576U);
    EXPECT_LE(detail::versionLogBytes(1048576, 32) / 1048576, 44U);
}

TEST_F(VersionLogTest, CeilingLimitsTheRoom) {
    EntityManager::capacityCeilingIs(1000);
    const auto table = changes(1000000);
    EXPECT_EQ(table->changes.capacity(), 1000U);
    EXPECT_EQ(table->changes.slots(), 1024U);
}

TEST_F(VersionLogTest, VisitsRangesWithoutAnEnd) {
    const auto table = changes(1000000);
    for (const std::uint64_t v : {3U, 900000U, 1048570U, 1048577U}) {
        table->changes.insert(change(v));
    }
    EXPECT_EQ(versionsIn(table->changes, 4, std::uint64_t{1} << 63U),
              (Versions{900000, 1048570, 1048577}));
    Versions visited;
    table->changes.visitVersions(1, std::uint64_t{1} << 63U, [&](std::uint64_t v) {
        visited.push_back(v);
        table->changes.erase(v);
    });
    EXPECT_EQ(visited.size(), 4U);
    EXPECT_EQ(table->changes.count(), 0U);
    EXPECT_EQ(table->changes.lowest(), 0U);
}

class VersionLogModelTest : public VersionLogTest, public testing::WithParamInterface<unsigned> {};

TEST_P(VersionLogModelTest, BehavesAsAnOrderedMapWithHolesAndStragglers) {
    constexpr std::uint64_t kSlots = 32;
    std::mt19937_64 random(GetParam());
    std::map<std::uint64_t, ChangeRecord> model;
    auto table = changes(kSlots);
    std::uint64_t version = 0;
    for (int step = 0; step < 2000; ++step) {
        const auto action = random() % 100;
        if (action < 50) {
            version += random() % 20 == 0 ? random() % 200 + 1 : 1;
            const bool free = std::ranges::none_of(
                model, [&](const auto& e) { return e.first % kSlots == version % kSlots; });
            ASSERT_EQ(table->changes.insert(change(version)), free);
            if (free)
                model[version] = change(version);
        } else if (action < 90 && !model.empty()) {
            auto victim = model.begin();
            std::advance(victim, random() % 3 == 0 ? random() % model.size() : 0);
            ASSERT_TRUE(table->changes.erase(victim->first));
            model.erase(victim);
        } else if (action < 95) {
            table = nullptr;
            restart();
            table = changes(kSlots);
            ASSERT_EQ(table->corruptions(), 0U);
        }
        table->changes.assertConsistent();
        Versions expected;
        for (const auto& entry : model)
            expected.push_back(entry.first);
        ASSERT_EQ(versionsIn(table->changes), expected) << "step " << step;
        const std::uint64_t from = random() % (version + 2);
        const auto at = model.lower_bound(from);
        ASSERT_EQ(table->changes.versionAtOrAfter(from),
                  at == model.end() ? std::nullopt : std::optional(at->first));
        if (step % 20 == 0) {
            const LogReader reader(changesFile(), kChangeType, "changes");
            ASSERT_EQ(versionsIn(reader, version), expected);
            ASSERT_EQ(reader.find(from), table->changes.find(from));
            ASSERT_EQ(reader.count(), expected.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, VersionLogModelTest, testing::Range(1U, 6U));

TEST_F(VersionLogTest, EveryFlippedBitIsNoticed) {
    for (std::uint64_t at = 0; at < 40; ++at) {
        auto table = changes(64);
        table->changes.insert(change(9));
        flip(changesFile(),
             at < 8 ? detail::kAreasOffset + 9 * 8 + at : recordOffset(64, 9) + at - 8);
        const LogReader reader(changesFile(), kChangeType, "changes");
        EXPECT_THROW(reader.find(9), CorruptionError) << at;
        EXPECT_THROW(table->changes.find(9), CorruptionError) << at;
        table = nullptr;
        restart();
        table = changes(64);
        EXPECT_EQ(table->corruptions(), 1U);
        EXPECT_EQ(table->changes.count(), 0U);
        table->changes.assertConsistent();
    }
}

TEST_F(VersionLogTest, KilledWriterLeavesItsRecordsAndTheScratchpad) {
    inKilledProcess([&] {
        const auto table = changes(64);
        for (std::uint64_t v = 1; v <= 5; ++v) {
            table->changes.insert(change(v));
            table->collectionControl().scratchpadIs(v);
        }
    });
    EXPECT_TRUE(inOtherProcess([&] {
        const LogReader reader(changesFile(), kChangeType, "changes");
        return reader.scratchpad() == 5 && reader.find(4) == change(4);
    }));
    const auto table = changes(64);
    EXPECT_EQ(table->collectionControl().scratchpad(), 5U);
    EXPECT_EQ(table->changes.count(), 5U);
    EXPECT_EQ(table->corruptions(), 0U);
}

TEST_F(VersionLogTest, ReaderSeesEveryRecordUpToThePublishedVersion) {
    const auto table = changes(1024);
    const pid_t child = fork();
    if (child == 0) {
        const LogReader reader(changesFile(), kChangeType, "changes");
        bool good = true;
        for (std::uint64_t seen = 0; seen < 20000 && good;) {
            const std::uint64_t now = reader.scratchpad();
            good = now >= seen &&
                   (now == 0 || reader.find(now) == change(now) || reader.scratchpad() > now + 500);
            seen = now;
        }
        _exit(good ? 0 : 1);
    }
    int status = 0;
    for (std::uint64_t v = 1; waitpid(child, &status, WNOHANG) == 0; ++v) {
        if (v > 1000)
            table->changes.erase(v - 1000);
        ASSERT_TRUE(table->changes.insert(change(v)));
        table->collectionControl().scratchpadIs(v);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(VersionLogTest, RottenPublishedVersionIsReportedAndNotTakenForTheOneBefore) {
    constexpr std::uint64_t kCells =
        detail::kDynamicOffset + offsetof(detail::DynamicHeader, scratchpad);
    for (std::uint64_t last = 41; last <= 42; ++last) {  // in either cell
        for (std::uint64_t bit = 0; bit < sizeof(detail::VerifiedWord) * 8; ++bit) {
            auto table = changes(64);
            table->collectionControl().scratchpadIs(last - 1);
            table->collectionControl().scratchpadIs(last);
            flip(changesFile(), kCells + bit / 8, bit % 8);
            const LogReader reader(changesFile(), kChangeType, "changes");
            bool reported = false;
            try {
                EXPECT_EQ(reader.scratchpad(), last) << bit;
            } catch (const CorruptionError&) {
                reported = true;
            }
            table = nullptr;
            restart();
            table = changes(64);
            EXPECT_EQ(table->corruptions(), reported ? 1U : 0U) << bit;
            EXPECT_EQ(table->collectionControl().scratchpad(), reported ? last - 1 : last) << bit;
            EXPECT_EQ(table->collectionControl().scratchpadRotten(), reported);
            if (reported) {
                EXPECT_THROW(reader.scratchpad(), CorruptionError) << "until the owner stores it";
                table->collectionControl().scratchpadIs(last);
            }
            EXPECT_EQ(reader.scratchpad(), last) << bit;
        }
    }
}

TEST_F(VersionLogTest, PublishedVersionThatRotsInBothCellsCountsAsNone) {
    auto table = changes(64);
    table->collectionControl().scratchpadIs(41);
    table->collectionControl().scratchpadIs(42);
    const std::uint64_t cells =
        detail::kDynamicOffset + offsetof(detail::DynamicHeader, scratchpad);
    flip(changesFile(), cells + 24);
    flip(changesFile(), cells);
    const LogReader reader(changesFile(), kChangeType, "changes");
    EXPECT_THROW(reader.scratchpad(), CorruptionError);
    table = nullptr;
    restart();
    table = changes(64);
    EXPECT_EQ(table->corruptions(), 1U);
    EXPECT_EQ(table->collectionControl().scratchpad(), 0U);
    table->collectionControl().scratchpadIs(7);
    EXPECT_EQ(reader.scratchpad(), 7U);
}

TEST_F(VersionLogTest, MountsANearlyEmptyLogFast) {
    using Clock = std::chrono::steady_clock;
    const auto since = [](Clock::time_point start) {
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    };
    auto start = Clock::now();
    auto table = changes(1000000);
    const double fresh_ms = since(start);
    for (const std::uint64_t v : {1U, 500000U, 999999U})
        table->changes.insert(change(v));
    start = Clock::now();
    EXPECT_EQ(versionsIn(table->changes).size(), 3U);
    const double walk_ms = since(start);
    table = nullptr;
    restart();
    start = Clock::now();
    table = changes(1000000);
    const double again_ms = since(start);
    EXPECT_EQ(table->changes.count(), 3U);
    RecordProperty("fresh_ms", std::to_string(fresh_ms));
    RecordProperty("again_ms", std::to_string(again_ms));
    printf("fresh %.2f ms, walk of 3 %.4f ms, again %.2f ms\n", fresh_ms, walk_ms, again_ms);
    EXPECT_LT(walk_ms, 5);
    EXPECT_LT(again_ms, 500);
}

}  // namespace
}  // namespace KivShimo::Test
