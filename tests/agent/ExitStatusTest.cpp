// How vorn-agent ends: every exit status with its one line, and nothing changed.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/RealProcess.h"

namespace {

using TestSupport::Ended;
using TestSupport::RealProcess;
using TestSupport::TempDir;

const std::string kGoodPolicy = std::string(VORN_SOURCE_DIR) + "/examples/rfc6192.yaml";

class ExitStatus : public testing::Test {
protected:
    TempDir directory_;
    TempDir files_;
    std::string policy_ = kGoodPolicy;
    std::string plugin_ = VORN_PLUGIN_PATH;
    std::string state_ = directory_.path();
    std::string units_ = "1";

    std::vector<std::string> words() const {
        return {VORN_AGENT_PATH, "--policy",    policy_, "--plugin",   plugin_, "--units",
                units_,          "--state-dir", state_,  "--capacity", "1024"};
    }
    Ended run() const { return TestSupport::runToEnd(words()); }
    std::string file(const std::string& name, const std::string& content) const {
        std::ofstream(files_.file(name)) << content;
        return files_.file(name);
    }
    /// One line, as given behind the program's name, and an empty state directory.
    void expectRefused(int status, const std::string& line) const {
        const Ended ended = run();
        EXPECT_EQ(ended.status, status);
        ASSERT_EQ(ended.errorLines.size(), 1U);
        EXPECT_EQ(ended.errorLines[0], "vorn-agent: " + line);
        EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
    }
};

TEST_F(ExitStatus, IsTwoForAnUnknownOption) {
    auto words = this->words();
    words.push_back("--colour");
    const Ended ended = TestSupport::runToEnd(words);
    EXPECT_EQ(ended.status, 2);
    ASSERT_EQ(ended.errorLines.size(), 1U);
    EXPECT_NE(ended.errorLines[0].find("--colour"), std::string::npos);
}

TEST_F(ExitStatus, IsTwoForAUnitOutOfRange) {
    units_ = "1,70000";
    expectRefused(2,
                  "--units: expected numbers up to 65534 separated by commas instead of "
                  "'70000'; see --help");
}

TEST_F(ExitStatus, IsThreeWithoutStateDirectory) {
    state_ = "/nonexistent/state";
    expectRefused(3, "state directory /nonexistent/state: No such file or directory");
}

TEST_F(ExitStatus, IsThreeForAStateDirectoryThatIsAFile) {
    state_ = file("state", "");
    expectRefused(3, "state directory " + state_ + ": it is no directory");
}

TEST_F(ExitStatus, IsThreeForAStateDirectoryOfSomebodyElse) {
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(directory_.path().c_str(), 65534, 65534), 0);
        expectRefused(3, "state directory " + state_ + ": it belongs to user 65534, not to user 0");
    } else {
        state_ = "/";
        EXPECT_EQ(run().status, 3);
    }
}

TEST_F(ExitStatus, IsThreeForAStateDirectoryThatCannotBeWritten) {
    if (::geteuid() == 0) {
        // Root may write everywhere but where there is no directory.
        std::ofstream(directory_.file("asic")) << "in the way";
        const Ended ended = run();
        EXPECT_EQ(ended.status, 3);
        ASSERT_EQ(ended.errorLines.size(), 1U);
        EXPECT_NE(ended.errorLines[0].find(directory_.file("asic")), std::string::npos);
    } else {
        ASSERT_EQ(::chmod(state_.c_str(), 0500), 0);
        expectRefused(3, "state directory " + state_ + ": it is not writable: Permission denied");
    }
}

TEST_F(ExitStatus, IsThreeForAStateDirectoryWhosePathIsTooLong) {
    state_ = files_.file(std::string(120, 'x'));
    std::filesystem::create_directory(state_);
    expectRefused(3, "state directory " + state_ + ": the path is too long for the sockets in it");
}

TEST_F(ExitStatus, IsFourWithoutPlugin) {
    plugin_ = "/nonexistent/lib.so";
    expectRefused(4, "/nonexistent/lib.so: No such file or directory");
}

TEST_F(ExitStatus, IsFourForAPluginThatIsNoLibrary) {
    plugin_ = file("lib.so", "not a library, but long enough to be looked at as one");
    const Ended ended = run();
    EXPECT_EQ(ended.status, 4);
    ASSERT_EQ(ended.errorLines.size(), 1U);
    EXPECT_TRUE(
        ended.errorLines[0].starts_with("vorn-agent: " + plugin_ + ": no policy plug-in: "));
    EXPECT_TRUE(std::filesystem::is_empty(directory_.path()));
}

TEST_F(ExitStatus, IsFourForALibraryThatIsNoPlugin) {
    plugin_ = std::string(VORN_BUILD_DIR) + "/libVornPlatform.so";
    expectRefused(4, plugin_ +
                         ": no policy plug-in: it does not register "
                         "VornPolicyCpu::PolicyCpuTcamActionInterface");
}

TEST_F(ExitStatus, IsFiveForAPolicyWithAnErrorAndNamesItsPlace) {
    policy_ = file("p.yaml", "actions:\n- name: a\n  disposition: reject\n");
    expectRefused(5, policy_ + ":3:16: expected permit or drop instead of 'reject'");
}

TEST_F(ExitStatus, IsFiveWithoutPolicy) {
    policy_ = "/nonexistent/p.yaml";
    expectRefused(5,
                  "/nonexistent/p.yaml: expected a readable policy file: No such file or "
                  "directory");
}

TEST_F(ExitStatus, IsThreeWithoutItsControlSocketAndNothingIsLoaded) {
    std::filesystem::create_directory(directory_.file("agent.sock"));
    const Ended ended = run();
    EXPECT_EQ(ended.status, 3);
    const auto has = [&](const std::string& part) {
        return std::any_of(ended.errorLines.begin(), ended.errorLines.end(),
                           [&](const auto& line) { return line.find(part) != std::string::npos; });
    };
    EXPECT_TRUE(has("vorn-agent: " + directory_.file("agent.sock")));
    EXPECT_FALSE(has(" written, "));
}

TEST_F(ExitStatus, IsSixForASecondAgentAndTheFirstGoesOn) {
    RealProcess first(words());
    ASSERT_TRUE(TestSupport::until([&] {
        return std::filesystem::exists(directory_.file("agent.sock"));
    })) << first.standardError();
    const Ended second = run();
    EXPECT_EQ(second.status, 6);
    ASSERT_EQ(second.errorLines.size(), 1U);
    EXPECT_TRUE(
        second.errorLines[0].starts_with("vorn-agent: another agent has the state directory: "));
    EXPECT_NE(second.errorLines[0].find("pid " + std::to_string(first.pid())), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(directory_.file("agent.sock")));
    EXPECT_TRUE(first.running());
    EXPECT_EQ(first.endedBy(SIGTERM), 0) << first.standardError();
}

TEST_F(ExitStatus, IsSixWithTheHoldersPidNotThatOfOneThatWasKilled) {
    const std::string socket = directory_.file("agent.sock");
    const auto serves = [&] { return std::filesystem::exists(socket); };
    RealProcess killed(words());
    ASSERT_TRUE(TestSupport::until(serves)) << killed.standardError();
    killed.endedBy(SIGKILL);
    std::filesystem::remove(socket);
    RealProcess holder(words());
    ASSERT_TRUE(TestSupport::until(serves)) << holder.standardError();
    const Ended refused = run();
    EXPECT_EQ(refused.status, 6);
    ASSERT_EQ(refused.errorLines.size(), 1U);
    const std::string& line = refused.errorLines[0];
    EXPECT_NE(line.find("pid " + std::to_string(holder.pid())), std::string::npos) << line;
    EXPECT_TRUE(holder.running());
}

TEST_F(ExitStatus, IsZeroAfterAnInterruptAndTheSocketsAreGone) {
    RealProcess agent(words());
    ASSERT_TRUE(TestSupport::until([&] {
        return std::filesystem::exists(directory_.file("agent.sock"));
    })) << agent.standardError();
    EXPECT_EQ(agent.endedBy(SIGINT), 0) << agent.standardError();
    EXPECT_FALSE(std::filesystem::exists(directory_.file("agent.sock")));
    EXPECT_FALSE(std::filesystem::exists(directory_.file("agent.bell")));
}

TEST_F(ExitStatus, IsZeroForHelp) {
    const Ended ended = TestSupport::runToEnd({VORN_AGENT_PATH, "--help"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.standardOutput.find("Exit status"), std::string::npos);
}

TEST_F(ExitStatus, IsZeroForAGoodPolicyThatIsChecked) {
    const Ended ended = TestSupport::runToEnd({VORN_AGENT_PATH, "--check", "--policy", policy_});
    EXPECT_EQ(ended.status, 0);
    const auto entries = nlohmann::json::parse(ended.standardOutput);
    EXPECT_EQ(entries["actions"].size(), 12U);
    EXPECT_EQ(entries["ipv4"].size(), 27U);
    EXPECT_EQ(entries["ipv6"].size(), 28U);
}

TEST_F(ExitStatus, IsFiveForABadPolicyThatIsChecked) {
    policy_ = file("p.yaml", "[");
    EXPECT_EQ(TestSupport::runToEnd({VORN_AGENT_PATH, "--check", "--policy", policy_}).status, 5);
}

}  // namespace
