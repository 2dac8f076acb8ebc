// The metrics over HTTP on loopback, for a monitoring system to fetch: GET /metrics.
//
// Event thread only: the HTTP library has no thread of its own, its descriptors are part of the
// agent's event loop. The format is the one that the request accepts, else that of Prometheus.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include "agent/Metrics.h"

struct MHD_Daemon;

namespace Agent {

class MetricsServer {
public:
    using Text = std::function<std::string(MetricsFormat format)>;

    /// Listens on 127.0.0.1. Throws std::system_error with the address.
    MetricsServer(asio::io_context& io, std::uint16_t port, Text text);
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;
    ~MetricsServer();

private:
    void wait();
    void work();
    void waitForTimeout();

    Text text_;
    std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> daemon_;
    asio::posix::stream_descriptor events_;
    asio::steady_timer timeout_;
};

}  // namespace Agent
