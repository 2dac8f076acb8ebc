#include "process/ControlServer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <filesystem>
#include <optional>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/write.hpp>

namespace Process::Test {
namespace {

using LocalStream = asio::local::stream_protocol;

/// A server on a thread of its own that answers with what it was asked.
class ControlServerTest : public testing::Test {
protected:
    ControlServerTest() {
        server_.emplace(io_, path_, [](const Json& request) -> Json {
            if (request.contains("fail"))
                throw std::runtime_error("asked to fail");
            return {{"asked", request}};
        });
        thread_ = std::thread([this] { io_.run(); });
    }
    ~ControlServerTest() override {
        io_.stop();
        thread_.join();
    }
    /// Sends bytes as they are and reads until the server closes or `lines` lines came.
    std::string exchange(const std::string& bytes, std::size_t lines) {
        asio::io_context io;
        LocalStream::socket socket(io);
        socket.connect(LocalStream::endpoint(path_));
        asio::error_code error;
        asio::write(socket, asio::buffer(bytes), error);
        std::string answers;
        std::array<char, 4096> buffer{};
        while (std::ranges::count(answers, '\n') < static_cast<std::ptrdiff_t>(lines)) {
            const std::size_t size = socket.read_some(asio::buffer(buffer), error);
            if (error)
                break;
            answers.append(buffer.data(), size);
        }
        return answers;
    }

    std::string path_ = testing::TempDir() + "control-" + std::to_string(getpid()) + ".sock";
    asio::io_context io_;
    std::optional<ControlServer> server_;
    std::thread thread_;
};

TEST(MayAsk, IsForTheServersUserAndRootOnly) {
    EXPECT_TRUE(mayAsk(geteuid()));
    EXPECT_TRUE(mayAsk(0));
    EXPECT_FALSE(mayAsk(geteuid() + 1));
}

TEST_F(ControlServerTest, AnswersEveryLineInOrder) {
    EXPECT_EQ(exchange("{\"a\":1}\n{\"b\":2}\n", 2),
              "{\"ok\":true,\"asked\":{\"a\":1}}\n{\"ok\":true,\"asked\":{\"b\":2}}\n");
}

TEST_F(ControlServerTest, SaysWhatIsWrongWithARequest) {
    EXPECT_EQ(exchange("{\"a\":\n", 1), "{\"ok\":false,\"error\":\"the request is not JSON\"}\n");
    EXPECT_EQ(exchange("[1]\n", 1),
              "{\"ok\":false,\"error\":\"the request is not a JSON object\"}\n");
    EXPECT_EQ(exchange("{\"fail\":1}\n", 1), "{\"ok\":false,\"error\":\"asked to fail\"}\n");
}

TEST_F(ControlServerTest, LivesOnAfterAWrongRequest) {
    EXPECT_EQ(exchange("\xFF\xFE\n{}\n", 2),
              "{\"ok\":false,\"error\":\"the request is not JSON\"}\n"
              "{\"ok\":true,\"asked\":{}}\n");
}

TEST_F(ControlServerTest, EndsTheConnectionOfAnEndlessLine) {
    const std::string answers =
        exchange(std::string(ControlServer::kRequestLimit_bytes + 1, 'x'), 2);
    EXPECT_EQ(answers, "{\"ok\":false,\"error\":\"the request is longer than 65536 bytes\"}\n");
    EXPECT_EQ(exchange("{}\n", 1), "{\"ok\":true,\"asked\":{}}\n");
}

TEST_F(ControlServerTest, TurnsAwayConnectionsBeyondItsLimitUntilOneEnds) {
    std::deque<ControlClient> clients;
    for (std::size_t i = 0; i < ControlServer::kMaxConnections; ++i)
        EXPECT_EQ(clients.emplace_back(path_).request({{"n", i}}).at("ok"), true);
    EXPECT_EQ(exchange("", 1), "{\"ok\":false,\"error\":\"too many connections\"}\n");
    clients.pop_back();
    while (exchange("{}\n", 1) != "{\"ok\":true,\"asked\":{}}\n")
        std::this_thread::yield();  // until the server has noticed
}

TEST_F(ControlServerTest, IsOpenToOwnerAndGroupOnly) {
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0660U);
}

TEST_F(ControlServerTest, ClientGetsAnswersWhetherDoneOrNot) {
    ControlClient client(path_);
    EXPECT_EQ(client.request({{"x", "y"}}).at("asked").at("x"), "y");
    EXPECT_EQ(client.request({{"fail", true}}).at("error"), "asked to fail");
}

TEST(ControlServerPaths, ServerTakesThePlaceOfADeadOnesSocketAndRemovesItsOwn) {
    const std::string path = testing::TempDir() + "dead-" + std::to_string(getpid()) + ".sock";
    asio::io_context io;
    { LocalStream::acceptor dead(io, LocalStream::endpoint(path)); }
    ASSERT_TRUE(std::filesystem::exists(path));
    {
        const ControlServer server(io, path, [](const Json&) { return Json::object(); });
        EXPECT_NO_THROW(ControlClient{path});
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ControlServerPaths, NameThePathThatFails) {
    const auto refusal = [](const std::string& path) -> std::string {
        try {
            const ControlClient client(path);
        } catch (const std::system_error& error) {
            return error.what();
        }
        return "none";
    };
    EXPECT_EQ(refusal("/nonexistent/hwd.sock"), "/nonexistent/hwd.sock: No such file or directory");
    EXPECT_NE(refusal("/tmp/" + std::string(200, 'x')).find("/tmp/xxx"), std::string::npos);
}

}  // namespace
}  // namespace Process::Test
