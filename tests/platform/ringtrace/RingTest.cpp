#include "platform/ringtrace/Ring.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

namespace RingTrace::Test {
namespace {

class RingTest : public testing::Test {
protected:
    RingTest() : file_("/dev/shm/ring-test-" + std::to_string(getpid())) {}
    ~RingTest() override { std::filesystem::remove(file_); }

    /// Flips one bit of the ring's file.
    void flip(std::size_t bit) const {
        std::fstream file(file_, std::ios::in | std::ios::out | std::ios::binary);
        const auto at = static_cast<std::streamoff>(bit / 8);
        const int byte = file.seekg(at).get();
        file.seekp(at).put(static_cast<char>(byte ^ 1 << bit % 8));
        ASSERT_TRUE(file.good());
    }
    static std::string refusalOf(const std::string& file) {
        try {
            Ring::dump(file);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "not refused";
    }

    /// Lines without their time.
    static std::vector<std::string> texts(const std::vector<std::string>& lines) {
        std::vector<std::string> result;
        for (const std::string& line : lines)
            result.push_back(line.substr(line.find(' ') + 1));
        return result;
    }

    std::string file_;
};

using Lines = std::vector<std::string>;

TEST_F(RingTest, DecodesNumbersAndTexts) {
    Ring ring(file_, 8);
    const MessageId sum = ring.message("{} and {} of {}");
    const MessageId named = ring.message("table {} is here");
    ring.record(sum, 1, std::uint64_t{2}, -3);
    ring.record(named, "PolicyTable");
    ring.record(ring.message("nothing to say"));
    EXPECT_EQ(texts(ring.dump()),
              (Lines{"1 and 2 of -3", "table PolicyTable is here", "nothing to say"}));
}

TEST_F(RingTest, ReadingHasTheMessagesAsValues) {
    const auto now_ns = [] {
        return static_cast<std::uint64_t>(
            std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count());
    };
    Ring ring(file_, 8);
    const MessageId sum = ring.message("{} and {} {} {}");
    const std::uint64_t before_ns = now_ns();
    ring.record(sum, -1, -2, -3, INT64_MIN);
    ring.record(ring.message("table {}"), "PolicyTable");
    ring.record(sum, 7);
    ring.record(0);
    const std::uint64_t after_ns = now_ns();
    const Reading reading = Ring::read(file_);
    EXPECT_TRUE(reading.rottenSlots.empty());
    ASSERT_EQ(reading.messages.size(), 4U);
    using Numbers = std::vector<std::int64_t>;
    const auto [first, second, third, fourth] = std::tie(reading.messages[0], reading.messages[1],
                                                         reading.messages[2], reading.messages[3]);
    EXPECT_EQ(first.id, sum);
    EXPECT_EQ(first.format, "{} and {} {} {}");
    EXPECT_EQ(std::get<Numbers>(first.arguments), (Numbers{-1, -2, -3, INT64_MIN}));
    EXPECT_EQ(std::get<std::string>(second.arguments), "PolicyTable");
    EXPECT_EQ(textOf(second), "table PolicyTable");
    EXPECT_EQ(std::get<Numbers>(third.arguments), Numbers{7});
    EXPECT_EQ(textOf(third), "7 and {} {} {}");
    EXPECT_EQ(fourth.format, "?");
    EXPECT_TRUE(std::get<Numbers>(fourth.arguments).empty());
    std::uint64_t sequence = 0;
    for (const Message& message : reading.messages) {
        EXPECT_EQ(message.sequence, ++sequence);
        EXPECT_TRUE(before_ns <= message.time_ns && message.time_ns <= after_ns);
    }
}

TEST_F(RingTest, SequenceCountsOnOverWhatIsOverwrittenOrRotten) {
    Ring ring(file_, 4);
    for (int i = 1; i <= 6; ++i)
        ring.record(ring.message("{}"), i);
    const std::size_t slots = std::filesystem::file_size(file_) - 4 * std::size_t{64};
    flip((slots + 3 * std::size_t{64} + 40) * 8);
    const Reading reading = Ring::read(file_);
    std::vector<std::uint64_t> sequences;
    for (const Message& message : reading.messages)
        sequences.push_back(message.sequence);
    EXPECT_EQ(sequences, (std::vector<std::uint64_t>{3, 5, 6}));
    EXPECT_EQ(reading.rottenSlots, std::vector<std::size_t>{3});
}

TEST_F(RingTest, KeepsTheLastMessages) {
    Ring ring(file_, 4);
    const MessageId id = ring.message("{}");
    for (int i = 0; i < 10; ++i)
        ring.record(id, i);
    EXPECT_EQ(texts(Ring::dump(file_)), (Lines{"6", "7", "8", "9"}));
}

TEST_F(RingTest, GivesTheSameFormatTheSameId) {
    Ring ring(file_, 4);
    EXPECT_EQ(ring.message("a {}"), ring.message("a {}"));
    EXPECT_NE(ring.message("a {}"), ring.message("b {}"));
}

TEST_F(RingTest, SaysQuestionMarkForFormatsBeyondTheRoom) {
    Ring ring(file_, 4);
    for (std::size_t i = 1; i < Ring::kMostFormats; ++i) {
        EXPECT_EQ(ring.message(std::to_string(i)), i);
    }
    EXPECT_EQ(ring.message("one too many"), 0U);
    ring.record(0, 5);
    EXPECT_EQ(texts(ring.dump()), Lines{"?"});
}

TEST_F(RingTest, CutsLongTexts) {
    Ring ring(file_, 4);
    ring.record(ring.message("{}"), std::string(100, 'x'));
    EXPECT_EQ(texts(ring.dump()), Lines{std::string(Ring::kMostText, 'x')});
}

TEST_F(RingTest, IsReadableAfterAKill) {
    const pid_t child = fork();
    if (child == 0) {
        Ring ring(file_, 8);
        ring.record(ring.message("last words {}"), 42);
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(texts(Ring::dump(file_)), Lines{"last words 42"});
}

TEST_F(RingTest, RefusesOtherFiles) {
    EXPECT_THROW(Ring::dump(file_), std::system_error);
    std::ofstream(file_) << "no ring";
    EXPECT_THROW(Ring::dump(file_), std::runtime_error);
}

TEST_F(RingTest, FlippedBitGivesARottenLineWithTheSlotAndNeverAnotherText) {
    Ring ring(file_, 4);
    const MessageId number = ring.message("number {}");
    ring.record(number, 7);
    ring.record(ring.message("text {}"), "seven");
    ring.record(number, 8);
    const Lines whole = Ring::dump(file_);
    const std::size_t bytes = std::filesystem::file_size(file_);
    const std::size_t slots = bytes - 4 * std::size_t{64};
    for (std::size_t bit = slots * 8; bit < bytes * 8; ++bit) {
        flip(bit);
        const std::size_t slot = (bit / 8 - slots) / 64;
        const Lines lines = Ring::dump(file_);
        flip(bit);
        if (slot == 3 && lines == whole)
            continue;  // nothing is stored there
        Lines expected = whole;
        if (slot < 3)
            expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(slot));
        expected.push_back("? slot " + std::to_string(slot) + " does not verify");
        ASSERT_EQ(lines, expected) << bit;
    }
    EXPECT_EQ(Ring::dump(file_), whole);
}

TEST_F(RingTest, FlippedBitOfAFormatMakesItsMessagesRotten) {
    Ring ring(file_, 4);
    const MessageId number = ring.message("number {}");
    const MessageId text = ring.message("text {}");
    ring.record(number, 7);
    ring.record(text, "seven");
    ring.record(number, 8);
    const Lines whole = Ring::dump(file_);
    const std::size_t first = 64 + 128 * std::size_t{number};
    for (std::size_t bit = first * 8; bit < (first + 128) * 8; ++bit) {
        flip(bit);
        EXPECT_EQ(Ring::dump(file_),
                  (Lines{whole[1], "? slot 0 does not verify", "? slot 2 does not verify"}))
            << bit;
        flip(bit);
    }
}

TEST_F(RingTest, FlippedBitOfTheHeaderIsRefusedOrHarmless) {
    Ring ring(file_, 4);
    ring.record(ring.message("number {}"), 7);
    const Lines whole = Ring::dump(file_);
    for (std::size_t bit = 0; bit < 64 * std::size_t{8}; ++bit) {
        flip(bit);
        try {
            EXPECT_EQ(Ring::dump(file_), whole) << bit;
            EXPECT_GE(bit, 16U * 8U) << "magic and number of slots count";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find("not a ring trace"), std::string::npos);
        }
        flip(bit);
    }
}

TEST_F(RingTest, WhatStandsInPlaceOfARingIsRefusedAndNotWaitedFor) {
    ASSERT_EQ(mkfifo(file_.c_str(), 0640), 0);
    EXPECT_EQ(refusalOf(file_), file_ + ": check ring: no regular file");
    std::filesystem::remove(file_);
    std::filesystem::create_directory(file_);
    EXPECT_EQ(refusalOf(file_), file_ + ": check ring: no regular file");
    std::filesystem::remove(file_);
    const std::string other = file_ + "-other";
    const Ring ring(other, 4);
    std::filesystem::create_symlink(other, file_);
    EXPECT_NE(refusalOf(file_).find(file_ + ": open ring: "), std::string::npos);
    std::filesystem::remove(other);
}

TEST_F(RingTest, RingIsShownToItsOwnerAndToRootAndRootsRingToAll) {
    constexpr uid_t kUser = 1000;
    constexpr uid_t kOther = 1001;
    EXPECT_TRUE(Ring::isShown(kUser, kUser));
    EXPECT_TRUE(Ring::isShown(0, kUser));
    EXPECT_TRUE(Ring::isShown(kUser, 0));
    EXPECT_FALSE(Ring::isShown(kOther, kUser));
}

TEST_F(RingTest, RingOfAnotherUserIsReadByRootOnly) {
    constexpr uid_t kOtherUser = 12345;
    Ring ring(file_, 4);
    ring.record(ring.message("number {}"), 7);
    EXPECT_EQ(texts(Ring::dump(file_)), Lines{"number 7"}) << "by its owner";
    // A file of root is looked into by everybody, and refused for what it is.
    EXPECT_EQ(refusalOf("/etc/passwd"), "/etc/passwd: not a ring trace");
    // Only root can give files away; for whoever else it is the rule above that is tested.
    if (geteuid() != 0)
        return;
    ASSERT_EQ(chmod(file_.c_str(), 0644), 0);
    const auto isRefused = [&](uid_t owner) {
        EXPECT_EQ(chown(file_.c_str(), owner, owner), 0);
        const pid_t child = fork();
        if (child == 0) {
            if (setuid(kOtherUser) != 0)
                _exit(3);
            const std::string refusal = refusalOf(file_);
            if (refusal == "not refused")
                _exit(0);
            _exit(refusal == file_ + ": check ring: belongs to another user" ? 1 : 2);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2) << status;
        return WEXITSTATUS(status) == 1;
    };
    EXPECT_FALSE(isRefused(0));
    EXPECT_FALSE(isRefused(kOtherUser));
    EXPECT_TRUE(isRefused(kOtherUser + 1));
    EXPECT_EQ(texts(Ring::dump(file_)), Lines{"number 7"}) << "by root";
}

}  // namespace
}  // namespace RingTrace::Test
