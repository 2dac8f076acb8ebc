#include <poll.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <numeric>
#include <random>
#include <thread>

#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "platform/kivshimo/detail/AnnounceSlot.h"
#include "tests/platform/kivshimo/Fixture.h"
#include "tests/support/TraceCapture.h"

namespace KivShimo::Test {
namespace {

using AnnounceTest = ShimoTest;
using AckTest = ShimoTest;

/// A word for a sleeper, as in a fresh file.
class DoorbellTest : public ShimoTest {
protected:
    static constexpr std::uint64_t kSeed = 4711;

    static std::uint64_t wordOf(std::uint32_t epoch) {
        return detail::SleepEpoch::encoded(epoch, kSeed);
    }
    detail::SleepWord sleepWord() const { return {word_, kSeed}; }
    std::uint64_t stored() const { return detail::loaded(word_); }
    template <class Make>
    void noWakeUpIsLost(Make&& make);

    std::uint64_t word_ = wordOf(0);
};

std::vector<NeededVersion> needed(std::size_t count) {
    std::vector<NeededVersion> result;
    for (std::uint32_t i = 0; i < count; ++i)
        result.push_back({i + 1, 1000U + i});
    return result;
}

TEST_F(AnnounceTest, ReaderGetsWhatWasAppendedInOrder) {
    EXPECT_FALSE(AnnounceLogReader::open(file("log")).has_value());
    AnnounceLogWriter log(root_, "log", 64);
    const auto reader = AnnounceLogReader::open(file("log"));
    ASSERT_TRUE(reader.has_value());
    EXPECT_FALSE(reader->next(1).has_value());
    for (std::size_t count = 0; count <= 10; ++count) {
        ASSERT_TRUE(log.append(7, 100 + count, needed(count)));
    }
    std::uint64_t position = 1;
    for (std::size_t count = 0; count <= 10; ++count) {
        const auto next = reader->next(position);
        ASSERT_TRUE(next.has_value());
        EXPECT_EQ(next->tableId, 7U);
        EXPECT_EQ(next->version, 100 + count);
        EXPECT_EQ(next->needed, needed(count));
        EXPECT_EQ(next->position + 1 - position, AnnounceLogWriter::slotsFor(count));
        position = next->position + 1;
    }
    EXPECT_FALSE(reader->next(position).has_value());
    EXPECT_EQ(reader->tail(), log.tail());
}

TEST(AnnounceSlotTest, GivesTheWordsThatItLiesInMemoryAs) {
    std::array<std::uint8_t, sizeof(detail::AnnounceSlot)> bytes{};
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
    detail::AnnounceSlot slot;
    std::memcpy(static_cast<void*>(&slot), bytes.data(), sizeof(slot));
    std::array<std::uint64_t, 8> inMemory{};
    std::memcpy(inMemory.data(), bytes.data(), sizeof(slot));
    EXPECT_EQ(slot.words(slot.check), inMemory);
}

TEST_F(AnnounceTest, FullLogRefusesUntilConsumed) {
    AnnounceLogWriter log(root_, "log", 8);
    for (std::uint64_t v = 1; v <= 8; ++v)
        ASSERT_TRUE(log.append(1, v));
    EXPECT_EQ(log.free(), 0U);
    EXPECT_FALSE(log.append(1, 9));
    EXPECT_FALSE(log.consumedIs(9));
    EXPECT_TRUE(log.consumedIs(2));
    EXPECT_FALSE(log.consumedIs(1));
    EXPECT_FALSE(log.append(1, 9, needed(7)));
    EXPECT_TRUE(log.append(1, 9, needed(6)));
    EXPECT_FALSE(log.append(1, 10));
    const auto reader = AnnounceLogReader::open(file("log"));
    EXPECT_EQ(reader->next(3)->version, 3U);
    EXPECT_EQ(reader->next(9)->version, 9U);
    EXPECT_THROW(reader->next(1), CorruptionError);
}

TEST_F(AnnounceTest, SurvivesRestartsOfEitherSide) {
    inKilledProcess([&] {
        AnnounceLogWriter log(root_, "log", 8);
        for (std::uint64_t v = 1; v <= 5; ++v)
            log.append(1, v);
    });
    EXPECT_EQ(AnnounceLogReader::open(file("log"))->next(5)->version, 5U);
    AnnounceLogWriter log(root_, "log", 8);
    EXPECT_EQ(log.tail(), 5U);
    EXPECT_FALSE(log.wiped());
    EXPECT_EQ(log.free(), 3U);
    EXPECT_TRUE(log.append(1, 6));
    EXPECT_EQ(AnnounceLogReader::open(file("log"))->next(6)->version, 6U);
}

TEST_F(AnnounceTest, TellsTornFromRotten) {
    AnnounceLogWriter log(root_, "log", 8);
    log.append(1, 1);
    const auto reader = AnnounceLogReader::open(file("log"));
    overwrite(file("log"), detail::kAreasOffset + 2 * 64, 2);
    EXPECT_FALSE(reader->next(2).has_value());
    for (std::uint64_t at = 0; at < 64; ++at) {
        flip(file("log"), detail::kAreasOffset + 64 + at);
        EXPECT_THROW(reader->next(1), CorruptionError) << at;
        flip(file("log"), detail::kAreasOffset + 64 + at);
    }
    EXPECT_EQ(reader->next(1)->version, 1U);
}

TEST_F(AnnounceTest, FindsTheTailWithoutItsWord) {
    {
        AnnounceLogWriter log(root_, "log", 8);
        for (std::uint64_t v = 1; v <= 6; ++v)
            log.append(1, v);
    }
    const std::uint64_t tail = detail::kDynamicOffset + offsetof(detail::DynamicHeader, tail);
    flip(file("log"), tail);
    flip(file("log"), tail + 24);
    EXPECT_THROW(AnnounceLogReader::open(file("log"))->tail(), CorruptionError);
    const AnnounceLogWriter log(root_, "log", 8);
    EXPECT_EQ(log.tail(), 6U);
}

TEST_F(AnnounceTest, ReplacedLogHasAnotherIdentity) {
    std::uint64_t before = 0;
    {
        const AnnounceLogWriter log(root_, "log", 8);
        before = log.identity();
    }
    const auto reader = AnnounceLogReader::open(file("log"));
    std::filesystem::remove(file("log"));
    const AnnounceLogWriter log(root_, "log", 8);
    EXPECT_TRUE(log.wiped());
    EXPECT_NE(log.identity(), before);
    EXPECT_TRUE(reader->stale());
}

constexpr std::uint64_t kWipedOffset =
    detail::kDynamicOffset + offsetof(detail::DynamicHeader, wiped);

TEST_F(AnnounceTest, LossIsTracedByTheMountThatFindsItAndByNoLaterOne) {
    const auto mountBoth = [this] {
        const AnnounceLogWriter log(root_, "log", 8);
        const AckMapWriter acks(root_, "acks");
        return log.wiped() && acks.wiped();
    };
    EXPECT_FALSE(mountBoth());
    std::filesystem::remove(file("log"));
    std::filesystem::remove(file("acks"));
    TestSupport::TraceCapture traces;
    EXPECT_TRUE(mountBoth());
    EXPECT_EQ(traces.texts("KivShimo", 1).size(), 2U);
    EXPECT_FALSE(mountBoth());
    EXPECT_EQ(traces.texts("KivShimo", 1).size(), 2U);
}

TEST_F(AnnounceTest, LossThatWasNotTracedYetIsTracedByTheNextMount) {
    { const AnnounceLogWriter log(root_, "log", 8); }
    overwrite(file("log"), kWipedOffset, detail::kWiped);  // killed when the file had its name
    TestSupport::TraceCapture traces;
    EXPECT_TRUE(AnnounceLogWriter(root_, "log", 8).wiped());
    EXPECT_EQ(traces.texts("KivShimo", 1).size(), 1U);
    EXPECT_FALSE(AnnounceLogWriter(root_, "log", 8).wiped());
}

TEST_F(AnnounceTest, MarkWithAWrongBitIsNoLossButCorruption) {
    { const AnnounceLogWriter log(root_, "log", 8); }
    { const AckMapWriter acks(root_, "acks"); }
    for (unsigned bit = 0; bit < 64; ++bit) {
        flip(file("log"), kWipedOffset + bit / 8, bit % 8);
        flip(file("acks"), kWipedOffset + bit / 8, bit % 8);
        TestSupport::TraceCapture traces;
        const AnnounceLogWriter log(root_, "log", 8);
        EXPECT_FALSE(log.wiped()) << bit;
        EXPECT_EQ(log.corruptions(), 1U) << bit;
        const AckMapWriter acks(root_, "acks");
        EXPECT_FALSE(acks.wiped()) << bit;
        EXPECT_EQ(acks.corruptions(), 1U) << bit;
        for (const char* name : {"log", "acks"}) {
            EXPECT_TRUE(traces.has("KivShimo", 1,
                                   " " + file(name) + ": collection wiped mark: slot 0: " +
                                       "does not verify, the nearer one counts"))
                << bit;
        }
    }
    EXPECT_EQ(AnnounceLogWriter(root_, "log", 8).corruptions(), 0U) << "it was put right";
}

/// REQUIRES: nothing is rotten.
std::vector<Acknowledged> allOf(const AckMapReader& reader) {
    const Acknowledgements all =
        reader.all([](const CorruptionError& error) { ADD_FAILURE() << error.what(); });
    return {all.begin(), all.end()};
}

TEST_F(AckTest, ReaderWaitsForTheFileAndFollowsTheWriter) {
    EXPECT_FALSE(AckMapReader::open(file("acks")).has_value());
    AckMapWriter writer(root_, "acks");
    const auto reader = AckMapReader::open(file("acks"));
    ASSERT_TRUE(reader.has_value());
    EXPECT_EQ(reader->acknowledged(5), std::nullopt);
    EXPECT_TRUE(writer.ackIs(5, 10));
    EXPECT_TRUE(writer.ackIs(6, 1));
    EXPECT_TRUE(writer.ackIs(5, 12));
    EXPECT_TRUE(writer.ackIs(5, 12));
    EXPECT_EQ(reader->acknowledged(5), 12U);
    EXPECT_EQ(reader->acknowledged(6), 1U);
    EXPECT_EQ(allOf(*reader).size(), 2U);
    writer.consumedIs(77);
    writer.announceIdentityIs(99);
    writer.pauseRequestedIs(true);
    EXPECT_EQ(reader->consumed(), 77U);
    EXPECT_EQ(reader->announceIdentity(), 99U);
    EXPECT_TRUE(reader->pauseRequested());
    writer.pauseRequestedIs(false);
    EXPECT_FALSE(reader->pauseRequested());
}

TEST_F(AckTest, NeverGoesBackwardsOverRestartsToo) {
    {
        AckMapWriter writer(root_, "acks");
        writer.ackIs(5, 10);
        EXPECT_FALSE(writer.ackIs(5, 9));
        EXPECT_EQ(writer.acknowledged(5), 10U);
        writer.consumedIs(4);
    }
    AckMapWriter writer(root_, "acks");
    EXPECT_EQ(writer.acknowledged(5), 10U);
    EXPECT_EQ(writer.consumed(), 4U);
    EXPECT_FALSE(writer.ackIs(5, 9));
    EXPECT_THROW(AckMapWriter(root_, "acks"), DuplicateWriterError);
}

TEST_F(AckTest, DoNotPileUpWhileNobodyTakesThem) {
    AckMapWriter writer(root_, "acks");
    writer.ackIs(5, 1);
    const auto size = std::filesystem::file_size(writer.file());
    for (std::uint64_t version = 2; version <= 100000; ++version)
        ASSERT_TRUE(writer.ackIs(5, version));
    EXPECT_EQ(std::filesystem::file_size(writer.file()), size);
    const auto reader = AckMapReader::open(writer.file());
    ASSERT_EQ(allOf(*reader).size(), 1U);
    EXPECT_EQ(reader->acknowledged(5), 100000U);
}

TEST_F(AckTest, ForgetsOneTable) {
    AckMapWriter writer(root_, "acks");
    writer.ackIs(5, 10);
    writer.ackIs(6, 20);
    writer.forget(5);
    writer.forget(7);
    EXPECT_EQ(writer.acknowledged(5), std::nullopt);
    EXPECT_EQ(writer.acknowledged(6), 20U);
    EXPECT_EQ(AckMapReader::open(file("acks"))->acknowledged(5), std::nullopt);
    EXPECT_TRUE(writer.ackIs(5, 1));
    EXPECT_EQ(AckMapReader::open(file("acks"))->acknowledged(5), 1U);
    EXPECT_EQ(AckMapReader::open(file("acks"))->acknowledged(6), 20U);
}

TEST_F(AckTest, RowWhoseLabelRotsIsLabelledAnewByTheNextAcknowledgement) {
    AckMapWriter writer(root_, "acks");
    writer.ackIs(1, 10);
    flip(file("acks"), detail::kAreasOffset);
    const auto reader = AckMapReader::open(file("acks"));
    EXPECT_THROW(reader->acknowledged(1), CorruptionError);
    writer.ackIs(1, 11);
    EXPECT_EQ(reader->acknowledged(1), 11U);
}

TEST_F(AckTest, RowThatChangesHandsNeverGivesAnotherTablesVersion) {
    constexpr std::uint64_t kRounds = 20000;
    AckMapWriter writer(root_, "acks");
    const auto reader = AckMapReader::open(file("acks"));
    ASSERT_TRUE(reader.has_value());
    std::atomic<bool> isOver{false};
    std::thread hardware([&] {
        for (std::uint64_t round = 0; round < kRounds; ++round) {
            for (const std::uint32_t table : {1U, 2U}) {
                writer.ackIs(table, 100 + table);
                writer.forget(table);
            }
        }
        isOver = true;
    });
    std::size_t wrong = 0;
    std::size_t looks = 0;
    do {
        ++looks;
        try {
            wrong += reader->acknowledged(1).value_or(101) == 101 ? 0U : 1U;
            const auto report = [&](const CorruptionError&) { ++wrong; };
            for (const auto& [table, version] : reader->all(report))
                wrong += version == 100 + table ? 0U : 1U;
        } catch (const CorruptionError&) {
            ++wrong;
        }
    } while (!isOver);
    hardware.join();
    EXPECT_EQ(wrong, 0U) << "in " << looks << " looks";
}

TEST_F(AckTest, PauseRequestWithAWrongBitIsReportedAndNeitherDroppedNorInvented) {
    constexpr std::uint64_t kPause =
        detail::kDynamicOffset + offsetof(detail::DynamicHeader, pause);
    for (const bool requested : {true, false}) {
        std::size_t reported = 0;
        for (unsigned bit = 0; bit < 64 * 8; ++bit) {
            AckMapWriter writer(root_, "acks");
            writer.pauseRequestedIs(!requested);
            writer.pauseRequestedIs(requested);
            const auto reader = AckMapReader::open(file("acks"));
            flip(file("acks"), kPause + bit / 8, bit % 8);
            try {
                EXPECT_EQ(reader->pauseRequested(), requested) << bit;
            } catch (const CorruptionError& error) {
                ++reported;
                EXPECT_NE(std::string(error.what()).find("pause request"), std::string::npos);
            }
            EXPECT_EQ(writer.pauseRequested(), requested) << bit;
            writer.pauseRequestedIs(requested);
            EXPECT_EQ(reader->pauseRequested(), requested) << "said again after " << bit;
            flip(file("acks"), kPause + bit / 8, bit % 8);
        }
        EXPECT_GT(reported, 0U);
    }
}

TEST_F(AckTest, RottenPauseRequestCountsAsNoneAtTheMountAndAsCorruption) {
    const std::uint64_t pause = detail::kDynamicOffset + offsetof(detail::DynamicHeader, pause);
    AckMapWriter(root_, "acks").pauseRequestedIs(true);
    flip(file("acks"), pause);
    flip(file("acks"), pause + 24);
    const AckMapWriter writer(root_, "acks");
    EXPECT_EQ(writer.corruptions(), 1U);
    EXPECT_FALSE(writer.pauseRequested());
    EXPECT_FALSE(AckMapReader::open(file("acks"))->pauseRequested());
}

TEST_F(AckTest, RottenNotedLogIsTakenForNoneThatThereIsAtTheMount) {
    const std::uint64_t noted = detail::kDynamicOffset + offsetof(detail::DynamicHeader, tail);
    {
        AckMapWriter writer(root_, "acks");
        writer.announceIdentityIs(77);
        writer.ackIs(1, 10);
    }
    flip(file("acks"), noted);
    flip(file("acks"), noted + 24);
    AckMapWriter writer(root_, "acks");
    EXPECT_EQ(writer.corruptions(), 1U);
    EXPECT_EQ(writer.announceIdentity(), kNoAnnounceLog) << "0 would be: none noted yet";
    EXPECT_EQ(AckMapReader::open(file("acks"))->announceIdentity(), kNoAnnounceLog);
    EXPECT_EQ(writer.acknowledged(1), 10U);
}

TEST_F(AckTest, HoldsSixtyFourTables) {
    AckMapWriter writer(root_, "acks");
    for (std::uint32_t table = 0; table < kMostAckTables; ++table) {
        EXPECT_TRUE(writer.ackIs(table, table));
    }
    EXPECT_FALSE(writer.ackIs(1000, 1));
    EXPECT_EQ(AckMapReader::open(file("acks"))->acknowledged(63), 63U);
}

TEST_F(AckTest, ReaderFindsEveryRowWhicheverOthersAreFree) {
    for (std::uint32_t kept = 0; kept < kMostAckTables; ++kept) {
        AckMapWriter writer(root_, "acks");
        for (std::uint32_t table = 0; table < kMostAckTables; ++table)
            writer.ackIs(table, table + 1);
        for (std::uint32_t table = 0; table < kMostAckTables; ++table) {
            if (table != kept)
                writer.forget(table);
        }
        const auto all = allOf(*AckMapReader::open(file("acks")));
        ASSERT_EQ(all.size(), 1U);
        EXPECT_EQ(all[0].tableId, kept);
        EXPECT_EQ(all[0].version, kept + 1);
        writer.forget(kept);
    }
}

TEST_F(AckTest, RottenRowsThrowAndAreDroppedAtTheMount) {
    {
        AckMapWriter writer(root_, "acks");
        writer.ackIs(1, 10);
        writer.ackIs(2, 20);
        writer.ackIs(3, 30);
    }
    flip(file("acks"), detail::kAreasOffset);
    flip(file("acks"), detail::kAreasOffset + 64 + 16 + 24);
    flip(file("acks"), detail::kAreasOffset + 64 + 16);
    const auto reader = AckMapReader::open(file("acks"));
    EXPECT_THROW(reader->acknowledged(1), CorruptionError);
    EXPECT_THROW(reader->acknowledged(2), CorruptionError);
    std::size_t reported = 0;
    const auto readable = reader->all([&](const CorruptionError&) { ++reported; });
    EXPECT_EQ(reported, 2U);
    ASSERT_EQ(readable.size(), 1U);
    EXPECT_EQ(readable.begin()->tableId, 3U);
    EXPECT_EQ(reader->acknowledged(3), 30U);
    const AckMapWriter writer(root_, "acks");
    EXPECT_EQ(writer.corruptions(), 2U);
    EXPECT_EQ(writer.acknowledged(1), std::nullopt);
    EXPECT_EQ(reader->acknowledged(3), 30U);
    EXPECT_EQ(allOf(*reader).size(), 1U);
}

TEST_F(DoorbellTest, RingsOnlyWhoSleepsAndOnceForAnEpoch) {
    Doorbell bell(root_ + "/bell");
    Sleeper sleeper(sleepWord());
    Waker waker(sleepWord(), bell.path());
    EXPECT_FALSE(waker.published());
    sleeper.asleep();
    EXPECT_TRUE(waker.published());
    EXPECT_FALSE(waker.published());
    EXPECT_EQ(bell.drain(), 1U);
    sleeper.awake();
    EXPECT_FALSE(waker.published());
    sleeper.asleep();
    EXPECT_TRUE(waker.published());
    EXPECT_EQ(bell.drain(), 1U);
    EXPECT_EQ(bell.drain(), 0U);
}

TEST_F(DoorbellTest, WakerRingsWhoeverIsThereAfterThePeerHasGone) {
    Sleeper sleeper(sleepWord());
    Waker waker(sleepWord(), root_ + "/bell");
    sleeper.asleep();
    EXPECT_FALSE(waker.published()) << "nobody is there yet";
    for (int i = 0; i < 3; ++i) {
        Doorbell bell(root_ + "/bell");
        sleeper.awake();
        sleeper.asleep();
        EXPECT_TRUE(waker.published());
        EXPECT_EQ(bell.drain(), 1U);
    }
    sleeper.awake();
    sleeper.asleep();
    EXPECT_FALSE(waker.published()) << "nobody is there any more";
}

TEST_F(DoorbellTest, WakerLeavesABellThatIsFullForTheOneThatIsThereNow) {
    Doorbell forgotten(root_ + "/bell");
    Sleeper sleeper(sleepWord());
    Waker waker(sleepWord(), root_ + "/bell");
    sleeper.asleep();
    EXPECT_TRUE(waker.published());
    for (int i = 0; i < 5000; ++i)
        ASSERT_TRUE(ring(forgotten.path()));
    sleeper.awake();
    sleeper.asleep();
    EXPECT_TRUE(waker.published()) << "a full bell needs no ring";
    Doorbell bell(root_ + "/bell");
    sleeper.awake();
    sleeper.asleep();
    EXPECT_TRUE(waker.published());
    EXPECT_EQ(bell.drain(), 1U);
}

TEST_F(DoorbellTest, MissingOrDeafPeerIsNoError) {
    EXPECT_FALSE(ring(root_ + "/nobody"));
    EXPECT_FALSE(ring(std::string(300, 'x')));
    Doorbell bell(root_ + "/bell");
    for (int i = 0; i < 5000; ++i)
        ASSERT_TRUE(ring(bell.path()));
    EXPECT_GT(bell.drain(), 0U);
}

TEST_F(DoorbellTest, ReplacesADeadProcesssSocketAndNothingElse) {
    inKilledProcess([&] { static Doorbell dead(root_ + "/bell"); });
    Doorbell bell(root_ + "/bell");
    EXPECT_TRUE(ring(bell.path()));
    struct stat status {};
    ASSERT_EQ(stat(bell.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0660U);
    std::filesystem::create_directory(root_ + "/folder");
    EXPECT_THROW(Doorbell(root_ + "/folder"), MountError);
    EXPECT_THROW(Doorbell(std::string(300, 'x')), MountError);
}

TEST_F(DoorbellTest, SleeperLeftAsleepByAKillIsAwakeAfterwards) {
    word_ = wordOf(5);
    const Sleeper sleeper(sleepWord());
    const auto epoch = detail::SleepEpoch::decoded(stored(), kSeed);
    ASSERT_TRUE(epoch.has_value());
    EXPECT_EQ(*epoch & detail::SleepEpoch::kAsleep, 0U);
    EXPECT_GT(*epoch, 5U) << "a waker may have rung for that";
}

TEST_F(DoorbellTest, SleeperWhoseWordHasAWrongBitIsRung) {
    Doorbell bell(root_ + "/bell");
    Sleeper sleeper(sleepWord());
    Waker waker(sleepWord(), bell.path());
    for (unsigned bit = 0; bit < 64; ++bit) {
        for (const bool isRungBefore : {false, true}) {
            sleeper.asleep();
            if (isRungBefore) {
                EXPECT_TRUE(waker.published()) << bit;
            }
            const std::uint64_t right = stored();
            word_ ^= std::uint64_t{1} << bit;
            EXPECT_TRUE(waker.published()) << bit;
            EXPECT_TRUE(waker.published()) << "it is not known whether it was rung, " << bit;
            EXPECT_EQ(bell.drain(), isRungBefore ? 3U : 2U);
            word_ = right;
            EXPECT_TRUE(waker.published()) << "what was rung for before is forgotten, " << bit;
            EXPECT_EQ(bell.drain(), 1U);
            word_ ^= std::uint64_t{1} << bit;
            sleeper.awake();
            EXPECT_FALSE(waker.published()) << "the sleeper has stored a right word, " << bit;
            word_ ^= std::uint64_t{1} << bit;
            sleeper.asleep();
            EXPECT_TRUE(waker.published()) << bit;
            EXPECT_FALSE(waker.published()) << bit;
            EXPECT_EQ(bell.drain(), 1U);
            sleeper.awake();
        }
    }
}

TEST_F(DoorbellTest, ZeroedWordRingsEachTime) {
    Doorbell bell(root_ + "/bell");
    Sleeper sleeper(sleepWord());
    sleeper.asleep();
    word_ = 0;
    Waker waker(sleepWord(), bell.path());
    EXPECT_TRUE(waker.published()) << "it has met no other word";
    EXPECT_TRUE(waker.published());
    EXPECT_EQ(bell.drain(), 2U);
}

TEST_F(DoorbellTest, SleeperThatFindsARottenWordStoresARightOne) {
    for (unsigned bit = 0; bit < 64; ++bit) {
        word_ = wordOf(7) ^ std::uint64_t{1} << bit;
        const Sleeper sleeper(sleepWord());
        const auto epoch = detail::SleepEpoch::decoded(stored(), kSeed);
        ASSERT_TRUE(epoch.has_value()) << bit;
        EXPECT_EQ(*epoch % 2, 0U) << bit;
    }
}

TEST_F(DoorbellTest, WordOfAnotherFileDoesNotVerify) {
    Doorbell bell(root_ + "/bell");
    AckMapWriter writer(root_, "acks");
    const auto reader = AckMapReader::open(file("acks"));
    Waker waker(reader->sleepEpoch(), bell.path());
    EXPECT_FALSE(waker.published()) << "in a fresh file nobody sleeps";
    overwrite(file("acks"), detail::kDynamicOffset + offsetof(detail::DynamicHeader, sleepEpoch),
              wordOf(2));
    EXPECT_TRUE(waker.published());
}

/// A sleeper that leaves its wakers their own barriers.
class PlainSleeper {
public:
    explicit PlainSleeper(std::uint64_t& word, std::uint64_t seed) : word_(&word), seed_(seed) {}
    void asleep() {
        store(++epoch_);
        std::atomic_thread_fence(std::memory_order_seq_cst);
    }
    void awake() { store(epoch_ += 3); }

private:
    void store(std::uint32_t epoch) {
        detail::word(*word_).store(detail::SleepEpoch::encoded(epoch, seed_),
                                   std::memory_order_relaxed);
    }
    std::uint64_t* word_;
    std::uint64_t seed_;
    std::uint32_t epoch_ = 0;
};

/// Work comes one by one, each when the worker is about to sleep after the one before, and its
/// store is held up behind others that miss the caches.
template <class Make>
void DoorbellTest::noWakeUpIsLost(Make&& make) {
    constexpr std::uint64_t kRounds = 20000;
    constexpr std::size_t kColdWords = std::size_t{1} << 21U;
    Doorbell bell(root_ + "/bell");
    std::atomic<std::uint64_t> work{0};
    std::atomic<std::uint64_t> done{0};
    std::thread worker([&] {
        auto sleeper = make();
        std::minstd_rand random(1);
        while (done < kRounds) {
            for (auto looks = random() % 1024; looks > 0; --looks)
                done = work.load(std::memory_order_acquire);
            sleeper.asleep();
            if (work.load(std::memory_order_acquire) == done) {
                pollfd waiting{bell.fd(), POLLIN, 0};
                ASSERT_EQ(poll(&waiting, 1, 5000), 1) << "a wake-up was lost at " << done;
            }
            sleeper.awake();
            bell.drain();
            done = work.load(std::memory_order_acquire);
        }
    });
    Waker waker(sleepWord(), bell.path());
    std::vector<std::uint64_t> cold(kColdWords);
    for (std::uint64_t i = 1; i <= kRounds; ++i) {
        for (std::uint64_t k = 0; k < 16; ++k)
            cold[(i * 16 + k) * 40503 % kColdWords] = i;
        work.store(i, std::memory_order_release);
        waker.published();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(6);
        while (done < i && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        if (done < i)
            break;
    }
    work.store(kRounds, std::memory_order_release);
    ring(bell.path());
    worker.join();
}

TEST_F(DoorbellTest, NoWakeUpIsLost) {
    noWakeUpIsLost([this] { return Sleeper(sleepWord()); });
}

TEST_F(DoorbellTest, NoWakeUpOfASleeperIsLostThatDoesNotOrderForBoth) {
    noWakeUpIsLost([this] { return PlainSleeper(word_, kSeed); });
}

}  // namespace
}  // namespace KivShimo::Test
