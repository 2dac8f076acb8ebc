#include "platform/ringtrace/Ring.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

namespace RingTrace::Test {
namespace {

class RingTest : public testing::Test {
protected:
    RingTest() : file_("/dev/shm/ring-test-" + std::to_string(getpid())) {}
    ~RingTest() override { std::filesystem::remove(file_); }

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

}  // namespace
}  // namespace RingTrace::Test
