#include "agent/ControlSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>

#include <asio/buffer.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>

namespace Agent {

namespace {

using Local = asio::local::stream_protocol;

constexpr std::chrono::milliseconds kAcceptPause{100};

std::string lineOf(const Json& answer) {
    return answer.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string refusal(std::string_view why) {
    return lineOf({{"ok", false}, {"error", why}});
}

bool isTrusted(Local::socket& socket) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    const int fd = socket.native_handle();
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == ::geteuid() || peer.uid == 0);
}

}  // namespace

std::string answerTo(const ControlSocket::Handler& handler, const std::string& line) {
    const Json request = Json::parse(line, nullptr, false);
    if (!request.is_object())
        return refusal("expected a JSON object in one line");
    try {
        Json answer{{"ok", true}};
        answer.update(handler(request));
        return lineOf(answer);
    } catch (const std::exception& error) {
        return refusal(error.what());
    }
}

/// Lives as long as one of its operations is under way.
class ControlSocket::Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(Local::socket socket, std::weak_ptr<Handler> handler,
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
            [self = shared_from_this()](const asio::error_code& error, std::size_t length) {
                if (error == asio::error::not_found)
                    self->finish(refusal("the request is too long"));
                else if (!error)
                    self->answer(length);
            });
    }

    /// Sends a last answer.
    void finish(std::string answer) {
        answer_ = std::move(answer);
        asio::async_write(socket_, asio::buffer(answer_),
                          [self = shared_from_this()](const asio::error_code&, std::size_t) {});
    }

private:
    void answer(std::size_t length) {
        const auto handler = handler_.lock();
        if (handler == nullptr)  // the socket is gone
            return;
        answer_ = answerTo(*handler, received_.substr(0, length));
        received_.erase(0, length);
        asio::async_write(socket_, asio::buffer(answer_),
                          [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                              if (!error)
                                  self->read();
                          });
    }

    Local::socket socket_;
    std::weak_ptr<Handler> handler_;
    std::shared_ptr<std::size_t> count_;
    std::string received_;
    std::string answer_;
};

ControlSocket::ControlSocket(asio::io_context& io, std::string path, Handler handler)
    : acceptor_(io),
      pause_(io),
      path_(std::move(path)),
      handler_(std::make_shared<Handler>(std::move(handler))) {
    ::unlink(path_.c_str());
    acceptor_.open();
    asio::error_code error;
    acceptor_.bind(Local::endpoint(path_), error);
    // Nobody can connect before it listens, so the mode is in place in time.
    if (!error && ::chmod(path_.c_str(), 0660) != 0)
        error.assign(errno, asio::system_category());
    if (!error)
        acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error)
        throw std::system_error(error, path_);
    accept();
}

ControlSocket::~ControlSocket() {
    ::unlink(path_.c_str());
}

void ControlSocket::accept() {
    acceptor_.async_accept([this](const asio::error_code& error, Local::socket socket) {
        if (error == asio::error::operation_aborted)
            return;
        if (!error) {
            admit(std::move(socket));
            accept();
            return;
        }
        // No descriptor is left: whoever waits would wake us at once, so wait for a while.
        pause_.expires_after(kAcceptPause);
        pause_.async_wait([this](const asio::error_code& ended) {
            if (!ended)
                accept();
        });
    });
}

void ControlSocket::admit(Local::socket socket) {
    const bool trusted = isTrusted(socket);
    const bool full = *connections_ >= kMaxConnections;
    const auto connection = std::make_shared<Connection>(std::move(socket), handler_, connections_);
    if (!trusted)
        connection->finish(refusal("only the agent's own user and root may ask"));
    else if (full)
        connection->finish(refusal("too many connections"));
    else
        connection->read();
}

}  // namespace Agent
