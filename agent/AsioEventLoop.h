// The agent's event loop, on Asio: the only place where the platform's loop meets it.
//
// Event thread only; one thread runs it.
#pragma once

#include <functional>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include "platform/kiv/EventLoop.h"

namespace Agent {

class AsioEventLoop final : public Kiv::EventLoop {
public:
    void post(std::function<void()> work) override;

    asio::io_context& io() { return io_; }

    /// Runs until stop(). When nothing is ready it asks `mayBlock`; if that says yes it blocks
    /// until something is, and then calls `awake`.
    void run(const std::function<bool()>& mayBlock, const std::function<void()>& awake);
    void stop() { stopped_ = true; }

private:
    asio::io_context io_{1};
    asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
    bool stopped_ = false;
};

}  // namespace Agent
