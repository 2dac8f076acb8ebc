// The event loop as the platform sees it: work is handed to a later turn of the one event thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>

namespace Kiv {

class EventLoop {
public:
    virtual ~EventLoop() = default;
    /// Runs `work` on a later turn, in the order posted. Event thread only.
    virtual void post(std::function<void()> work) = 0;

    /// The time of the turn under way, by a clock that never goes back: that of the first call in
    /// the turn. What is done in one turn is done at one time, so that a change costs no clock.
    std::chrono::nanoseconds turnTime() const {
        if (turnTime_ == kNotRead)
            turnTime_ = std::chrono::steady_clock::now().time_since_epoch();
        return turnTime_;
    }

protected:
    void turnBegins() { turnTime_ = kNotRead; }
    void turnTimeIs(std::chrono::nanoseconds time) { turnTime_ = time; }

private:
    static constexpr std::chrono::nanoseconds kNotRead{-1};
    mutable std::chrono::nanoseconds turnTime_{0};
};

/// A loop that turns when told to: for simulations and tests.
class ManualEventLoop final : public EventLoop {
public:
    void post(std::function<void()> work) override { queue_.push_back(std::move(work)); }
    /// Time stands still but for this.
    using EventLoop::turnTimeIs;

    bool idle() const { return queue_.empty(); }
    /// Drops what is posted, as the end of a process does.
    void clear() { queue_.clear(); }

    /// Runs what was posted before the call; returns how many pieces of work that were.
    std::size_t turn() {
        const std::size_t due = queue_.size();
        for (std::size_t i = 0; i < due; ++i)
            turnOnce();
        return due;
    }

    /// Runs the oldest piece of work. REQUIRES: not idle().
    void turnOnce() {
        const std::function<void()> work = std::move(queue_.front());
        queue_.pop_front();
        work();
    }

    /// Turns until nothing is left, at most `limit` turns; false when work was left then.
    bool runUntilIdle(std::size_t limit = 1000000) {
        while (!idle() && limit-- > 0)
            turn();
        return idle();
    }

private:
    std::deque<std::function<void()>> queue_;
};

}  // namespace Kiv
