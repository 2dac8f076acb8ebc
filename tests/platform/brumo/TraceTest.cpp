#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "platform/brumo/Assert.h"
#include "tests/support/TempDir.h"
#include "tests/support/TraceCapture.h"

namespace {

using testing::HasSubstr;
using TestSupport::LogCapture;
using TestSupport::TraceCapture;

const Brumo::TraceSource trace("TraceTestHandle", "TraceTestClass");
const Brumo::TraceSource quiet("TraceTestQuiet", "TraceTestClass");

/// A value that counts how often it is printed.
struct Counted {
    int* printed;
    std::string toText() const {
        ++*printed;
        return "counted";
    }
};

void speak(int level) {
    trace(level, " key: {} ", 7);
}

/// The levels that a filter gives to a handle.
std::uint32_t levelsOf(const char* handle) {
    return Brumo::TraceHandle::named(handle).levels();
}

TEST(TraceTest, CarriesLevelHandleClassFunctionAndText) {
    const TraceCapture traces;
    speak(8);
    ASSERT_EQ(traces.lines().size(), 1U);
    EXPECT_EQ(traces.lines()[0], (TestSupport::TraceLine{8, "TraceTestHandle", "TraceTestClass",
                                                         "speak", " key: 7 "}));
}

TEST(TraceTest, SpeaksInTheNameOfAnotherFunction) {
    const TraceCapture traces;
    trace.in("elsewhere", 1, "text");
    ASSERT_EQ(traces.lines().size(), 1U);
    EXPECT_EQ(traces.lines()[0].function, "elsewhere");
}

TEST(TraceTest, FormatsNothingOfADisabledLine) {
    TraceCapture traces;
    Brumo::traceFilterIs("*/1-7,9");
    int printed = 0;
    trace(8, "value {}", Counted{&printed});
    EXPECT_EQ(printed, 0);
    EXPECT_TRUE(traces.lines().empty());
    EXPECT_FALSE(trace.enabled(8));
    trace(9, "value {}", Counted{&printed});
    EXPECT_EQ(printed, 1);
    EXPECT_TRUE(traces.has("TraceTestHandle", 9, "value counted"));
}

TEST(TraceTest, GivesTheLastMatchingRuleTheWord) {
    const TraceCapture traces;
    Brumo::traceFilterIs("*/1-3;TraceTest*/8;*Quiet/0");
    EXPECT_EQ(levelsOf("TraceTestHandle"), 1U << 8U);
    EXPECT_EQ(levelsOf("TraceTestQuiet"), 1U);
    EXPECT_EQ(levelsOf("SomebodyElse"), 0b1110U);
    EXPECT_TRUE(quiet.enabled(0));
    EXPECT_FALSE(quiet.enabled(1));
}

TEST(TraceTest, AppliesTheFilterToHandlesMadeLater) {
    const TraceCapture traces;
    Brumo::traceFilterIs("MadeLater/4");
    EXPECT_EQ(levelsOf("MadeLater"), 1U << 4U);
    EXPECT_EQ(&Brumo::TraceHandle::named("MadeLater"), &Brumo::TraceHandle::named("MadeLater"));
    EXPECT_THAT(Brumo::traceHandleNames(), testing::Contains("MadeLater"));
}

TEST(TraceTest, UnderstandsLevelsRangesAndTheEmptyFilter) {
    const TraceCapture traces;
    Brumo::traceFilterIs("TraceTestHandle/1,3-5,9");
    EXPECT_EQ(levelsOf("TraceTestHandle"), 0b1000111010U);
    Brumo::traceFilterIs("");
    EXPECT_EQ(levelsOf("TraceTestHandle"), 0U);
    EXPECT_EQ(Brumo::traceFilter(), "");
}

TEST(TraceTest, NamesTheWrongPartOfAFilterAndChangesNothing) {
    const TraceCapture traces;
    Brumo::traceFilterIs("*/2");
    for (const std::string wrong :
         {"nolevels", "/1", "*/x", "*/10", "*/-1", "*/1-", "*/1x", "*/3-1"}) {
        SCOPED_TRACE(wrong);
        try {
            Brumo::traceFilterIs("Good/1;" + wrong);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(
                std::string(error.what()),
                "trace filter \"" + wrong + "\": expected HANDLE-GLOB/LEVELS, for example */1-3,8");
        }
        EXPECT_EQ(Brumo::traceFilter(), "*/2");
        EXPECT_EQ(levelsOf("TraceTestHandle"), 1U << 2U);
    }
}

TEST(TraceTest, WritesLinesToAFile) {
    const TraceCapture traces;
    const TestSupport::TempDir dir;
    const std::string path = dir.file("trace");
    Brumo::traceSinkIs(Brumo::fileTraceSink(path));
    speak(3);
    trace.in("elsewhere", 1, "text");
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    EXPECT_EQ(content.str(),
              "3 TraceTestHandle TraceTestClass::speak: key: 7 \n"
              "1 TraceTestHandle TraceTestClass::elsewhere: text\n");
}

TEST(TraceTest, WritesTheSameLinesToStandardError) {
    const TraceCapture traces;
    Brumo::traceSinkIs(Brumo::standardErrorTraceSink());
    testing::internal::CaptureStderr();
    speak(3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "3 TraceTestHandle TraceTestClass::speak: key: 7 \n");
}

TEST(TraceTest, NamesTheFileThatItCannotOpen) {
    try {
        Brumo::fileTraceSink("/nonexistent/trace");
        ADD_FAILURE() << "opened";
    } catch (const std::system_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("open trace file /nonexistent/trace"));
    }
}

TEST(TraceTest, IsSilentWithoutASink) {
    const TraceCapture traces;
    Brumo::traceSinkIs({});
    speak(1);
    EXPECT_TRUE(traces.lines().empty());
}

constexpr Brumo::LogMessage kWithPlace{"TEST_MESSAGE", "item: %s.", "why", "what to do", 3};

TEST(LogTest, PutsTheArgumentIntoTheFormat) {
    const LogCapture logs;
    Brumo::LogHandle(kWithPlace).emit("table %s");
    Brumo::LogHandle({"PLAIN", "no place", "", "", 5}).emit("unused");
    ASSERT_EQ(logs.lines().size(), 2U);
    EXPECT_EQ(logs.lines()[0], (LogCapture::Line{"TEST_MESSAGE", "item: table %s.", 3}));
    EXPECT_EQ(logs.lines()[1], (LogCapture::Line{"PLAIN", "no place", 5}));
}

TEST(LogTest, WritesToStandardErrorUnlessToldOtherwise) {
    testing::internal::CaptureStderr();
    Brumo::LogHandle(kWithPlace).emit("x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "3 TEST_MESSAGE: item: x.\n");
}

TEST(AssertTest, PassesWhatHolds) {
    Brumo::require(true, "holds");
}

TEST(AssertDeathTest, EndsTheProcessWithTheConditionAndTheMessage) {
    EXPECT_DEATH(Brumo::require(false, "a == b"), "assertion failed: a == b \\(.*TraceTest.cpp:");
    EXPECT_DEATH(Brumo::require(false, "a == b", "a is 1"), "assertion failed: a == b: a is 1 \\(");
    EXPECT_DEATH(Brumo::assertionFailed("cond", "", "Source", 144), "cond \\(Source:144\\)");
}

}  // namespace
