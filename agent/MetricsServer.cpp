#include "agent/MetricsServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cerrno>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

namespace Agent {

namespace {

constexpr unsigned kMostConnections = 16;
constexpr unsigned kConnectionTimeout_s = 10;

MHD_Result answerWith(MHD_Connection* connection, unsigned status, const std::string& body,
                      const char* type) {
    // The library takes what it only copies from as not constant.
    const std::unique_ptr<MHD_Response, void (*)(MHD_Response*)> response(
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                        MHD_RESPMEM_MUST_COPY),
        MHD_destroy_response);
    if (response == nullptr)
        return MHD_NO;
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, type);
    return MHD_queue_response(connection, status, response.get());
}

MHD_Result answer(void* text, MHD_Connection* connection, const char* url, const char* method,
                  const char* /*version*/, const char* /*upload*/, std::size_t* uploadSize,
                  void** begun) {
    if (*begun == nullptr) {
        *begun = connection;  // the headers are there, the body may follow
        return MHD_YES;
    }
    if (*uploadSize != 0) {
        *uploadSize = 0;  // nobody reads it; the answer waits for its end
        return MHD_YES;
    }
    if (std::string_view(method) != MHD_HTTP_METHOD_GET)
        return answerWith(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET\n", "text/plain");
    if (std::string_view(url) != "/metrics")
        return answerWith(connection, MHD_HTTP_NOT_FOUND, "only /metrics\n", "text/plain");
    const char* const accepted =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT);
    const bool isOpen =
        accepted != nullptr &&
        std::string_view(accepted).find("application/openmetrics-text") != std::string_view::npos;
    const MetricsFormat format = isOpen ? MetricsFormat::openMetrics : MetricsFormat::prometheus;
    try {
        return answerWith(connection, MHD_HTTP_OK,
                          (*static_cast<MetricsServer::Text*>(text))(format), contentType(format));
    } catch (const std::exception& error) {  // the caller is C
        return answerWith(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, error.what(), "text/plain");
    }
}

std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> started(std::uint16_t port,
                                                           MetricsServer::Text& text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    errno = 0;
    std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> daemon(
        MHD_start_daemon(MHD_USE_EPOLL, port, nullptr, nullptr, answer, &text, MHD_OPTION_SOCK_ADDR,
                         &address, MHD_OPTION_CONNECTION_LIMIT, kMostConnections,
                         MHD_OPTION_CONNECTION_TIMEOUT, kConnectionTimeout_s, MHD_OPTION_END),
        MHD_stop_daemon);
    if (daemon == nullptr) {
        throw std::system_error(errno == 0 ? EADDRINUSE : errno, std::generic_category(),
                                fmt::format("metrics at 127.0.0.1:{}", port));
    }
    return daemon;
}

/// The descriptor that tells when there is work; a copy, as both sides close theirs.
int eventsOf(MHD_Daemon* daemon) {
    const MHD_DaemonInfo* const info = MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_EPOLL_FD);
    const int copy = info == nullptr ? -1 : ::fcntl(info->epoll_fd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
        throw std::system_error(errno, std::generic_category(), "metrics: event descriptor");
    return copy;
}

}  // namespace

MetricsServer::MetricsServer(asio::io_context& io, std::uint16_t port, Text text)
    : text_(std::move(text)),
      daemon_(started(port, text_)),
      events_(io, eventsOf(daemon_.get())),
      timeout_(io) {
    wait();
}

MetricsServer::~MetricsServer() = default;

void MetricsServer::wait() {
    events_.async_wait(asio::posix::descriptor_base::wait_read, [this](const asio::error_code& e) {
        if (e)
            return;
        work();
        wait();
    });
}

void MetricsServer::work() {
    MHD_run(daemon_.get());
    waitForTimeout();
}

/// A connection that says nothing is ended when its time is over.
void MetricsServer::waitForTimeout() {
    MHD_UNSIGNED_LONG_LONG milliseconds = 0;
    if (MHD_get_timeout(daemon_.get(), &milliseconds) != MHD_YES)
        return;
    timeout_.expires_after(std::chrono::milliseconds(milliseconds + 1));
    timeout_.async_wait([this](const asio::error_code& e) {
        if (!e)
            work();
    });
}

}  // namespace Agent
