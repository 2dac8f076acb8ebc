// The example of docs/hardware-side.md, compiled and run.

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "platform/kivshimo/AckMap.h"
#include "tests/hwside/AgentSide.h"

namespace HwSide::Test {
namespace {

std::string outputOf(const std::string& folder) {
    const std::filesystem::path program =
        std::filesystem::path(VORN_HWD_PATH).replace_filename("vorn-example-minimal-reader");
    const std::string command = program.string() + " " + folder + " --once 2>&1";
    std::FILE* const pipe = ::popen(command.c_str(), "r");
    std::string output;
    std::array<char, 512> part{};
    while (std::fgets(part.data(), part.size(), pipe) != nullptr)
        output += part.data();
    EXPECT_EQ(::pclose(pipe), 0) << output;
    return output;
}

std::uint64_t acknowledged(const Folder& folder, std::uint32_t tableId) {
    const auto acks = KivShimo::AckMapReader::open(
        KivShimo::tableFile(folder.path(), Group::acknowledgementsPath()));
    return acks ? acks->acknowledged(tableId).value_or(0) : 0;
}

TEST(MinimalReader, ProgramsNeededThingsFirstAndAcknowledges) {
    Folder folder;
    AgentSide agent(folder.path());
    agent.announce(0x2C080301, 7);
    agent.write<ActionTypes>(kUnit, actionEntry(1, 100), {{0x2C080301, 7}});
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(5, 1), {{kAction, 1}});
    EXPECT_EQ(outputOf(folder.path()),
              "PolicyCpuTcamAction unit 1: write key 00000001.0 counter 4294967295 policer 65535 "
              "100 pps burst 100\n"
              "PolicyCpuV4TcamEntry unit 1: write key 00000005.00000000 rule 5 priority 1 action "
              "00000001.0\n");
    EXPECT_EQ(acknowledged(folder, 0x2C080301), 7U);
    EXPECT_EQ(acknowledged(folder, kAction), 1U);
    EXPECT_EQ(acknowledged(folder, kV4), 1U);
}

TEST(MinimalReader, ComesBackWithWhatIsLive) {
    Folder folder;
    EXPECT_EQ(outputOf(folder.path()), "");
    AgentSide agent(folder.path());
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(5, 1));
    agent.write<V4Types>(kUnit, matchEntry<V4Types>(6, 1));
    outputOf(folder.path());
    agent.remove<V4Types>(kUnit, {5, 0});
    EXPECT_EQ(outputOf(folder.path()),
              "PolicyCpuV4TcamEntry unit 1: write key 00000006.00000000 rule 6 priority 1 action "
              "00000001.0\n");
    EXPECT_EQ(acknowledged(folder, kV4), 3U);
}

TEST(MinimalReader, BeginsAnewWithAChangeLogThatBeginsAnew) {
    Folder folder;
    std::optional<AgentSide> agent(folder.path());
    agent->announce(0x2C080301, 7);
    agent->write<V4Types>(kUnit, matchEntry<V4Types>(5, 1));
    agent->write<V4Types>(kUnit, matchEntry<V4Types>(6, 1));
    outputOf(folder.path());
    agent.reset();
    const Group group{folder.path()};
    std::filesystem::remove(group.changeLogFile<V4Types>());
    std::filesystem::remove(group.configFile<V4Types>(kUnit));
    agent.emplace(folder.path());
    agent->write<V4Types>(kUnit, matchEntry<V4Types>(7, 1));
    EXPECT_EQ(outputOf(folder.path()),
              "PolicyCpuV4TcamEntry unit 1: write key 00000007.00000000 rule 7 priority 1 action "
              "00000001.0\n");
    EXPECT_EQ(acknowledged(folder, kV4), 1U);
    EXPECT_EQ(acknowledged(folder, 0x2C080301), 7U);
}

}  // namespace
}  // namespace HwSide::Test
