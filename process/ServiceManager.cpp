#include "process/ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fmt/format.h>
#include <asio/post.hpp>

#include "platform/brumo/StandardError.h"

namespace Process {

namespace {

constexpr std::chrono::seconds kSettled{1};

/// Zero when no keepalives are wanted, or not of this process.
std::chrono::microseconds keepAliveInterval() {
    std::uint64_t limit_us = 0;
    if (::sd_watchdog_enabled(0, &limit_us) <= 0)
        return {};
    return std::chrono::microseconds(limit_us / 2);
}

std::chrono::microseconds monotonicNow() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
}

}  // namespace

ServiceManager::ServiceManager(asio::io_context& io, Status status)
    : io_(io), status_(std::move(status)), isThere_(std::getenv("NOTIFY_SOCKET") != nullptr) {
    if (isThere_)
        interval_ = keepAliveInterval();
}

void ServiceManager::readyOnceRunning() {
    if (!isThere_)
        return;
    asio::post(io_, [this] {
        ready();
        if (interval_.count() != 0)
            keepAlive();
    });
}

void ServiceManager::reloading() {
    tell(fmt::format("RELOADING=1\nMONOTONIC_USEC={}", monotonicNow().count()));
}

void ServiceManager::ready() {
    tell("READY=1");
}

void ServiceManager::statusChanged() {
    tell("");
}

void ServiceManager::statusChanges() {
    if (!isThere_)
        return;
    if (!statusTimer_)
        statusTimer_.emplace(io_);
    statusTimer_->expires_after(kSettled);
    statusTimer_->async_wait([this](const asio::error_code& error) {
        if (!error)
            statusChanged();
    });
}

void ServiceManager::stopping() {
    tell("STOPPING=1");
}

void ServiceManager::tell(const std::string& what) {
    if (!isThere_)
        return;
    const std::string status = "STATUS=" + status_();
    const int result = ::sd_notify(0, (what.empty() ? status : what + "\n" + status).c_str());
    if (result < 0 && couldTell_) {
        Brumo::writeToStandardError(
            Brumo::Priority::warning,
            fmt::format("the service manager cannot be told anything at {}: {}",
                        std::getenv("NOTIFY_SOCKET"), std::strerror(-result)));
    }
    couldTell_ = result >= 0;
}

void ServiceManager::keepAlive() {
    tell("WATCHDOG=1");
    if (!keepAliveTimer_)
        keepAliveTimer_.emplace(io_);
    keepAliveTimer_->expires_after(interval_);
    keepAliveTimer_->async_wait([this](const asio::error_code& error) {
        if (!error)
            keepAlive();
    });
}

}  // namespace Process
