// vorn-hwd and vorn-classify as processes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "hwside/Json.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/Doorbell.h"
#include "process/ControlServer.h"
#include "tests/hwside/AgentSide.h"
#include "tests/hwside/Damage.h"

namespace HwSide::Test {
namespace {

constexpr std::chrono::seconds kPatience{20};

/// A program under way; killed at the end when it still runs.
class Process {
public:
    Process(const std::string& output, std::vector<std::string> arguments) : output_(output) {
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        std::ofstream(output, std::ios::trunc).flush();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int file = ::open(output.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
            ::dup2(file, STDOUT_FILENO);
            ::dup2(file, STDERR_FILENO);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        if (pid_ > 0)
            end(SIGKILL);
    }

    /// The exit code; minus the signal's number where a signal ended it.
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int end(int signal) {
        ::kill(pid_, signal);
        return wait();
    }
    std::string output() const {
        std::ostringstream text;
        text << std::ifstream(output_).rdbuf();
        return text.str();
    }

private:
    std::string output_;
    pid_t pid_;
};

class DaemonTest : public testing::Test {
protected:
    Process daemon(const std::string& directory) {
        return {files_.path() + "/daemon.txt", {VORN_HWD_PATH, "--state-dir", directory}};
    }
    Process daemon() { return daemon(folder_.path()); }
    static void eventually(const std::function<bool()>& holds) {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (!holds()) {
            ASSERT_LT(std::chrono::steady_clock::now(), end);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    void waitUntilReady(const Process& process) {
        eventually([&] { return process.output().find("follows") != std::string::npos; });
    }
    Json ask(const Json& request) {
        return ::Process::ControlClient(group_.controlSocket()).request(request);
    }
    std::uint64_t acknowledged() {
        return ask({{"cmd", "status"}})["tables"]["PolicyCpuV4TcamEntry"]["version"];
    }
    std::string failureOf(std::vector<std::string> arguments, int code) {
        arguments.insert(arguments.begin(), VORN_HWD_PATH);
        Process process(files_.path() + "/failure.txt", arguments);
        EXPECT_EQ(process.wait(), code) << process.output();
        const std::string output = process.output();
        EXPECT_EQ(std::ranges::count(output, '\n'), 1) << output;
        return output;
    }
    /// Runs vorn-classify; returns exit code and output.
    std::pair<int, std::string> classify(std::vector<std::string> arguments) {
        const std::vector<std::string> first{
            std::filesystem::path(VORN_HWD_PATH).replace_filename("vorn-classify"), "--state-dir",
            folder_.path()};
        arguments.insert(arguments.begin(), first.begin(), first.end());
        Process process(files_.path() + "/classify.txt", arguments);
        const int code = process.wait();
        return {code, process.output()};
    }

    Folder folder_;
    Folder files_;
    Group group_{folder_.path()};
};

// Errors

TEST_F(DaemonTest, WrongOptionsEndItWithOneLine) {
    EXPECT_NE(failureOf({}, 2).find("vorn-hwd: --state-dir is required"), std::string::npos);
    EXPECT_NE(failureOf({"--state-dir", folder_.path(), "--fast"}, 2).find("--fast"),
              std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(DaemonTest, AMissingStateDirectoryEndsItWithOneLine) {
    EXPECT_EQ(failureOf({"--state-dir", folder_.path() + "/none"}, 3),
              "vorn-hwd: state directory " + folder_.path() + "/none: No such file or directory\n");
}

TEST_F(DaemonTest, AFileInPlaceOfTheStateDirectoryEndsItWithOneLine) {
    std::ofstream(files_.path() + "/file") << "x";
    EXPECT_NE(failureOf({"--state-dir", files_.path() + "/file"}, 3).find("it is no directory"),
              std::string::npos);
}

TEST_F(DaemonTest, SomebodyElsesStateDirectoryEndsItWithOneLine) {
    const bool isRoot = ::geteuid() == 0;
    const std::string other = isRoot ? files_.path() : "/";
    ASSERT_TRUE(!isRoot || ::chown(other.c_str(), 12345, 12345) == 0);
    Folder output;
    Process process(output.path() + "/failure.txt", {VORN_HWD_PATH, "--state-dir", other});
    EXPECT_EQ(process.wait(), 3);
    EXPECT_NE(process.output().find("it belongs to user "), std::string::npos) << process.output();
}

TEST_F(DaemonTest, AnUnwritableStateDirectoryEndsItWithOneLine) {
    std::filesystem::permissions(
        folder_.path(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    // Root may write everywhere unless it gives that up.
    std::vector<std::string> words{VORN_HWD_PATH, "--state-dir", folder_.path()};
    if (::geteuid() == 0) {
        words.insert(words.begin(),
                     {"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search",
                      "--inh-caps=-dac_override,-dac_read_search"});
    }
    Folder output;
    Process process(output.path() + "/failure.txt", words);
    EXPECT_EQ(process.wait(), 3);
    EXPECT_NE(process.output().find("Permission denied"), std::string::npos) << process.output();
}

TEST_F(DaemonTest, ASecondOneOnTheSameDirectoryIsRefusedAndTheFirstLivesOn) {
    Process first = daemon();
    waitUntilReady(first);
    EXPECT_NE(failureOf({"--state-dir", folder_.path()}, 3).find("vorn-hwd: "), std::string::npos);
    EXPECT_TRUE(ask({{"cmd", "status"}})["ok"]);
    EXPECT_EQ(first.end(SIGTERM), 0);
}

// Following

TEST_F(DaemonTest, EndsCleanlyOnASignalAndLeavesNoSockets) {
    Process process = daemon();
    waitUntilReady(process);
    EXPECT_EQ(process.end(SIGTERM), 0);
    EXPECT_FALSE(std::filesystem::exists(group_.controlSocket()));
    EXPECT_FALSE(std::filesystem::exists(group_.ownBell()));
}

TEST_F(DaemonTest, FollowsAnAgentThatComesLaterAndRingsForIt) {
    Process process = daemon();
    waitUntilReady(process);
    KivShimo::Doorbell bell(group_.agentBell());
    AgentSide agent(folder_.path());
    KivShimo::Sleeper sleeper(agent.announcements().sleepEpoch());
    const auto acks = KivShimo::AckMapReader::open(
        KivShimo::tableFile(folder_.path(), Group::acknowledgementsPath()));
    ASSERT_TRUE(acks);
    KivShimo::Waker waker(acks->sleepEpoch(), group_.ownBell());
    for (std::uint32_t rule = 1; rule <= 50; ++rule) {
        sleeper.asleep();
        const std::uint64_t version = agent.write<V4Types>(kUnit, matchEntry<V4Types>(rule, 1));
        waker.published();
        eventually([&] { return bell.drain() > 0; });
        sleeper.awake();
        eventually([&] { return acks->acknowledged(V4Types::kTableId.whole()) == version; });
        agent.announcements().consumedIs(acks->consumed());
    }
    EXPECT_EQ(process.end(SIGTERM), 0);
}

/// Rings until the bell is full; false when it is full already.
bool ringUntilFull(const std::string& bell) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    bell.copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
    const KivShimo::detail::Descriptor ringer(
        ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const char ring = 1;
    bool isRung = false;
    while (::sendto(ringer.fd(), &ring, 1, 0, reinterpret_cast<const sockaddr*>(&address),
                    sizeof(address)) == 1) {
        isRung = true;
    }
    return isRung;
}

TEST_F(DaemonTest, HearsItsBellWhileItWaitsForAStoreHalfDone) {
    AgentSide agent(folder_.path());
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    const std::string file = group_.configFile<V4Types>(kUnit);
    tearOrMend(file, "rule 1");
    Process process = daemon();
    waitUntilReady(process);
    for (int round = 0; round < 3; ++round)
        eventually([&] { return ringUntilFull(group_.ownBell()); });
    tearOrMend(file, "rule 1");
    eventually([&] { return acknowledged() == 1; });
}

TEST_F(DaemonTest, AKilledOnesSuccessorHoldsTheSameEntries) {
    AgentSide agent(folder_.path());
    agent.write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    Json before;
    {
        Process process = daemon();
        waitUntilReady(process);
        eventually([&] { return acknowledged() == 1; });
        before = ask({{"cmd", "tcam"}});
        EXPECT_EQ(process.end(SIGKILL), -SIGKILL);
    }
    Process process = daemon();
    waitUntilReady(process);
    EXPECT_EQ(ask({{"cmd", "tcam"}}), before);
    EXPECT_EQ(before["units"][0]["v4"][0]["label"], "rule 1");
}

TEST_F(DaemonTest, TellsTheAgentThatItShallPause) {
    Process process = daemon();
    waitUntilReady(process);
    const auto acks = KivShimo::AckMapReader::open(
        KivShimo::tableFile(folder_.path(), Group::acknowledgementsPath()));
    ASSERT_TRUE(acks);
    EXPECT_TRUE(ask({{"cmd", "pause"}})["pauseRequested"]);
    EXPECT_TRUE(acks->pauseRequested());
    EXPECT_FALSE(ask({{"cmd", "resume"}})["pauseRequested"]);
    EXPECT_FALSE(acks->pauseRequested());
}

TEST_F(DaemonTest, ShowsWhatItHoldsForOneKey) {
    AgentSide agent(folder_.path());
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    Process process = daemon();
    waitUntilReady(process);
    eventually([&] { return acknowledged() == 1; });
    const Json tcam = ask({{"cmd", "tcam"}});
    Json request{{"cmd", "entry"},
                 {"table", "PolicyCpuV4TcamEntry"},
                 {"unit", kUnit.value},
                 {"key", tcam["units"][0]["v4"][0]["key"]}};
    const Json held = ask(request);
    EXPECT_EQ(held["entry"]["label"], "rule 1");
    EXPECT_EQ(held["version"], 1);
    request["key"] = "00000077.00000001";
    EXPECT_TRUE(ask(request)["entry"].is_null());
    request["unit"] = 77;
    EXPECT_TRUE(ask(request)["entry"].is_null()) << "a unit that was never programmed";
    request["key"] = "abc";
    EXPECT_EQ(ask(request)["error"], "key: \"abc\" is no key of PolicyCpuV4TcamEntry");
    request["table"] = "Nothing";
    EXPECT_EQ(ask(request)["error"], "table: there is no \"Nothing\"");
}

TEST_F(DaemonTest, TakesASnapshotWhenItIsTold) {
    AgentSide agent(folder_.path());
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    Process process = daemon();
    waitUntilReady(process);
    eventually([&] { return acknowledged() == 1; });
    const auto snapshots = [&] { return ask({{"cmd", "status"}})["snapshots"].get<int>(); };
    const int before = snapshots();
    EXPECT_TRUE(ask({{"cmd", "resync"}})["ok"]);
    eventually([&] { return snapshots() == before + 1; });
    EXPECT_EQ(acknowledged(), 1U);
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    KivShimo::ring(group_.ownBell());
    eventually([&] { return acknowledged() == 2; });
}

TEST_F(DaemonTest, RefusesRequestsItDoesNotKnow) {
    Process process = daemon();
    waitUntilReady(process);
    EXPECT_NE(ask({{"cmd", "stop"}})["error"].get<std::string>().find("cmd: expected"),
              std::string::npos);
    EXPECT_EQ(ask({{"cmd", "classify"}})["error"], "unit is missing");
    EXPECT_EQ(ask({{"cmd", "tcam"}, {"unit", 70000}})["error"],
              "unit: expected a number from 0 to 65534, got 70000");
    EXPECT_EQ(ask({{"cmd", "classify"}, {"unit", 7}})["error"], "packet is missing");
}

// The classification tool

TEST_F(DaemonTest, ClassifyPrintsEntryAndAction) {
    AgentSide agent(folder_.path());
    agent.write<ActionTypes>(kUnit, actionEntry(1, 100));
    V4Types::Entry entry = matchEntry<V4Types>(5, 1, 70);
    entry.bytes.protocol = kTcp;
    entry.bytes.protocolMask = 0xFF;
    entry.ports.destinationLow = entry.ports.destinationHigh = 179;
    agent.write<V4Types>(kUnit, entry);
    Process process = daemon();
    waitUntilReady(process);
    const std::vector<std::string> packet{"--unit",       "1",       "--src", "192.0.2.1", "--dst",
                                          "198.51.100.7", "--proto", "tcp"};
    std::vector<std::string> bgp = packet;
    bgp.insert(bgp.end(), {"--dport", "179"});
    EXPECT_EQ(classify(bgp),
              (std::pair<int, std::string>(
                  0,
                  "192.0.2.1 > 198.51.100.7 tcp 0 > 179 flags 0x00 ttl 64: entry rule 5 "
                  "(00000005.00000000) priority 70: action action 1 permit 100 pps burst "
                  "100\n")));
    EXPECT_EQ(classify(packet),
              (std::pair<int, std::string>(
                  0, "192.0.2.1 > 198.51.100.7 tcp 0 > 0 flags 0x00 ttl 64: no entry\n")));
    bgp.push_back("--json");
    const Json answer = Json::parse(classify(bgp).second);
    EXPECT_EQ(answer["match"]["action"]["rate"], 100);
}

TEST_F(DaemonTest, ClassifySaysWhatIsWrong) {
    EXPECT_EQ(classify({"--unit", "1", "--src", "::1", "--dst", "::"}).first, 3);
    Process process = daemon();
    waitUntilReady(process);
    EXPECT_EQ(classify({"--unit", "1", "--src", "::1"}),
              (std::pair<int, std::string>(2, "vorn-classify: packet: dst is missing\n")));
    EXPECT_EQ(classify({"--unit", "1", "--src", "::1", "--dst", "::"}),
              (std::pair<int, std::string>(
                  2, "vorn-classify: unit: nothing was ever programmed on unit 1\n")));
    const auto [code, output] = classify({"--unit", "1", "--pcap", files_.path() + "/none"});
    EXPECT_EQ(code, 4);
    EXPECT_NE(output.find("No such file"), std::string::npos) << output;
    EXPECT_EQ(classify({"--unit", "x"}).first, 2);
}

}  // namespace
}  // namespace HwSide::Test
