#include "process/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <system_error>

#include <fmt/format.h>
#include <asio/buffer.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>

#include "platform/kivshimo/Doorbell.h"

namespace Process {

namespace {

using LocalStream = asio::local::stream_protocol;

constexpr std::chrono::milliseconds kAcceptPause{100};

/// A path that is too long for a socket makes Asio throw without naming it.
LocalStream::endpoint endpointAt(const std::string& path) {
    try {
        return LocalStream::endpoint(path);
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), path);
    }
}

bool isTrusted(LocalStream::socket& socket) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return false;
    }
    return mayAsk(peer.uid);
}

Json refusal(std::string_view reason) {
    return {{"ok", false}, {"error", reason}};
}

std::string lineOf(const Json& answer) {
    return answer.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

bool mayAsk(uid_t peer) {
    return peer == geteuid() || peer == 0;
}

std::string controlAnswer(const ControlServer::Handler& handler, const std::string& line) {
    const Json request = Json::parse(line, nullptr, false);
    if (request.is_discarded())
        return lineOf(refusal("the request is not JSON"));
    if (!request.is_object())
        return lineOf(refusal("the request is not a JSON object"));
    try {
        Json answer{{"ok", true}};
        answer.update(handler(request));
        return lineOf(answer);
    } catch (const std::exception& error) {
        return lineOf(refusal(error.what()));
    }
}

/// Lives as long as one of its operations is under way.
class ControlServer::Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(LocalStream::socket socket, std::weak_ptr<Handler> handler,
               std::shared_ptr<std::size_t> count)
        : socket_(std::move(socket)), handler_(std::move(handler)), count_(std::move(count)) {
        ++*count_;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { --*count_; }

    void read() {
        asio::async_read_until(
            socket_, asio::dynamic_buffer(received_, kRequestLimit_bytes), '\n',
            [self = shared_from_this()](const asio::error_code& error, std::size_t line_bytes) {
                if (error == asio::error::not_found) {
                    self->refuse(
                        fmt::format("the request is longer than {} bytes", kRequestLimit_bytes));
                } else if (!error) {
                    self->answer(line_bytes);
                }
            });
    }

    /// Sends a last answer.
    void refuse(std::string_view reason) {
        answer_ = lineOf(refusal(reason));
        write(false);
    }

private:
    void answer(std::size_t line_bytes) {
        const auto handler = handler_.lock();
        if (handler == nullptr)  // the server is gone
            return;
        answer_ = controlAnswer(*handler, received_.substr(0, line_bytes));
        received_.erase(0, line_bytes);
        write(true);
    }

    void write(bool goesOn) {
        asio::async_write(socket_, asio::buffer(answer_),
                          [self = shared_from_this(), goesOn](const asio::error_code& error,
                                                              std::size_t /*sent*/) {
                              if (!error && goesOn)
                                  self->read();
                          });
    }

    LocalStream::socket socket_;
    std::weak_ptr<Handler> handler_;
    std::shared_ptr<std::size_t> count_;
    std::string received_;
    std::string answer_;
};

ControlServer::ControlServer(asio::io_context& io, std::string path, Handler handler)
    : acceptor_(io),
      pause_(io),
      path_(std::move(path)),
      handler_(std::make_shared<Handler>(std::move(handler))) {
    const LocalStream::endpoint endpoint = endpointAt(path_);
    KivShimo::removeDeadSocket(path_);
    acceptor_.open();
    asio::error_code error;
    // Nobody may connect before the mode is set: connecting needs a listening socket.
    acceptor_.bind(endpoint, error);
    if (!error && ::chmod(path_.c_str(), 0660) != 0) {
        error.assign(errno, asio::system_category());
    }
    if (!error)
        acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error)
        throw std::system_error(error, path_);
    accept();
}

ControlServer::~ControlServer() {
    ::unlink(path_.c_str());
}

void ControlServer::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, LocalStream::socket socket) {
        if (error == asio::error::operation_aborted)
            return;
        if (error) {
            // Out of descriptors: what waits would wake us at once, so let some time go by.
            pause_.expires_after(kAcceptPause);
            pause_.async_wait([this](const asio::error_code& ended) {
                if (!ended)
                    accept();
            });
            return;
        }
        admit(std::move(socket));
        accept();
    });
}

void ControlServer::admit(LocalStream::socket socket) {
    const bool trusted = isTrusted(socket);
    const bool full = *connections_ >= kMaxConnections;
    const auto connection = std::make_shared<Connection>(std::move(socket), handler_, connections_);
    if (!trusted)
        connection->refuse("only the server's user and root may ask");
    else if (full)
        connection->refuse("too many connections");
    else
        connection->read();
}

ControlClient::ControlClient(const std::string& path) : path_(path) {
    asio::error_code error;
    socket_.connect(endpointAt(path), error);
    if (error)
        throw std::system_error(error, path);
}

Json ControlClient::request(const Json& request) {
    asio::error_code error;
    asio::write(socket_, asio::buffer(lineOf(request)), error);
    std::size_t line_bytes = 0;
    if (!error) {
        line_bytes = asio::read_until(socket_, asio::dynamic_buffer(received_), '\n', error);
    }
    if (error)
        throw std::runtime_error(path_ + ": " + error.message());
    Json answer = Json::parse(received_.substr(0, line_bytes), nullptr, false);
    received_.erase(0, line_bytes);
    if (!answer.is_object() || !answer.contains("ok")) {
        throw std::runtime_error(path_ + ": what answers there is no control socket");
    }
    return answer;
}

}  // namespace Process
