// The agent's control socket: requests and answers as lines of JSON.
//
// Event thread only. A Unix stream socket of mode 0660 that serves its own user and root. Each line
// is a request and gets one line as its answer: an object whose "ok" says whether it was done, else
// "error" says why not.
//
// What always holds:
//  1. Whatever a peer sends, the agent lives on; a line longer than kRequestLimit_bytes and the
//     connection after the kMaxConnections-th end.
//  2. The next request of a peer is read only when it has taken the answer before.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <nlohmann/json.hpp>

namespace Agent {

using Json = nlohmann::ordered_json;

class ControlSocket {
public:
    static constexpr std::size_t kRequestLimit_bytes = 65536;
    static constexpr std::size_t kMaxConnections = 32;

    /// Answers a request; what it throws becomes the "error" of the answer.
    using Handler = std::function<Json(const Json& request)>;

    /// Listens at `path`, in place of a socket that a dead agent left. Throws std::system_error
    /// with the path.
    ControlSocket(asio::io_context& io, std::string path, Handler handler);
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;
    ~ControlSocket();

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

/// The line that answers a line.
std::string answerTo(const ControlSocket::Handler& handler, const std::string& line);

}  // namespace Agent
