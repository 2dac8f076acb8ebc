#include "agent/AsioEventLoop.h"

#include <asio/post.hpp>

#include "platform/asic/Recorder.h"

namespace Agent {

void AsioEventLoop::post(std::function<void()> work) {
    if (Asic::recorder() == nullptr) {
        asio::post(io_, std::move(work));
        return;
    }
    asio::post(io_, [work = std::move(work)] {
        if (Asic::recorder() != nullptr)
            Asic::recorder()->turnBegins();
        work();
    });
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
