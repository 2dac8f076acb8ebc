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
    AsioEventLoop() { turnBegins(); }
    void post(std::function<void()> work) override;

    asio::io_context& io() { return io_; }

    /// What a loop tells its owner.
    struct Hooks {
        std::function<void()> worked;  ///< a piece of work is done, others may be ready
        std::function<bool()>
            mayBlock;                 ///< nothing is ready; when yes, it blocks until something is
        std::function<void()> awake;  ///< it blocked, and something was ready
    };

    /// Runs until stop().
    void run(const Hooks& hooks);
    void stop() { stopped_ = true; }

private:
    asio::io_context io_{1};
    asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
    bool stopped_ = false;
};

}  // namespace Agent
