// Processes that are killed and come back: nothing is lost, nothing is programmed twice.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/endtoend/TestedSystem.h"

namespace {

using TestSupport::Hardware;
using TestSupport::Json;
using TestSupport::TestedSystem;
using TestSupport::until;

/// The second example and some thousand entries.
void largePolicy(const TestedSystem& system) {
    system.policyIsExample("linux-switch");
    std::ifstream file(system.policyPath());
    std::stringstream text;
    text << file.rdbuf();
    std::string ports = "20000";
    for (int port = 20001; port < 22000; ++port)
        ports += "," + std::to_string(port);
    const std::string extra =
        "ipv4:\n  - {name: many, priority: 500, action: rest, protocol: udp, source-port: [" +
        ports + "]}\n";
    std::string policy = text.str();
    policy.replace(policy.find("ipv4:\n"), 6, extra);
    system.policyIs(policy);
}

std::uint64_t sumOf(const TestedSystem& system, const char* version) {
    std::uint64_t sum = 0;
    const Json status = system.askAgent({{"cmd", "status"}});
    for (const Json& table : status.at("tables"))
        sum += table[version].get<std::uint64_t>();
    return sum;
}

void pause(const TestedSystem& system) {
    system.askHardware({{"cmd", "pause"}});
    ASSERT_TRUE(until([&] { return system.askAgent({{"cmd", "status"}})["suspended"] == true; }));
}

/// Reloads and pauses when something of it is committed; gives the agent's turn in small portions.
void reloadToTheMiddle(const TestedSystem& system) {
    pause(system);
    const std::uint64_t start = sumOf(system, "logVersion");
    ASSERT_EQ(system.askAgent({{"cmd", "reload"}})["ok"], true);
    ASSERT_TRUE(until([&] {
        if (sumOf(system, "logVersion") > start)
            return true;
        system.askHardware({{"cmd", "resume"}});
        system.askAgent({{"cmd", "status"}});  // gives the agent the time of a turn
        pause(system);
        return sumOf(system, "logVersion") > start;
    }));
}

/// Entries that are needed and were not there, or not so.
std::size_t missing(const Hardware& before, const Hardware& after) {
    std::size_t count = 0;
    for (const auto& [id, entry] : after) {
        const auto earlier = before.find(id);
        if (earlier == before.end() || earlier->second.content != entry.content)
            ++count;
    }
    return count;
}

TEST(Kill, OfTheAgentInAReloadLosesNothingAndProgramsNothingTwice) {
    TestedSystem system;
    system.policyIsExample("linux-switch");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    largePolicy(system);
    reloadToTheMiddle(system);
    system.agent().endedBy(SIGKILL);
    // Wait for what was committed before the kill to be taken in.
    system.askHardware({{"cmd", "resume"}});
    std::size_t last = 0;
    ASSERT_TRUE(until([&] {
        const std::size_t now = system.programmed().size();
        return std::exchange(last, now) == now;
    }));
    const Hardware before = system.programmed();
    const auto touched = system.touches();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
    EXPECT_EQ(system.touches(),
              std::pair(touched.first + missing(before, system.programmed()), touched.second));
}

TEST(Kill, OfTheAgentBeforeTheHardwareHasSeenAnythingLosesNothing) {
    TestedSystem system;
    system.policyIsExample("rfc6192");
    system.startAgent();
    ASSERT_TRUE(until([&] { return sumOf(system, "logVersion") == 134; }));
    system.agent().endedBy(SIGKILL);
    system.startAgent();
    EXPECT_EQ(system.load()["written"], 0);
    system.startHardware();
    ASSERT_TRUE(until([&] { return sumOf(system, "acknowledgedVersion") == 134; }));
    EXPECT_EQ(system.difference(), "");
    EXPECT_EQ(system.touches(), std::pair(std::uint64_t{134}, std::uint64_t{0}));
}

TEST(Kill, OfTheHardwareSideIsMadeUpForWhenItReturns) {
    TestedSystem system;
    system.policyIsExample("rfc6192");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    system.hardware().endedBy(SIGKILL);
    system.policyIsExample("linux-switch");
    system.agent().signal(SIGHUP);
    ASSERT_TRUE(until([&] { return system.load()["number"] == 2; }));
    system.startHardware();
    ASSERT_TRUE(system.loaded(2)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
}

TEST(Kill, OfTheHardwareSideInTheMiddleOfAReloadLeavesTheAgentAtWork) {
    TestedSystem system;
    system.policyIsExample("linux-switch");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    largePolicy(system);
    reloadToTheMiddle(system);
    const Hardware before = system.programmed();
    const pid_t agent = system.agent().pid();
    system.hardware().endedBy(SIGKILL);
    system.startHardware();
    // What it had programmed and acknowledged is there before the agent does anything.
    const Hardware after = system.programmed();
    for (const auto& [id, entry] : before) {
        const auto found = after.find(id);
        ASSERT_NE(found, after.end()) << std::get<2>(id);
        EXPECT_EQ(found->second.content, entry.content);
    }
    system.askHardware({{"cmd", "resume"}});
    ASSERT_TRUE(system.loaded(2)) << system.agent().standardError();
    EXPECT_TRUE(system.agent().running());
    EXPECT_EQ(system.agent().pid(), agent);
    EXPECT_EQ(system.difference(), "");
}

TEST(Kill, OfTheHardwareSideOverSeveralReloadsBringsTheLastOneIn) {
    TestedSystem system;
    system.policyIsExample("linux-switch");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    system.hardware().endedBy(SIGKILL);
    for (unsigned number = 2; number <= 9; ++number) {
        system.policyIsExample(number % 2 == 0 ? "rfc6192" : "linux-switch");
        ASSERT_EQ(system.askAgent({{"cmd", "reload"}})["ok"], true);
    }
    system.startHardware();
    ASSERT_TRUE(system.loaded(9)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
}

TEST(Kill, OfBothProcessesInAReloadIsMadeUpFor) {
    TestedSystem system;
    system.policyIsExample("linux-switch");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    largePolicy(system);
    reloadToTheMiddle(system);
    system.agent().signal(SIGKILL);
    system.hardware().endedBy(SIGKILL);
    system.agent().wait();
    system.startAgent();
    system.startHardware();
    system.askHardware({{"cmd", "resume"}});
    ASSERT_TRUE(system.loaded(1)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
}

TEST(Restart, WithTheSamePolicyWritesNothing) {
    TestedSystem system;
    system.policyIsExample("linux-switch");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    const auto touched = system.touches();
    ASSERT_EQ(system.agent().endedBy(SIGTERM), 0);
    system.startAgent();
    EXPECT_EQ(system.load()["written"], 0);
    EXPECT_EQ(system.load()["unchanged"], 116);
    EXPECT_EQ(system.difference(), "");
    EXPECT_EQ(system.touches(), touched);
}

TEST(Restart, ClearsAUnitThatTheAgentNoLongerHas) {
    TestedSystem system;
    system.policyIsExample("linux-switch");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    ASSERT_EQ(system.agent().endedBy(SIGTERM), 0);
    system.units = "2";
    system.startAgent();
    EXPECT_EQ(system.load()["unchanged"], 58);
    EXPECT_TRUE(until([&] { return system.difference().empty(); })) << system.difference();
    EXPECT_EQ(system.askHardware({{"cmd", "status"}})["withoutAction"], 0);
}

}  // namespace
