// Who may touch what: modes of files, folders and sockets, links and other users' files, mappings
// that cannot be written, and one writer at a time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>
#include <asio/io_context.hpp>

#include "hwside/Daemon.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "process/ControlServer.h"
#include "process/StateDirectory.h"
#include "tests/entrylog/Bindings.h"
#include "tests/rot/Specimen.h"
#include "tests/support/RealProcess.h"

namespace Rot {
namespace {

namespace fs = std::filesystem;
using KivShimo::AckMapWriter;
using KivShimo::AnnounceLogReader;
using KivShimo::AnnounceLogWriter;
using TestSupport::RealProcess;
using TestSupport::TempDir;

constexpr uid_t kOtherUser = 12345;

class OwnershipTest : public testing::Test {
protected:
    OwnershipTest() { TestSupport::withoutCoreFiles(); }

    static mode_t modeOf(const fs::path& path) {
        struct stat status {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777U;
    }
    template <class Error = KivShimo::MountError>
    static std::string refusalOf(const std::function<void()>& action) {
        try {
            action();
        } catch (const Error& error) {
            return error.what();
        }
        ADD_FAILURE() << "not refused";
        return {};
    }
    template <class Error = KivShimo::MountError>
    static void expectRefused(const std::string& what, const std::function<void()>& action) {
        const std::string refusal = refusalOf<Error>(action);
        EXPECT_NE(refusal.find(what), std::string::npos) << refusal;
    }
    std::string root() const { return directory_.path(); }
    std::string announcements() const { return directory_.file("group/log.table"); }
    void makeAnnouncements() { AnnounceLogWriter(root(), "group/log", 8).append(1, 1); }

    /// How a process of its own ends.
    static int endOf(const std::function<void()>& body) {
        const pid_t child = fork();
        if (child == 0) {
            try {
                body();
            } catch (const std::exception& error) {
                fmt::print(stderr, "in the other process: {}\n", error.what());
                _exit(3);
            }
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return status;
    }

    TempDir directory_;
};

TEST_F(OwnershipTest, FilesAndFoldersAreClosedToOthersWhateverTheMask) {
    for (const mode_t mask : {0U, 0777U}) {
        const mode_t before = umask(mask);
        const Specimen specimen;
        const TempDir other;
        const AckMapWriter made(other.path() + "/made/root", "group/acks");
        umask(before);
        for (const fs::path& folder : {fs::path(specimen.folder()), fs::path(other.path())}) {
            for (const auto& entry : fs::recursive_directory_iterator(folder)) {
                EXPECT_EQ(modeOf(entry.path()), entry.is_directory() ? 0750U : 0640U)
                    << entry.path();
            }
        }
    }
}

TEST_F(OwnershipTest, RootThatIsALinkIsRefused) {
    const TempDir links;
    makeAnnouncements();
    fs::create_directory_symlink(root(), links.file("root"));
    for (const char* end : {"", "/"}) {
        const std::string link = links.file("root") + end;
        refusalOf([&] { AckMapWriter(link, "group/acks"); });
        refusalOf([&] { AnnounceLogWriter(link, "group/log", 8); });
        expectRefused<Process::StateDirectoryError>(
            "it is no directory", [&] { Process::checkStateDirectory(link, link); });
        asio::io_context io;
        expectRefused<Process::StateDirectoryError>("it is no directory",
                                                    [&] { HwSide::Daemon(io, link); });
    }
    EXPECT_FALSE(fs::exists(root() + "/group/acks.table"));
    EXPECT_NO_THROW(Process::checkStateDirectory(root() + "/", root()));
}

TEST_F(OwnershipTest, StateDirectoryThatOthersMayWriteToIsRefused) {
    for (const mode_t mode : {0777U, 01777U, 0702U}) {
        ASSERT_EQ(chmod(root().c_str(), mode), 0);
        expectRefused<Process::StateDirectoryError>(
            fmt::format("state directory {}: others may write to it: mode {:04o}", root(), mode),
            [&] { Process::checkStateDirectory(root(), root()); });
        expectRefused(fmt::format("others may write to it: mode {:04o}", mode),
                      [&] { AckMapWriter(root(), "group/acks"); });
    }
    ASSERT_EQ(chmod(root().c_str(), 0775), 0);
    EXPECT_NO_THROW(Process::checkStateDirectory(root(), root()));
}

TEST_F(OwnershipTest, WhatBelongsToAnotherUserIsRefused) {
    if (geteuid() != 0) {  // nobody else can give files away, but root's folders are there
        expectRefused("belongs to another user", [] { AnnounceLogWriter("/usr", "group/log", 8); });
        return;
    }
    makeAnnouncements();
    const auto mount = [&] { AnnounceLogWriter(root(), "group/log", 8); };
    for (const std::string& path :
         {announcements(), announcements() + ".manifest", root() + "/group", root()}) {
        ASSERT_EQ(chown(path.c_str(), kOtherUser, kOtherUser), 0);
        expectRefused("belongs to another user", mount);
        ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    }
    EXPECT_NO_THROW(mount());
    ASSERT_EQ(chown(announcements().c_str(), kOtherUser + 1, kOtherUser + 1), 0);
    ASSERT_EQ(chmod(announcements().c_str(), 0666), 0);
    ASSERT_EQ(chmod(root().c_str(), 0755), 0);
    ASSERT_EQ(chmod((root() + "/group").c_str(), 0755), 0);
    EXPECT_EQ(endOf([&] {
                  if (setuid(kOtherUser) != 0)
                      _exit(4);
                  expectRefused("belongs to another user",
                                [&] { AnnounceLogReader::open(announcements()); });
                  _exit(HasFailure() ? 1 : 0);
              }),
              0);
}

TEST_F(OwnershipTest, StoreIntoAReadersMappingFaults) {
    makeAnnouncements();
    const auto reader = AnnounceLogReader::open(announcements());
    ASSERT_TRUE(reader.has_value());
    auto* const word = const_cast<volatile std::uint64_t*>(&reader->sleepEpoch().place);
    EXPECT_EQ(KivShimo::detail::SleepEpoch::decoded(*word, reader->sleepEpoch().seed), 0U);
    const int status = endOf([word] {
        std::signal(SIGSEGV, SIG_DFL);
        *word = 1;
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
}

TEST_F(OwnershipTest, SecondWriterIsToldWhoWrites) {
    const AnnounceLogWriter log(root(), "group/log", 8);
    const AckMapWriter acks(root(), "group/acks");
    const std::string holder = fmt::format("pid {} holds it", getpid());
    EXPECT_EQ(endOf([&] {
                  expectRefused(holder, [&] { AnnounceLogWriter(root(), "group/log", 8); });
                  expectRefused(holder, [&] { AckMapWriter(root(), "group/acks"); });
                  _exit(HasFailure() ? 1 : 0);
              }),
              0);
}

TEST_F(OwnershipTest, SecondHardwareSideIsToldWhoRuns) {
    RealProcess first({VORN_HWD_PATH, "--state-dir", root()});
    ASSERT_TRUE(TestSupport::until([&] { return fs::exists(directory_.file("hwd.sock")); }));
    const auto second = TestSupport::runToEnd({VORN_HWD_PATH, "--state-dir", root()});
    EXPECT_EQ(second.status, 3);
    ASSERT_EQ(second.errorLines.size(), 1U);
    EXPECT_NE(second.errorLines[0].find(fmt::format("pid {} holds it", first.pid())),
              std::string::npos)
        << second.errorLines[0];
    EXPECT_EQ(first.endedBy(SIGTERM), 0);
}

TEST_F(OwnershipTest, SocketsAreClosedToOthersWhateverTheMask) {
    const mode_t before = umask(0);
    asio::io_context io;
    const Process::ControlServer server(io, directory_.file("server"),
                                        [](const Process::Json& request) { return request; });
    const KivShimo::Doorbell bell(directory_.file("bell"));
    umask(before);
    for (const char* name : {"server", "bell"})
        EXPECT_EQ(modeOf(directory_.file(name)), 0660U) << name;
}

TEST_F(OwnershipTest, NothingButASocketIsReplacedByASocket) {
    asio::io_context io;
    const std::string path = directory_.file("precious");
    const auto expectAllRefused = [&] {
        expectRefused("no socket there", [&] { Process::ControlServer(io, path, {}); });
        expectRefused("no socket there", [&] { KivShimo::Doorbell{path}; });
    };
    std::ofstream(path) << "precious";
    expectAllRefused();
    EXPECT_EQ(fs::file_size(path), 8U);
    fs::rename(path, directory_.file("elsewhere"));
    fs::create_symlink(directory_.file("elsewhere"), path);
    expectAllRefused();
    EXPECT_TRUE(fs::is_symlink(path));
}

}  // namespace
}  // namespace Rot
