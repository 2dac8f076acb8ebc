#include "agent/AsioEventLoop.h"

#include <asio/post.hpp>

namespace Agent {

void AsioEventLoop::post(std::function<void()> work) {
    asio::post(io_, std::move(work));
}

void AsioEventLoop::run(const Hooks& hooks) {
    while (!stopped_) {
        turnBegins();
        if (io_.poll_one() != 0) {
            hooks.worked();
            continue;
        }
        if (!hooks.mayBlock())
            continue;
        turnBegins();
        io_.run_one();
        hooks.awake();
    }
}

}  // namespace Agent
