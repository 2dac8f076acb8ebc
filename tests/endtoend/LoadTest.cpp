// Agent and hardware side as processes: loads, reloads, resources.

#include <gtest/gtest.h>

#include "tests/endtoend/TestedSystem.h"

namespace {

using TestSupport::Hardware;
using TestSupport::Json;
using TestSupport::TestedSystem;
using TestSupport::until;

/// Entries whose content is the same before and after but whose version is not.
std::size_t touchedWithoutNeed(const Hardware& before, const Hardware& after) {
    std::size_t count = 0;
    for (const auto& [id, entry] : after) {
        const auto earlier = before.find(id);
        if (earlier != before.end() && earlier->second.content == entry.content &&
            earlier->second.version != entry.version)
            ++count;
    }
    return count;
}

std::string smallPolicy(const std::string& entries, const std::string& rate = "100pps") {
    return "actions:\n- {name: a, counter: yes, policer: {rate: " + rate +
           ", burst: 10}}\n- {name: b, counter: yes, disposition: drop}\nipv4:\n" + entries;
}
const std::string kTwo =
    "- {name: x, action: a, priority: 2, protocol: ospf}\n- {name: y, action: b, priority: 1}\n";

TEST(Load, ReachesAHardwareSideThatStartsLater) {
    TestedSystem system;
    system.policyIsExample("rfc6192");
    system.startAgent();
    EXPECT_EQ(system.load()["written"], 134);
    system.startHardware();
    ASSERT_TRUE(system.loaded(1)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
    EXPECT_EQ(system.load()["complete"], 134);
}

TEST(Load, ReachesAHardwareSideThatWaitsForTheAgent) {
    TestedSystem system;
    system.policyIsExample("linux-switch");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
}

TEST(Load, EndsBothProcessesWithStatusZero) {
    TestedSystem system;
    system.policyIs(smallPolicy(kTwo));
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    EXPECT_EQ(system.agent().endedBy(SIGTERM), 0) << system.agent().standardError();
    EXPECT_EQ(system.hardware().endedBy(SIGTERM), 0);
}

TEST(Reload, BySignalTouchesOnlyWhatDiffers) {
    TestedSystem system;
    system.policyIs(smallPolicy(kTwo));
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    const Hardware before = system.programmed();
    const auto touched = system.touches();
    system.policyIs(
        smallPolicy("- {name: x, action: a, priority: 2, protocol: ospf}\n"
                    "- {name: z, action: b, priority: 1, protocol: igmp}\n"));
    system.agent().signal(SIGHUP);
    ASSERT_TRUE(system.loaded(2)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
    EXPECT_EQ(touchedWithoutNeed(before, system.programmed()), 0U);
    // On each of two units: "z" new, "y" gone.
    EXPECT_EQ(system.touches(), std::pair(touched.first + 2, touched.second + 2));
    EXPECT_EQ(system.load()["written"], 2);
    EXPECT_EQ(system.load()["removed"], 2);
    EXPECT_EQ(system.load()["unchanged"], 6);
}

TEST(Reload, OfAnotherExampleLeavesNothingOfTheOneBefore) {
    TestedSystem system;
    system.policyIsExample("rfc6192");
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    system.policyIsExample("linux-switch");
    system.agent().signal(SIGHUP);
    ASSERT_TRUE(system.loaded(2)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
    EXPECT_EQ(system.askHardware({{"cmd", "status"}})["withoutAction"], 0);
}

TEST(Reload, OfAnActionChangesThatActionAlone) {
    TestedSystem system;
    system.policyIs(smallPolicy(kTwo, "100pps"));
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    const auto touched = system.touches();
    system.policyIs(smallPolicy(kTwo, "200pps"));
    system.agent().signal(SIGHUP);
    ASSERT_TRUE(system.loaded(2)) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
    EXPECT_EQ(system.touches(), std::pair(touched.first + 2, touched.second));
}

TEST(Reload, OfAPolicyWithAnErrorChangesNothing) {
    TestedSystem system;
    system.policyIs(smallPolicy(kTwo));
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    const Hardware before = system.programmed();
    system.policyIs("actions: [{name: a, disposition: reject}]\n");
    system.agent().signal(SIGHUP);
    ASSERT_TRUE(until([&] {
        return system.agent().standardError().find("has errors, the one before stays") !=
               std::string::npos;
    }));
    EXPECT_NE(system.agent().standardError().find("policy.yaml:1:34: expected permit or drop"),
              std::string::npos);
    const Json answer = system.askAgent({{"cmd", "reload"}});
    EXPECT_EQ(answer["ok"], false);
    EXPECT_EQ(system.load()["number"], 1);
    const Hardware after = system.programmed();
    EXPECT_EQ(after.size(), before.size());
    EXPECT_EQ(touchedWithoutNeed(before, after), 0U);
}

TEST(Reload, WritesWhatFailedForWantOfAPolicerOnceThereIsOne) {
    TestedSystem system;
    system.units = "1";
    system.agentOptions.insert(system.agentOptions.end(), {"--policers", "1"});
    const std::string one = "- {name: a, policer: {rate: 10pps, burst: 1}}\n";
    const std::string two = "- {name: b, policer: {rate: 20pps, burst: 1}}\n";
    const std::string entries = "ipv4:\n- {name: y, action: b, priority: 1}\n";
    system.policyIs("actions:\n" + one + two + entries);
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    EXPECT_EQ(system.load()["failed"], 2);
    EXPECT_EQ(system.load()["firstFailure"], "action b of unit 1");
    // Without "a" there is a policer for "b", at the latest when the hardware has let "a" go.
    system.policyIs("actions:\n" + two + entries);
    ASSERT_TRUE(until([&] {
        system.askAgent({{"cmd", "reload"}});
        return until([&] { return system.load()["inProgress"] == 0; }) &&
               system.load()["failed"] == 0;
    })) << system.agent().standardError();
    EXPECT_EQ(system.difference(), "");
}

TEST(Resources, MoveReachesTheHardwareAndNothingElseIsTouched) {
    TestedSystem system;
    system.units = "1";
    system.policyIs(smallPolicy(kTwo));
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1));
    const auto touched = system.touches();
    const Json pool = system.askAgent({{"cmd", "resources"}})["policer"];
    ASSERT_EQ(pool["keys"].size(), 1U);
    const std::string key = pool["keys"][0]["key"].get<std::string>();
    const Json moved = system.askAgent({{"cmd", "move"}, {"table", "policer"}, {"key", key}});
    ASSERT_EQ(moved["ok"], true) << moved;
    const Json index = system.askAgent({{"cmd", "resources"}})["policer"]["keys"][0]["index"];
    EXPECT_NE(index, pool["keys"][0]["index"]);
    EXPECT_TRUE(until([&] {
        const Json actions = system.askHardware({{"cmd", "tcam"}})["units"][0]["actions"];
        return std::any_of(actions.begin(), actions.end(),
                           [&](const Json& action) { return action["policer"] == index; });
    }));
    EXPECT_EQ(system.touches(), std::pair(touched.first + 1, touched.second));
}

TEST(Resources, RefusesRequestsThatCannotBeDone) {
    TestedSystem system;
    system.policyIs(smallPolicy(kTwo));
    system.startAgent();
    const auto error = [&](const Json& request) {
        return system.askAgent(request).value("error", std::string());
    };
    EXPECT_EQ(error({{"cmd", "fly"}}), "there is no command \"fly\"");
    EXPECT_EQ(error({{"command", "status"}}), "expected \"cmd\" as text");
    EXPECT_EQ(error({{"cmd", "move"}, {"table", "colour"}, {"key", "1/1"}}),
              "expected table \"counter\" or \"policer\"");
    EXPECT_EQ(error({{"cmd", "move"}, {"table", "counter"}, {"key", "x"}}),
              "expected a key such as 0000002a/1 instead of 'x'");
    EXPECT_EQ(error({{"cmd", "fail"}, {"table", "counter"}, {"key", "0/1"}}),
              "cannot fail 0/1: it has no index, or no other is left");
}

TEST(Table, HoldsAllItsKeysAndNotOneMore) {
    TestedSystem system;
    system.units = "1";
    system.agentOptions.clear();
    std::string ports;
    for (int port = 1; port <= 65535; ++port)
        ports += std::to_string(port) + ",";
    const std::string full =
        "actions: [{name: a}]\nipv4:\n- {name: last, action: a, priority: 1}\n"
        "- {name: x, action: a, priority: 2, protocol: udp, source-port: [" +
        ports + "]}\n";
    system.policyIs(full);
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1)) << system.agent().standardError();
    EXPECT_EQ(system.load()["complete"], 65537);
    const auto entries = [&] {
        return system.askHardware({{"cmd", "status"}})["tables"]["PolicyCpuV4TcamEntry"]["entries"];
    };
    EXPECT_EQ(entries(), 65536);
    system.policyIs(full + "- {name: more, action: a, priority: 3}\n");
    const Json answer = system.askAgent({{"cmd", "reload"}});
    EXPECT_EQ(answer["error"],
              system.policyPath() +
                  ":5:10: expected at most 65536 entries in ipv4, with 'more' there are more");
    EXPECT_EQ(entries(), 65536);
}

TEST(Table, ThatIsFullTakesAWhollyDifferentPolicy) {
    TestedSystem system;
    system.units = "1";
    system.agentOptions.clear();
    std::string ports;
    for (int port = 1; port <= 65535; ++port)
        ports += std::to_string(port) + ",";
    const auto full = [&](const std::string& name) {
        return "actions: [{name: " + name + "}]\nipv4:\n- {name: " + name + ", action: " + name +
               ", priority: 2, protocol: udp, source-port: [" + ports + "]}\n";
    };
    system.policyIs(full("x"));
    system.startHardware();
    system.startAgent();
    ASSERT_TRUE(system.loaded(1)) << system.agent().standardError();
    system.policyIs(full("y"));
    system.agent().signal(SIGHUP);
    ASSERT_TRUE(system.loaded(2)) << system.agent().standardError();
    EXPECT_EQ(system.load()["failed"], 0);
    EXPECT_EQ(system.difference(), "");
}

}  // namespace
