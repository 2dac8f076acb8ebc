#include <gtest/gtest.h>

#include "platform/asic/StageTimes.h"

namespace AsicTests {
namespace {

using Asic::StageTimes;
using std::chrono::nanoseconds;

TEST(StageTimesTest, PutsATimeIntoTheBucketBelowWhoseBoundItIs) {
    for (std::size_t bucket = 0; bucket < StageTimes::kBounds; ++bucket) {
        StageTimes times;
        times.add(StageTimes::bound(bucket) - nanoseconds(1));
        EXPECT_EQ(times.count(bucket), 1U) << bucket;
        times.add(StageTimes::bound(bucket));
        EXPECT_EQ(times.count(bucket + 1), 1U) << bucket;
    }
}

TEST(StageTimesTest, TakesTheShortestAndTheLongestTime) {
    StageTimes times;
    times.add(nanoseconds(0));
    times.add(nanoseconds::max() / 2);
    EXPECT_EQ(times.count(0), 1U);
    EXPECT_EQ(times.count(StageTimes::kBounds), 1U);
    EXPECT_EQ(times.count(), 2U);
    EXPECT_EQ(times.sum(), nanoseconds::max() / 2);
}

}  // namespace
}  // namespace AsicTests
