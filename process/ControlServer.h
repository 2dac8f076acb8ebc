// The control socket of a process: requests and answers as lines of JSON.
//
// Event thread only. A Unix stream socket of mode 0660; whoever is neither of the server's user nor
// root is turned away. Every line is one request and gets one line as its answer, in order: an
// object whose member "ok" says whether it was done, else "error" says why not.
//
// What always holds:
//  1. Whatever a peer sends, the server lives on; a line longer than kRequestLimit_bytes ends its
//     connection, and a connection beyond kMaxConnections is turned away.
//  2. A peer that does not read its answers costs one answer: the next request is read only after
//     the answer is sent.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <nlohmann/json.hpp>

namespace Process {

using Json = nlohmann::ordered_json;

class ControlServer {
public:
    static constexpr std::size_t kRequestLimit_bytes = 65536;
    static constexpr std::size_t kMaxConnections = 32;

    /// Answers a request; what it throws becomes the "error" of the answer.
    using Handler = std::function<Json(const Json& request)>;

    /// Listens at `path`, in place of a socket that a dead process left. Throws std::system_error
    /// with the path, and KivShimo::MountError when something else is there.
    ControlServer(asio::io_context& io, std::string path, Handler handler);
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;
    ~ControlServer();

private:
    class Connection;

    void accept();
    void admit(asio::local::stream_protocol::socket socket);

    asio::local::stream_protocol::acceptor acceptor_;
    asio::steady_timer pause_;
    std::string path_;
    std::shared_ptr<Handler> handler_;
    std::shared_ptr<std::size_t> connections_ = std::make_shared<std::size_t>(0);
};

/// Whether a peer of this user is answered: the server's own user, and root. Any thread.
bool mayAsk(uid_t peer);

/// The answer to one line; never throws for what the line holds.
std::string controlAnswer(const ControlServer::Handler& handler, const std::string& line);

/// Sends requests to a server and waits for the answers.
class ControlClient {
public:
    /// Throws std::system_error with the path.
    explicit ControlClient(const std::string& path);

    /// The answer, whether done or not. Throws std::runtime_error when the connection breaks or
    /// what arrives is no answer.
    Json request(const Json& request);

private:
    asio::io_context io_;
    asio::local::stream_protocol::socket socket_{io_};
    std::string path_;
    std::string received_;
};

}  // namespace Process
