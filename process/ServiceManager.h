// What a process tells the service manager that started it: when it serves, what it does, and that
// its event loop turns (sd_notify(3)).
//
// Event thread only. What always holds:
//  1. Without a service manager (NOTIFY_SOCKET) nothing is sent, and no timer wakes the process.
//  2. Keepalives are sent by the event loop itself, twice as often as the service manager wants
//     them (WATCHDOG_USEC), so that they stop when the loop is stuck.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace Process {

class ServiceManager {
public:
    /// One line about what the process does; asked whenever something is sent.
    using Status = std::function<std::string()>;

    /// As the environment says. The loop must not run any more when this goes.
    ServiceManager(asio::io_context& io, Status status);

    /// As soon as the loop runs, says that the process serves; keepalives begin then.
    void readyOnceRunning();
    /// The configuration is read again, until ready().
    void reloading();
    void ready();
    void statusChanged();
    /// The same, once what has begun now has settled: a second after the last call.
    void statusChanges();
    /// The process has been told to end.
    void stopping();

private:
    void tell(const std::string& what);
    void keepAlive();

    asio::io_context& io_;
    Status status_;
    bool isThere_;
    bool couldTell_ = true;  ///< what could not be told is said once, not each time
    std::chrono::microseconds interval_{0};
    std::optional<asio::steady_timer> keepAliveTimer_;
    std::optional<asio::steady_timer> statusTimer_;
};

}  // namespace Process
