#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/brumo/StandardError.h"

namespace {

using Brumo::linesOf;
using Brumo::Priority;

TEST(StandardErrorTest, TellsTheJournalThePriorityOfEachLine) {
    EXPECT_EQ(linesOf(Priority::warning, "one", true), "<4>one\n");
    EXPECT_EQ(linesOf(Priority::error, "one\ntwo", true), "<3>one\n<3>two\n");
}

TEST(StandardErrorTest, TellsPeopleTheTextAlone) {
    EXPECT_EQ(linesOf(Priority::critical, "one\ntwo", false), "one\ntwo\n");
}

TEST(StandardErrorTest, KnowsTheStreamThatADescriptorIs) {
    struct stat status {};
    ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
    const std::string itself = fmt::format("{}:{}", status.st_dev, status.st_ino);
    EXPECT_TRUE(Brumo::isStream(STDERR_FILENO, itself.c_str()));
    EXPECT_FALSE(Brumo::isStream(STDERR_FILENO, (itself + "0").c_str()));
    EXPECT_FALSE(Brumo::isStream(STDERR_FILENO, ""));
    EXPECT_FALSE(Brumo::isStream(STDERR_FILENO, nullptr));
    EXPECT_FALSE(Brumo::isStream(-1, itself.c_str()));
}

}  // namespace
