#include <gtest/gtest.h>

#include <algorithm>

#include "agent/Alarms.h"
#include "tests/support/TraceCapture.h"

namespace {

using Agent::Alarm;
using Agent::Alarms;

const Alarm& named(const Alarms& alarms, std::string_view name, std::string_view subject) {
    return *std::find_if(alarms.all().begin(), alarms.all().end(), [&](const Alarm& alarm) {
        return alarm.name == name && alarm.subject == subject;
    });
}

TEST(AlarmsTest, IsRaisedAboveItsLimitAndClearedAtItsClearValue) {
    Alarms alarms({});
    const Alarm& pool = named(alarms, "pool-fill", "policer");
    alarms.valueIs("pool-fill", "policer", 0.85);
    EXPECT_FALSE(pool.raised);
    alarms.valueIs("pool-fill", "policer", 0.86);
    EXPECT_TRUE(pool.raised);
    EXPECT_GT(pool.sinceTime, 0);
    alarms.valueIs("pool-fill", "policer", 0.71);
    EXPECT_TRUE(pool.raised) << "what hovers does not flap";
    alarms.valueIs("pool-fill", "policer", 0.70);
    EXPECT_FALSE(pool.raised);
    EXPECT_FALSE(named(alarms, "pool-fill", "counter").raised);
}

TEST(AlarmsTest, HasALimitForEachKind) {
    Alarms alarms({});
    alarms.valueIs("log-fill", "PolicyCpuV4TcamEntry", 0.80);
    EXPECT_EQ(alarms.raised(), 0U);
    alarms.valueIs("log-fill", "PolicyCpuV4TcamEntry", 0.81);
    EXPECT_EQ(alarms.raised(), 1U);
    alarms.valueIs("unacknowledged", "PolicyCpuV6TcamEntry", 10.5);
    alarms.valueIs("waiting", "", 30.5);
    EXPECT_EQ(alarms.raised(), 3U);
    EXPECT_EQ(alarms.json()["alarms"].size(), 9U);
}

TEST(AlarmsTest, TracesOnceWhenItIsRaisedAndOnceWhenItIsCleared) {
    const TestSupport::TraceCapture traces;
    Alarms alarms({.unacknowledged_s = 2});
    for (const double age_s : {1.0, 3.0, 4.0, 5.0, 0.0, 0.0})
        alarms.valueIs("unacknowledged", "PolicyCpuTcamAction", age_s);
    EXPECT_EQ(
        traces.texts("AgentAlarms", 1),
        (std::vector<std::string>{
            " raised: unacknowledged: PolicyCpuTcamAction: oldest change not acknowledged by "
            "hardware: 3.0 s, limit 2.0 s",
            " cleared: unacknowledged: PolicyCpuTcamAction: oldest change not acknowledged by "
            "hardware: 0.0 s, limit 2.0 s"}));
}

}  // namespace
