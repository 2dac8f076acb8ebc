#include "agent/AsioEventLoop.h"

#include <asio/post.hpp>

namespace Agent {

void AsioEventLoop::post(std::function<void()> work) {
    asio::post(io_, std::move(work));
}

void AsioEventLoop::run(const std::function<bool()>& mayBlock, const std::function<void()>& awake) {
    while (!stopped_) {
        if (io_.poll_one() != 0)
            continue;
        if (!mayBlock())
            continue;
        io_.run_one();
        awake();
    }
}

}  // namespace Agent
