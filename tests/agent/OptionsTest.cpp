// The command line: what is accepted, and the line that says what is wrong.

#include <gtest/gtest.h>

#include "agent/Options.h"

namespace {

Agent::Options parse(std::vector<const char*> words) {
    words.insert(words.begin(), "vorn-agent");
    return Agent::optionsFrom(static_cast<int>(words.size()), words.data());
}

std::string errorOf(const std::vector<const char*>& words) {
    try {
        parse(words);
    } catch (const Agent::UsageError& error) {
        return error.what();
    }
    return "";
}

TEST(Options, ReadsAWholeCommandLine) {
    const auto options =
        parse({"--policy", "p.yaml", "--units", "1,2,65534", "--state-dir", "/d", "--plugin",
               "lib.so", "--counters", "100", "--policers", "50", "--capacity", "4096"});
    EXPECT_EQ(options.policy, "p.yaml");
    EXPECT_EQ(options.units, (std::vector<Asic::UnitId>{{1}, {2}, {65534}}));
    EXPECT_EQ(options.stateDirectory, "/d");
    EXPECT_EQ(options.plugin, "lib.so");
    EXPECT_EQ(options.counters, 100U);
    EXPECT_EQ(options.policers, 50U);
    EXPECT_EQ(options.capacity, 4096U);
}

TEST(Options, NeedsOnlyThePolicyToCheckIt) {
    EXPECT_TRUE(parse({"--check", "--policy", "p.yaml"}).check);
    EXPECT_EQ(errorOf({"--check"}), "--policy is required");
}

TEST(Options, NamesWhatIsMissing) {
    EXPECT_EQ(errorOf({"--policy", "p"}), "--units is required");
    EXPECT_EQ(errorOf({"--policy", "p", "--units", "1"}), "--state-dir is required");
    EXPECT_EQ(errorOf({"--policy", "p", "--units", "1", "--state-dir", "d"}),
              "--plugin is required");
}

TEST(Options, RefusesUnknownOptionsAndWords) {
    EXPECT_NE(errorOf({"--policy", "p", "--colour", "red"}), "");
    EXPECT_NE(errorOf({"--policy", "p", "--counters", "0"}), "");
    EXPECT_NE(errorOf({"--policy", "p", "--policers", "many"}), "");
}

TEST(Options, ListsExitCodesInItsHelp) {
    const auto options = parse({"--help"});
    for (const char* part : {"--policy", "--units", "--state-dir", "--plugin", "Exit status: 0",
                             "6 another agent has the state directory", "SIGHUP"})
        EXPECT_NE(options.help.find(part), std::string::npos) << part;
}

TEST(Units, RefusesWhatIsNoUnit) {
    const auto wrong = [](const std::string& text) {
        try {
            Agent::unitsFromText(text);
        } catch (const Agent::UsageError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(wrong("65535"),
              "--units: expected numbers up to 65534 separated by commas instead of '65535'");
    EXPECT_EQ(wrong("1,,2"),
              "--units: expected numbers up to 65534 separated by commas instead of ''");
    EXPECT_EQ(wrong("1,"),
              "--units: expected numbers up to 65534 separated by commas instead of ''");
    EXPECT_EQ(wrong("-1"),
              "--units: expected numbers up to 65534 separated by commas instead of '-1'");
    EXPECT_EQ(wrong("1,2,1"), "--units: expected unit 1 once");
    std::string many = "0";
    for (int unit = 1; unit <= 64; ++unit)
        many += "," + std::to_string(unit);
    EXPECT_EQ(wrong(many), "--units: expected at most 64 units");
}

}  // namespace
