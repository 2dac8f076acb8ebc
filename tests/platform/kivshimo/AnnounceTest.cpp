#include <poll.h>
#include <sys/stat.h>

#include <thread>

#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "tests/platform/kivshimo/Fixture.h"

namespace KivShimo::Test {
namespace {

using AnnounceTest = ShimoTest;
using AckTest = ShimoTest;
using DoorbellTest = ShimoTest;

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
    AnnounceLogWriter log(root_, "log", 8);
    EXPECT_TRUE(log.wiped());
    log.clearWiped();
    EXPECT_FALSE(log.wiped());
    EXPECT_NE(log.identity(), before);
    EXPECT_TRUE(reader->stale());
}

/// REQUIRES: nothing is rotten.
std::vector<Acknowledged> allOf(const AckMapReader& reader) {
    return reader.all([](const CorruptionError& error) { ADD_FAILURE() << error.what(); });
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

TEST_F(AckTest, HoldsSixtyFourTables) {
    AckMapWriter writer(root_, "acks");
    for (std::uint32_t table = 0; table < kMostAckTables; ++table) {
        EXPECT_TRUE(writer.ackIs(table, table));
    }
    EXPECT_FALSE(writer.ackIs(1000, 1));
    EXPECT_EQ(AckMapReader::open(file("acks"))->acknowledged(63), 63U);
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
    EXPECT_EQ(readable.front().tableId, 3U);
    EXPECT_EQ(reader->acknowledged(3), 30U);
    const AckMapWriter writer(root_, "acks");
    EXPECT_EQ(writer.corruptions(), 2U);
    EXPECT_EQ(writer.acknowledged(1), std::nullopt);
    EXPECT_EQ(reader->acknowledged(3), 30U);
    EXPECT_EQ(allOf(*reader).size(), 1U);
}

TEST_F(DoorbellTest, RingsOnlyWhoSleepsAndOnceForAnEpoch) {
    Doorbell bell(root_ + "/bell");
    std::uint64_t epoch = 0;
    Sleeper sleeper(epoch);
    Waker waker(epoch, bell.path());
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
    std::uint64_t epoch = 5;
    const Sleeper sleeper(epoch);
    EXPECT_EQ(epoch, 6U);
}

TEST_F(DoorbellTest, NoWakeUpIsLost) {
    Doorbell bell(root_ + "/bell");
    std::uint64_t epoch = 0;
    std::atomic<std::uint64_t> work{0};
    constexpr std::uint64_t kRounds = 20000;
    std::thread worker([&] {
        Sleeper sleeper(epoch);
        std::uint64_t done = 0;
        while (done < kRounds) {
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
    Waker waker(epoch, bell.path());
    for (std::uint64_t i = 1; i <= kRounds; ++i) {
        work.store(i, std::memory_order_release);
        waker.published();
    }
    worker.join();
}

}  // namespace
}  // namespace KivShimo::Test
