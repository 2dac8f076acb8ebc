// Every mistake that a policy file can have, with the place and the words of its message.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "agent/PolicyCompiler.h"

namespace {

std::vector<std::string> errorsOf(const std::string& text) {
    try {
        Agent::policyFromText(text, "p.yaml");
    } catch (const Agent::PolicyError& error) {
        return error.lines();
    }
    return {};
}

/// One action "a" in lines 1-2, then the text from line 3 on.
std::string afterAction(const std::string& text) {
    return "actions:\n- name: a\n" + text;
}

/// The items of ipv4 from line 4 on.
std::string rule(const std::string& fields) {
    return afterAction("ipv4:\n- {name: r, action: a, priority: 1, " + fields + "}\n");
}

std::string rule6(const std::string& fields) {
    return afterAction("ipv6:\n- {name: r, action: a, priority: 1, " + fields + "}\n");
}

struct Mistake {
    std::string name;
    std::string text;
    std::string error;  ///< the whole first line
};

class PolicyMistake : public testing::TestWithParam<Mistake> {};

TEST_P(PolicyMistake, IsReportedWithPlaceAndExpectation) {
    const auto errors = errorsOf(GetParam().text);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.front(), GetParam().error);
    EXPECT_EQ(errors.size(), 1U) << errors.back();
}

constexpr const char* kV4Expected =
    "expected an IPv4 address, prefix (192.0.2.0/24) or address/mask, without bits outside of the "
    "mask instead of ";
constexpr const char* kV6Expected =
    "expected an IPv6 address, prefix (2001:db8::/32) or address/mask, without bits outside of the "
    "mask instead of ";
constexpr const char* kPortExpected =
    "expected a port from 1 to 65535 or a range such as 67-68 instead of ";
constexpr const char* kNameExpected =
    "expected a name of up to 64 letters, digits and the characters . _ - instead of ";
constexpr const char* kRateExpected =
    "expected a rate such as 2000pps, 500kbit or 10Mbps, from 1 to 10^12 a second instead of ";
constexpr const char* kBurstExpected =
    "expected a burst in the unit of the rate, such as 100, 100packets, 64kbit or 8kbyte, from 1 "
    "to "
    "10^12 instead of ";

std::vector<Mistake> structureMistakes() {
    return {
        {"EmptyFile", "", "p.yaml:1:1: expected a policy as a mapping"},
        {"ListAtTop", "- a\n", "p.yaml:1:1: expected a policy as a mapping"},
        {"BrokenYaml", "actions: [\nipv4: x",
         "p.yaml:2:1: expected YAML: end of sequence flow not found"},
        {"TwoDocuments", "actions:\n- name: a\n---\nactions:\n- name: b\n",
         "p.yaml:4:1: expected one YAML document, not several"},
        {"UnknownTopKey", "actoins: []\n",
         "p.yaml:1:1: expected one of variables, policers, actions, ipv4, ipv6 in a policy instead "
         "of 'actoins'"},
        {"TopKeyTwice", "ipv4: []\nipv4: []\n",
         "p.yaml:2:1: expected 'ipv4' once, it is in line 1 already"},
        {"ActionsNoList", "actions: {a: b}\n", "p.yaml:1:10: expected a list of actions"},
        {"ActionNoMapping", "actions:\n- a\n", "p.yaml:2:3: expected an action as a mapping"},
        {"EntriesNoList", afterAction("ipv6: 5\n"), "p.yaml:3:7: expected a list of match entries"},
        {"EntryNoMapping", afterAction("ipv4:\n- 7\n"),
         "p.yaml:4:3: expected a match entry as a mapping"},
        {"VariablesNoMapping", "variables: [a]\n", "p.yaml:1:12: expected variables as a mapping"},
        {"VariableEmptyList", "variables:\n  x: []\n",
         "p.yaml:2:6: expected a value or a list of values at least once in the list"},
        {"VariableTwice", "variables:\n  x: 1\n  x: 2\n", "p.yaml:3:3: expected 'x' once"},
        {"VariableNotDefined", "variables:\n  x: $y\n",
         "p.yaml:2:6: expected a variable that is defined above instead of '$y'"},
    };
}

std::vector<Mistake> actionMistakes() {
    return {
        {"ActionWithoutName", "actions:\n- counter: yes\n",
         "p.yaml:2:3: expected 'name' (a name of up to 64 letters, digits and the characters . _ "
         "-) "
         "in an action"},
        {"ActionNameWithBlank", "actions:\n- name: a b\n",
         "p.yaml:2:9: " + std::string(kNameExpected) + "'a b'"},
        {"ActionNameTwice", "actions:\n- name: a\n- name: a\n",
         "p.yaml:3:9: expected an action name of its own, 'a' is in line 2 already"},
        {"ActionNamesCollide", "actions:\n- name: a60441\n- name: a94418\n",
         "p.yaml:3:9: expected another name: an action name 'a94418' gets the same number as "
         "'a60441' in line 2"},
        {"ActionUnknownKey", "actions:\n- name: a\n  colour: red\n",
         "p.yaml:3:3: expected one of name, counter, policer, disposition in an action instead of "
         "'colour'"},
        {"Disposition", "actions:\n- name: a\n  disposition: reject\n",
         "p.yaml:3:16: expected permit or drop instead of 'reject'"},
        {"CounterList", "actions:\n- name: a\n  counter: [x]\n",
         "p.yaml:3:12: expected yes, no or the name of a shared counter instead of a list"},
        {"CounterName", "actions:\n- name: a\n  counter: a/b\n",
         "p.yaml:3:12: " + std::string(kNameExpected) + "'a/b'"},
        {"PolicerNotDefined", "actions:\n- name: a\n  policer: slow\n",
         "p.yaml:3:12: expected the name of a policer in 'policers' instead of 'slow'"},
        {"PolicerList", "actions:\n- name: a\n  policer: [slow]\n",
         "p.yaml:3:12: expected a policer as a mapping"},
        {"PolicerWithoutBurst", "actions:\n- name: a\n  policer: {rate: 1pps}\n",
         "p.yaml:3:12: expected 'burst' (a burst in the unit of the rate, such as 100, "
         "100packets, 64kbit or 8kbyte, from 1 to 10^12) in a policer"},
        {"PolicerTwice",
         "policers:\n- {name: p, rate: 1pps, burst: 1}\n- {name: p, rate: 1pps, burst: 1}\n",
         "p.yaml:3:10: expected a policer name of its own, 'p' is in line 2 already"},
        {"RateWithoutUnit", "actions:\n- name: a\n  policer: {rate: 100, burst: 5}\n",
         "p.yaml:3:19: " + std::string(kRateExpected) + "'100'"},
        {"RateOfZero", "actions:\n- name: a\n  policer: {rate: 0pps, burst: 5}\n",
         "p.yaml:3:19: " + std::string(kRateExpected) + "'0pps'"},
        {"RateTooLarge", "actions:\n- name: a\n  policer: {rate: 1001Gbps, burst: 5}\n",
         "p.yaml:3:19: " + std::string(kRateExpected) + "'1001Gbps'"},
        {"BurstOfOtherUnit", "actions:\n- name: a\n  policer: {rate: 100pps, burst: 8kbit}\n",
         "p.yaml:3:34: " + std::string(kBurstExpected) + "'8kbit'"},
        {"BurstUnknownUnit", "actions:\n- name: a\n  policer: {rate: 100pps, burst: 5apples}\n",
         "p.yaml:3:34: " + std::string(kBurstExpected) + "'5apples'"},
    };
}

std::vector<Mistake> entryMistakes() {
    return {
        {"EntryWithoutPriority", afterAction("ipv4:\n- {name: r, action: a}\n"),
         "p.yaml:4:3: expected 'priority' (a priority up to 4294967295, the higher wins) in a "
         "match "
         "entry"},
        {"EntryWithoutAction", afterAction("ipv4:\n- {name: r, priority: 1}\n"),
         "p.yaml:4:3: expected 'action' (the name of an action) in a match entry"},
        {"PriorityNegative", afterAction("ipv4:\n- {name: r, action: a, priority: -1}\n"),
         "p.yaml:4:34: expected a priority up to 4294967295, the higher wins instead of '-1'"},
        {"PriorityEmpty", afterAction("ipv4:\n- name: r\n  action: a\n  priority:\n"),
         "p.yaml:6:3: expected a priority up to 4294967295, the higher wins instead of nothing"},
        {"ActionNotDefined", afterAction("ipv4:\n- {name: r, action: b, priority: 1}\n"),
         "p.yaml:4:21: expected the name of an action instead of 'b'"},
        {"EntryNameTwice",
         afterAction("ipv4:\n- {name: r, action: a, priority: 1}\n"
                     "- {name: r, action: a, priority: 2}\n"),
         "p.yaml:5:10: expected a name of its own, 'r' is in line 4 already"},
        {"SourceHostBits", rule("source: 192.0.2.1/24"),
         "p.yaml:4:45: " + std::string(kV4Expected) + "'192.0.2.1/24'"},
        {"SourceOfOtherFamily", rule("source: '::1'"),
         "p.yaml:4:45: " + std::string(kV4Expected) + "'::1'"},
        {"PrefixTooLong", rule("destination: 192.0.2.0/33"),
         "p.yaml:4:50: " + std::string(kV4Expected) + "'192.0.2.0/33'"},
        {"V6PrefixTooLong", rule6("source: 2001:db8::/129"),
         "p.yaml:4:45: " + std::string(kV6Expected) + "'2001:db8::/129'"},
        {"V6HostBits", rule6("destination: 2001:db8::1/64"),
         "p.yaml:4:50: " + std::string(kV6Expected) + "'2001:db8::1/64'"},
        {"EmptyList", rule("source: []"),
         "p.yaml:4:45: expected an IPv4 address, prefix (192.0.2.0/24) or address/mask, without "
         "bits "
         "outside of the mask at least once in the list"},
        {"ValueTwice", rule("source: [192.0.2.1, 192.0.2.1/32]"),
         "p.yaml:4:57: expected an entry of its own, 'r source=192.0.2.1/32' is in line 4 already"},
        {"NestedList", rule("source: [[192.0.2.1]]"),
         "p.yaml:4:46: expected an IPv4 address, prefix (192.0.2.0/24) or address/mask, without "
         "bits "
         "outside of the mask instead of a list"},
    };
}

std::vector<Mistake> fieldMistakes() {
    return {
        {"Protocol", rule("protocol: tpc"),
         "p.yaml:4:47: expected a protocol name (tcp, udp, icmp, icmpv6, ospf, igmp, ...) or a "
         "number up to 255 instead of 'tpc'"},
        {"PortTooLarge", rule("protocol: tcp, source-port: 65536"),
         "p.yaml:4:65: " + std::string(kPortExpected) + "'65536'"},
        {"PortZero", rule("protocol: tcp, destination-port: 0"),
         "p.yaml:4:70: " + std::string(kPortExpected) + "'0'"},
        {"PortRangeBackwards", rule("protocol: udp, destination-port: 68-67"),
         "p.yaml:4:70: " + std::string(kPortExpected) + "'68-67'"},
        {"PortBothWaysAndOneWay", rule("protocol: tcp, port: 179, source-port: 5"),
         "p.yaml:4:52: expected either 'port' or 'source-port' and 'destination-port', not both"},
        {"PortWithoutProtocol", rule("destination-port: 22"),
         "p.yaml:4:55: expected protocol tcp, udp, sctp, dccp or udplite beside "
         "'destination-port'"},
        {"PortWithOtherProtocol", rule("protocol: [tcp, ospf], destination-port: 22"),
         "p.yaml:4:78: expected protocol tcp, udp, sctp, dccp or udplite beside "
         "'destination-port'"},
        {"FlagsWithoutTcp", rule("protocol: udp, tcp-flags: syn"),
         "p.yaml:4:63: expected protocol tcp beside 'tcp-flags'"},
        {"FlagUnknown", rule("protocol: tcp, tcp-flags: 'syn,!act'"),
         "p.yaml:4:63: expected TCP flags fin, syn, rst, psh, ack, urg, ece, cwr, each once, with "
         "! "
         "where it must be unset instead of 'syn,!act'"},
        {"FlagTwice", rule("protocol: tcp, tcp-flags: 'syn !syn'"),
         "p.yaml:4:63: expected TCP flags fin, syn, rst, psh, ack, urg, ece, cwr, each once, with "
         "! "
         "where it must be unset instead of 'syn !syn'"},
        {"Ttl", rule("ttl: 256"), "p.yaml:4:42: expected a number up to 255 instead of '256'"},
        {"HopLimitInV4", rule("hop-limit: 255"),
         "p.yaml:4:37: expected one of name, action, priority, source, destination, protocol, "
         "source-port, destination-port, port, tcp-flags, ttl, dscp, fragment, icmp-type, "
         "icmp-code "
         "in a match entry instead of 'hop-limit'"},
        {"UnknownBesidePort", rule("protocol: tcp, port: 179, hop-limit: 255"),
         "p.yaml:4:63: expected one of name, action, priority, source, destination, protocol, "
         "source-port, destination-port, port, tcp-flags, ttl, dscp, fragment, icmp-type, "
         "icmp-code in a match entry instead of 'hop-limit'"},
        {"Dscp", rule("dscp: af44"),
         "p.yaml:4:43: expected a DSCP up to 63 or its name (cs0-cs7, af11-af43, ef) instead of "
         "'af44'"},
        {"Fragment", rule6("fragment: dont-fragment"),
         "p.yaml:4:47: expected yes, no, first, non-first or (IPv4) dont-fragment instead of "
         "'dont-fragment'"},
        {"IcmpTypeOfOtherFamily", rule("protocol: icmp, icmp-type: packet-too-big"),
         "p.yaml:4:64: expected an ICMP type of the address family by name (echo-request, ...) or "
         "a "
         "number up to 255 instead of 'packet-too-big'"},
        {"IcmpTypeWithoutProtocol", rule6("icmp-type: 128"),
         "p.yaml:4:48: expected protocol icmpv6 beside 'icmp-type'"},
        {"IcmpTypeWithProtocolOfOtherFamily", rule("protocol: icmpv6, icmp-type: 8"),
         "p.yaml:4:66: expected protocol icmp beside 'icmp-type'"},
        {"IcmpCode", rule("protocol: icmp, icmp-type: 3, icmp-code: no-route"),
         "p.yaml:4:78: expected an ICMP code of the address family by name (port-unreachable, ...) "
         "or a number up to 255 instead of 'no-route'"},
    };
}

std::string nameOf(const testing::TestParamInfo<Mistake>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Structure, PolicyMistake, testing::ValuesIn(structureMistakes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Action, PolicyMistake, testing::ValuesIn(actionMistakes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Field, PolicyMistake, testing::ValuesIn(fieldMistakes()), nameOf);
INSTANTIATE_TEST_SUITE_P(Entry, PolicyMistake, testing::ValuesIn(entryMistakes()), nameOf);

TEST(PolicyError, OfATextThatIsNoYamlComesInBoundedTime) {
    const auto errors = errorsOf(",\xC7\xC7");
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.front(), "p.yaml:1:1: expected one YAML document, not several");
}

TEST(PolicyError, CollectsAllFindingsInTheOrderOfTheFile) {
    const auto errors = errorsOf(
        "actions:\n- name: a\n  disposition: x\n- name: a\nipv4:\n- {name: r, action: z, "
        "priority: q}\nfoo: 1\n");
    ASSERT_EQ(errors.size(), 5U);
    EXPECT_EQ(errors[0], "p.yaml:3:16: expected permit or drop instead of 'x'");
    EXPECT_EQ(errors[1],
              "p.yaml:4:9: expected an action name of its own, 'a' is in line 2 already");
    EXPECT_EQ(errors[2], "p.yaml:6:21: expected the name of an action instead of 'z'");
    EXPECT_TRUE(errors[3].starts_with("p.yaml:6:34: expected a priority"));
    EXPECT_TRUE(errors[4].starts_with("p.yaml:7:1: expected one of variables"));
}

TEST(PolicyError, ListsTwentyFindingsAndCountsTheRest) {
    std::string text = "actions:\n";
    for (int i = 0; i < 25; ++i)
        text += "- name: a b\n";
    const auto errors = errorsOf(text);
    ASSERT_EQ(errors.size(), 21U);
    EXPECT_EQ(errors.back(), "p.yaml: and 5 more");
}

TEST(PolicyError, ReportsAMistakeInAVariableOnceHoweverOftenItIsUsed) {
    const auto errors = errorsOf(
        "variables:\n  v: 192.0.2\nactions:\n- name: a\nipv4:\n"
        "- {name: r, action: a, priority: 1, source: $v}\n"
        "- {name: s, action: a, priority: 1, source: $v}\n");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_TRUE(errors[0].starts_with("p.yaml:2:6: expected an IPv4 address"));
}

TEST(PolicyError, RefusesAnEntryBeyondTheSizeOfATable) {
    std::string text = afterAction("ipv4:\n");
    text += "- {name: full, action: a, priority: 1, protocol: tcp, source-port: [";
    for (int port = 1; port <= 65535; ++port)
        text += std::to_string(port) + ",";
    text += "]}\n- {name: last, action: a, priority: 1}\n";
    EXPECT_TRUE(errorsOf(text).empty());
    const auto errors = errorsOf(text + "- {name: more, action: a, priority: 1}\n");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0],
              "p.yaml:6:10: expected at most 65536 entries in ipv4, with 'more' there are more");
}

TEST(PolicyError, RefusesListsWhoseProductOverflowsWithoutExpandingThem) {
    std::string ports = "[1";
    for (int port = 2; port <= 60000; ++port)
        ports += "," + std::to_string(port);
    ports += "]";
    const auto errors =
        errorsOf(rule("protocol: tcp, source-port: " + ports + ", destination-port: " + ports));
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0],
              "p.yaml:4:10: expected at most 65536 entries in ipv4, with 'r' there are more");
}

TEST(PolicyError, NamesAFileThatCannotBeRead) {
    try {
        Agent::loadPolicy("/nonexistent/p.yaml");
        FAIL() << "no error";
    } catch (const Agent::PolicyError& error) {
        EXPECT_STREQ(error.what(),
                     "/nonexistent/p.yaml: expected a readable policy file: No such file or "
                     "directory");
    }
}

TEST(PolicyError, RefusesAPathThatIsNoRegularFile) {
    try {
        Agent::loadPolicy("/dev/zero");
        FAIL() << "no error";
    } catch (const Agent::PolicyError& error) {
        EXPECT_STREQ(error.what(),
                     "/dev/zero: expected a readable policy file: it is no regular file");
    }
}

TEST(PolicyError, QuotesNoControlCharactersAndNoLongText) {
    const auto errors = errorsOf("actions:\n- name: \"a\\n" + std::string(100, 'x') + "\"\n");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("'a?" + std::string(58, 'x') + "...'"), std::string::npos)
        << errors[0];
}

}  // namespace
