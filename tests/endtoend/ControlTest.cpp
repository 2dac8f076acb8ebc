// The control sockets of both processes, and clients that do not behave.

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

#include "tests/endtoend/TestedSystem.h"

namespace {

using TestSupport::Json;
using TestSupport::TestedSystem;

/// A client that sends bytes as they come.
class Client {
public:
    explicit Client(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
        const timeval deadline{TestSupport::kDeadline.count(), 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
        connected_ =
            ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { ::close(fd_); }

    bool connected() const { return connected_; }
    /// How many of the bytes are taken without waiting.
    std::size_t send(const std::string& bytes) const {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return sent < 0 ? 0 : static_cast<std::size_t>(sent);
    }
    /// Everything up to the end of a line or of the connection.
    std::string line() {
        std::string text;
        char byte = 0;
        while (::recv(fd_, &byte, 1, 0) == 1 && byte != '\n')
            text += byte;
        return text;
    }
    /// Whether the other side ends the connection.
    bool ends() {
        std::array<char, 4096> rest{};
        ssize_t got = 0;
        do {
            got = ::recv(fd_, rest.data(), rest.size(), 0);
        } while (got > 0);
        return got == 0 || errno == ECONNRESET;
    }
    bool isAnswered() {
        send(kStatus);
        return line().starts_with(R"({"ok":true)");
    }

    static inline const std::string kStatus = "{\"cmd\":\"status\"}\n";

private:
    int fd_;
    bool connected_ = false;
};

/// Both processes; the parameter says whose socket is looked at.
class Control : public testing::TestWithParam<const char*> {
protected:
    Control() {
        system_.policyIsExample("rfc6192");
        system_.startHardware();
        system_.startAgent();
    }
    std::string path() const { return system_.stateDirectory() + "/" + GetParam(); }

    TestedSystem system_;
};
INSTANTIATE_TEST_SUITE_P(Sides, Control, testing::Values("agent.sock", "hwd.sock"),
                         [](const auto& side) { return std::string(side.param).substr(0, 3); });

TEST_P(Control, RefusesALineThatIsTooLongAndServesOthers) {
    Client endless(path());
    Client other(path());
    const std::string part(4096, 'x');
    std::size_t sent = 0;
    ASSERT_TRUE(TestSupport::until([&] {
        sent += endless.send(part);
        return sent > 65536 + part.size() || endless.send("x") == 0;
    }));
    EXPECT_TRUE(endless.line().starts_with(R"({"ok":false)"));
    EXPECT_TRUE(endless.ends());
    EXPECT_TRUE(other.isAnswered());
}

TEST_P(Control, TakesNoMoreRequestsOfAClientThatNeverReads) {
    Client deaf(path());
    Client other(path());
    std::string requests;
    for (int i = 0; i < 1000; ++i)
        requests += Client::kStatus;
    // What is taken is what the buffers of the connection hold, and one request.
    std::size_t sent = 0;
    int idle = 0;
    EXPECT_TRUE(TestSupport::until([&] {
        const std::size_t taken = deaf.send(requests);
        sent += taken;
        idle = taken == 0 ? idle + 1 : 0;
        EXPECT_TRUE(other.isAnswered());
        return idle == 20;
    }));
    EXPECT_LT(sent, std::size_t{4} << 20U);
    EXPECT_TRUE(deaf.line().starts_with(R"({"ok":true)"));
}

TEST_P(Control, ServesOnAfterAClientThatGoesInTheMiddleOfARequest) {
    for (int i = 0; i < 100; ++i) {
        const Client client(path());
        client.send(i % 2 == 0 ? "{\"cmd\":" : Client::kStatus);
    }
    EXPECT_TRUE(Client(path()).isAnswered());
}

TEST_P(Control, RefusesAnotherUser) {
    // The modes that keep others out are taken away: it is the check of the peer that counts.
    ASSERT_EQ(::chmod(system_.stateDirectory().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(path().c_str(), 0666), 0);
    EXPECT_TRUE(Client(path()).isAnswered());
    // Only root can become somebody else; for whoever else it is MayAsk that tells the rule.
    if (::geteuid() != 0)
        return;
    const pid_t child = ::fork();
    if (child == 0) {
        constexpr uid_t kNobody = 65534;
        if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
            ::_exit(2);
        Client stranger(path());
        stranger.send(Client::kStatus);
        const bool refused = stranger.line().find("root may ask") != std::string::npos;
        ::_exit(stranger.connected() && refused && stranger.ends() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(Client(path()).isAnswered());
}

TEST_P(Control, TakesThirtyTwoConnectionsAndRefusesTheNext) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 32; ++i) {
        clients.push_back(std::make_unique<Client>(path()));
        EXPECT_TRUE(clients.back()->isAnswered());
    }
    Client tooMany(path());
    EXPECT_NE(tooMany.line().find("too many connections"), std::string::npos);
    EXPECT_TRUE(tooMany.ends());
    EXPECT_TRUE(clients.front()->isAnswered());
    clients.pop_back();
    EXPECT_TRUE(TestSupport::until([&] { return Client(path()).isAnswered(); }));
}

}  // namespace
