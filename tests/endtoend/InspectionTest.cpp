// What a running agent tells of itself: changes under way and what they wait for, alarms, metrics,
// traces, and what a policy would change.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <fmt/format.h>
#include <asio/ip/tcp.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>

#include "tests/endtoend/TestedSystem.h"

namespace {

using TestSupport::Json;
using TestSupport::TestedSystem;
using TestSupport::until;

constexpr const char* kPolicy = R"(
actions:
  - {name: bgp, counter: yes, policer: {rate: 100pps, burst: 100}}
ipv4:
  - {name: bgp, action: bgp, priority: 100, protocol: tcp, destination-port: 179}
)";

std::string policyOfRate(int rate) {
    std::string text = kPolicy;
    return text.replace(text.find("100pps"), 6, fmt::format("{}pps", rate));
}

class Inspection : public testing::Test {
protected:
    Inspection() {
        system_.units = "1";
        system_.policyIs(kPolicy);
    }
    void startBoth() {
        system_.startHardware();
        system_.startAgent();
        ASSERT_TRUE(system_.loaded(1));
    }
    /// The agent commits nothing until resume().
    void pause() {
        ASSERT_TRUE(system_.askHardware({{"cmd", "pause"}})["ok"]);
        ASSERT_TRUE(until([&] { return status()["suspended"].get<bool>(); }));
    }
    void resume() { ASSERT_TRUE(system_.askHardware({{"cmd", "resume"}})["ok"]); }
    void reload(const std::string& policy) {
        system_.policyIs(policy);
        ASSERT_TRUE(system_.askAgent({{"cmd", "reload"}})["ok"]);
    }
    Json status() const { return system_.askAgent({{"cmd", "status"}}); }
    Json changes() const { return system_.askAgent({{"cmd", "changes"}}); }
    std::string keyOf(const std::string& table) const {
        const Json all = changes();
        for (const Json& change : all["changes"]) {
            if (change["table"] == table)
                return change["key"];
        }
        return {};
    }
    Json explain(const std::string& table, const std::string& key) const {
        return system_.askAgent({{"cmd", "explain"}, {"table", table}, {"unit", 1}, {"key", key}});
    }
    Json alarm(const std::string& name, const std::string& subject) const {
        const Json all = system_.askAgent({{"cmd", "alarms"}});
        for (const Json& one : all["alarms"]) {
            if (one["name"] == name && one["subject"] == subject)
                return one;
        }
        return nullptr;
    }
    bool agentSaid(const std::string& text) {
        return system_.agent().standardError().find(text) != std::string::npos;
    }
    std::string errorOf(const Json& request) const { return system_.askAgent(request)["error"]; }

    TestedSystem system_;
};

TEST_F(Inspection, WithoutAHardwareSideCommittedChangesWaitForIt) {
    system_.startAgent();
    ASSERT_TRUE(until([&] { return changes()["total"] == 2; }));
    const Json change = changes()["changes"][1];
    EXPECT_EQ(change["table"], "PolicyCpuV4TcamEntry");
    EXPECT_EQ(change["state"], "inLog");
    EXPECT_EQ(change["operation"], "write");
    EXPECT_EQ(change["logVersion"], 1);
    EXPECT_EQ(change["waitsFor"]["cause"], "hardware");
    EXPECT_EQ(change["waitsFor"]["before"], 0);
    EXPECT_GE(change["age_s"], 0.0);
    const Json explained = explain("PolicyCpuV4TcamEntry", change["key"]);
    EXPECT_EQ(explained["changes"].size(), 1U);
    EXPECT_TRUE(explained["chain"].empty());
    EXPECT_TRUE(explained["root"].is_null());
    EXPECT_TRUE(explained["staged"].is_null());
    EXPECT_EQ(explained["published"], 1);
    EXPECT_EQ(explained["acknowledged"], 0);
    EXPECT_EQ(explained["unacknowledged"]["oldestVersion"], 1);
}

TEST_F(Inspection, AChainLeadsFromAMatchOverItsActionToThePause) {
    startBoth();
    pause();
    reload(policyOfRate(200) +
           "  - {name: ssh, action: bgp, priority: 50, protocol: tcp, destination-port: 22}\n");
    const Json explained = explain("PolicyCpuV4TcamEntry", keyOf("PolicyCpuV4TcamEntry"));
    ASSERT_EQ(explained["chain"].size(), 2U) << explained.dump(1);
    EXPECT_EQ(explained["chain"][0]["waitsFor"]["cause"], "dependency");
    EXPECT_EQ(explained["chain"][0]["waitsFor"]["change"]["table"], "PolicyCpuTcamAction");
    EXPECT_EQ(explained["chain"][1]["table"], "PolicyCpuTcamAction");
    EXPECT_EQ(explained["chain"][1]["waitsFor"]["cause"], "pause");
    EXPECT_EQ(explained["root"], "the end of the pause that the hardware side has asked for");
    EXPECT_EQ(explained["cycle"], false);
    EXPECT_EQ(explained["staged"]["operation"], "write");
    EXPECT_EQ(explained["staged"]["failed"], false);
    EXPECT_EQ(explained["staged"]["entry"]["fields"]["proto"], "tcp");
    const Json figures = status()["tables"];
    EXPECT_EQ(figures[0]["waiting"]["pause"], 1);
    EXPECT_EQ(figures[1]["waiting"]["dependency"], 1);
    EXPECT_EQ(figures[1]["units"][0]["staged"], 1);
    resume();
    EXPECT_TRUE(until([&] { return changes()["total"] == 0; }));
}

TEST_F(Inspection, AChainOfThreeLeadsOverAnEarlierChangeOfTheSameKey) {
    startBoth();
    pause();
    const std::string ssh =
        "  - {name: ssh, action: bgp, priority: 50, protocol: tcp, destination-port: 22}\n";
    reload(policyOfRate(200) + ssh);
    reload(policyOfRate(200) +
           "  - {name: ssh, action: bgp, priority: 51, protocol: tcp, destination-port: 22}\n");
    const Json explained = explain("PolicyCpuV4TcamEntry", keyOf("PolicyCpuV4TcamEntry"));
    EXPECT_EQ(explained["changes"].size(), 2U);
    const Json chain = explained["chain"];
    ASSERT_EQ(chain.size(), 3U) << explained.dump(1);
    EXPECT_EQ(chain[0]["waitsFor"]["cause"], "earlierChange");
    EXPECT_EQ(chain[1]["waitsFor"]["cause"], "dependency");
    EXPECT_EQ(chain[2]["waitsFor"]["cause"], "pause");
}

TEST_F(Inspection, AWriteThatFailedWithItsActionIsShownAsFailed) {
    system_.agentOptions = {"--capacity", "8192", "--policers", "1"};
    startBoth();
    // No policer is left for the second action.
    std::string two = kPolicy;
    two.insert(two.find("ipv4:"), "  - {name: ssh, policer: {rate: 5pps, burst: 5}}\n");
    two += "  - {name: ssh, action: ssh, priority: 50, protocol: tcp, destination-port: 22}\n";
    reload(two);
    ASSERT_TRUE(until([&] { return system_.load()["failed"] == 2; })) << system_.load().dump();
    // Both keys are in the traces only: neither is under way or committed.
    const Json lines = system_.askAgent({{"cmd", "traces"}})["lines"];
    std::string key;
    for (const Json& line : lines) {
        const std::string text = line["text"];
        const auto at = text.find("Failed dependent entry for key: ");
        if (at != std::string::npos)
            key = text.substr(at + std::string("Failed dependent entry for key: ").size());
    }
    while (!key.empty() && key.back() == ' ')
        key.pop_back();
    const Json explained = explain("PolicyCpuV4TcamEntry", key);
    EXPECT_EQ(explained["staged"]["failed"], true) << key << explained.dump(1);
    EXPECT_EQ(explained["staged"]["reason"],
              "the change of its action failed, or the table has no room for it");
    EXPECT_EQ(explained["failure"], explained["staged"]["reason"]);
    const Json action = explain("PolicyCpuTcamAction", explained["staged"]["entry"]["action"]);
    EXPECT_TRUE(action["staged"].is_null());
    EXPECT_EQ(action["failure"],
              "no counter or policer was left for it, or one that it has has failed");
    EXPECT_TRUE(explained["chain"].empty());
}

TEST_F(Inspection, AlarmsAreRaisedWhileHardwareIsAwayAndClearedWhenItIsBack) {
    system_.agentOptions = {"--capacity", "8192", "--alarm-unacknowledged", "0.05"};
    system_.startAgent();
    ASSERT_TRUE(until([&] { return status()["alarms"] == 2; }));
    const Json raised = alarm("unacknowledged", "PolicyCpuTcamAction");
    EXPECT_EQ(raised["raised"], true);
    EXPECT_GT(raised["value"], 0.05);
    EXPECT_EQ(raised["limit"], 0.05);
    EXPECT_GT(raised["sinceTime"], 1.6e9);
    EXPECT_EQ(alarm("unacknowledged", "PolicyCpuV6TcamEntry")["raised"], false);
    EXPECT_TRUE(agentSaid("raised: unacknowledged: PolicyCpuTcamAction"));
    system_.startHardware();
    EXPECT_TRUE(until([&] { return status()["alarms"] == 0; }));
    EXPECT_TRUE(until([&] { return agentSaid("cleared: unacknowledged: PolicyCpuTcamAction"); }));
}

TEST_F(Inspection, AnAlarmIsRaisedForChangesThatWait) {
    system_.agentOptions = {"--capacity", "8192", "--alarm-waiting", "0.05"};
    startBoth();
    pause();
    reload(policyOfRate(200));
    EXPECT_TRUE(until([&] { return alarm("waiting", "")["raised"] == true; }));
    resume();
    EXPECT_TRUE(until([&] { return alarm("waiting", "")["raised"] == false; }));
}

TEST_F(Inspection, AnAlarmIsRaisedForAFullPool) {
    system_.agentOptions = {"--capacity", "8192", "--policers", "1"};
    startBoth();
    const Json pool = alarm("pool-fill", "policer");
    EXPECT_EQ(pool["raised"], true);
    EXPECT_EQ(pool["value"], 1.0);
    EXPECT_EQ(alarm("pool-fill", "counter")["raised"], false);
    EXPECT_EQ(status()["pools"]["policer"]["used"], 1);
}

TEST_F(Inspection, ADryRunSaysWhatALoadWouldChangeAndChangesNothing) {
    startBoth();
    std::string other = policyOfRate(200);
    other.replace(other.find("port: 179"), 9, "port: 22");
    other.replace(other.find("ipv4:\n  - {name: bgp"), 20, "ipv4:\n  - {name: ssh");
    system_.policyIs(other);
    const Json difference = system_.askAgent({{"cmd", "reload"}, {"dryRun", true}});
    EXPECT_EQ(difference["total"], 3) << difference.dump(1);
    EXPECT_EQ(difference["unchanged"], 0);
    ASSERT_EQ(difference["write"].size(), 2U);
    EXPECT_EQ(difference["write"][0]["table"], "PolicyCpuTcamAction");
    EXPECT_EQ(difference["write"][0]["isNew"], false);
    EXPECT_EQ(difference["write"][1]["name"], "ssh");
    EXPECT_EQ(difference["write"][1]["isNew"], true);
    ASSERT_EQ(difference["remove"].size(), 1U);
    EXPECT_EQ(system_.load()["number"], 1) << "nothing was loaded";
    EXPECT_EQ(changes()["total"], 0);
}

TEST_F(Inspection, RefusesWhatItCannotAnswer) {
    system_.startAgent();
    EXPECT_EQ(errorOf({{"cmd", "explain"}}), "expected \"table\" as text");
    Json request{{"cmd", "explain"}, {"table", "PolicyCpuTcamAction"}};
    EXPECT_EQ(errorOf(request), "expected \"unit\" as a number");
    request["unit"] = 7;
    request["key"] = "1.0";
    EXPECT_EQ(errorOf(request), "there is no unit 7");
    request["unit"] = 1;
    request["key"] = "x";
    EXPECT_EQ(errorOf(request), "'x' is no key of PolicyCpuTcamAction");
    request["table"] = "Other";
    EXPECT_EQ(errorOf(request), "there is no table \"Other\"");
    EXPECT_EQ(errorOf({{"cmd", "changes"}, {"limit", -1}}),
              "expected \"limit\" as a number up to 18446744073709551615");
    EXPECT_EQ(errorOf({{"cmd", "changes"}, {"table", 1}}), "expected \"table\" as text");
    EXPECT_EQ(errorOf({{"cmd", "metrics"}, {"format", "xml"}}),
              "expected format \"openmetrics\" or \"prometheus\"");
    EXPECT_NE(errorOf({{"cmd", "traceFilter"}, {"filter", "x"}}).find("trace filter"),
              std::string::npos);
}

TEST_F(Inspection, TracesCanBeTurnedOnAndFollowed) {
    startBoth();
    const Json before = system_.askAgent({{"cmd", "traces"}});
    ASSERT_TRUE(system_.askAgent(
        {{"cmd", "traceFilter"}, {"filter", "PolicyCpuV4TcamEntrySwTable/8"}})["ok"]);
    EXPECT_EQ(system_.askAgent({{"cmd", "traceFilter"}})["filter"],
              "PolicyCpuV4TcamEntrySwTable/8");
    std::string other = kPolicy;
    reload(other.replace(other.find("priority: 100"), 13, "priority: 101"));
    const Json after = system_.askAgent({{"cmd", "traces"}, {"after", before["last"]}});
    const Json newest = system_.askAgent({{"cmd", "traces"}, {"newest", 1}});
    ASSERT_EQ(newest["lines"].size(), 1U);
    EXPECT_EQ(newest["lines"][0]["number"], newest["last"]);
    EXPECT_GE(newest["last"], after["last"]);
    ASSERT_FALSE(after["lines"].empty());
    for (const Json& line : after["lines"]) {
        EXPECT_EQ(line["handle"], "PolicyCpuV4TcamEntrySwTable");
        EXPECT_EQ(line["level"], 8);
    }
    EXPECT_EQ(after["lost"], 0);
    EXPECT_EQ(after["lines"][0]["number"], before["last"].get<int>() + 1);
    const Json one = system_.askAgent({{"cmd", "traces"}, {"after", before["last"]}, {"limit", 1}});
    EXPECT_EQ(one["lines"].size(), 1U);
    EXPECT_EQ(one["last"], one["lines"][0]["number"]);
}

TEST_F(Inspection, StageTimesCountEveryAcknowledgedChange) {
    startBoth();
    const std::string text = system_.askAgent({{"cmd", "metrics"}})["text"];
    for (const char* const stage :
         {"vorn_staged_duration_seconds", "vorn_hardware_duration_seconds"}) {
        EXPECT_NE(text.find(fmt::format("{}_count{{table=\"PolicyCpuV4TcamEntry\"}} 1\n", stage)),
                  std::string::npos)
            << stage;
    }
}

/// The whole answer to one HTTP request.
std::string fetched(std::uint16_t port, const std::string& request) {
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::address_v4::loopback(), port});
    asio::write(socket, asio::buffer(request));
    std::string answer;
    asio::error_code ended;
    asio::read(socket, asio::dynamic_buffer(answer), ended);
    return answer;
}

/// A port that nobody listens on; for a moment.
std::uint16_t freePort() {
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    return acceptor.local_endpoint().port();
}

TEST_F(Inspection, MetricsAreServedOverHttpInTheFormatThatIsAccepted) {
    const std::uint16_t port = freePort();
    system_.agentOptions = {"--capacity", "8192", "--metrics-port", std::to_string(port)};
    startBoth();
    const std::string end = "Host: x\r\nConnection: close\r\n\r\n";
    const std::string plain = fetched(port, "GET /metrics HTTP/1.1\r\n" + end);
    EXPECT_TRUE(plain.starts_with("HTTP/1.1 200 ")) << plain.substr(0, 200);
    EXPECT_NE(plain.find("text/plain; version=0.0.4"), std::string::npos);
    EXPECT_NE(plain.find("# TYPE vorn_entry_writes_total counter\n"), std::string::npos);
    EXPECT_EQ(plain.find("# EOF"), std::string::npos);
    const std::string open = fetched(
        port,
        "GET /metrics HTTP/1.1\r\nAccept: application/openmetrics-text;version=1.0.0\r\n" + end);
    EXPECT_NE(open.find("application/openmetrics-text; version=1.0.0"), std::string::npos);
    EXPECT_NE(open.find("# TYPE vorn_entry_writes counter\n"), std::string::npos);
    EXPECT_TRUE(open.ends_with("# EOF\n"));
    EXPECT_TRUE(fetched(port, "GET / HTTP/1.1\r\n" + end).starts_with("HTTP/1.1 404 "));
    EXPECT_TRUE(fetched(port, "POST /metrics HTTP/1.1\r\nContent-Length: 1\r\n" + end + "x")
                    .starts_with("HTTP/1.1 405 "));
    EXPECT_TRUE(status()["ok"]) << "and the agent lives on";
}

TEST_F(Inspection, APortThatIsTakenEndsTheAgentWithOneLine) {
    asio::io_context io;
    asio::ip::tcp::acceptor taken(io, {asio::ip::address_v4::loopback(), 0});
    system_.agentOptions = {"--metrics-port", std::to_string(taken.local_endpoint().port())};
    EXPECT_THROW(system_.startAgent(), std::runtime_error);
    EXPECT_EQ(system_.agent().wait(), 1);
    EXPECT_TRUE(agentSaid("metrics at 127.0.0.1:"));
}

TEST_F(Inspection, ASweepReturnsNothingThatIsInUse) {
    startBoth();
    const Json before = system_.askAgent({{"cmd", "resources"}});
    EXPECT_EQ(system_.askAgent({{"cmd", "sweep"}})["returned"], 0);
    EXPECT_EQ(system_.askAgent({{"cmd", "resources"}}), before);
    EXPECT_EQ(system_.difference(), "");
}

}  // namespace
