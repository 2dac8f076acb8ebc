// Whether more than one thread uses what is shared: reference counts and kept memory are plain
// then.
#pragma once

#include <atomic>

namespace Brumo {

/// Says whether more than one thread may touch reference counts. Set before a second thread starts.
class ThreadControl {
public:
    static bool multiThreaded() { return multiThreaded_.load(std::memory_order_relaxed); }
    static void multiThreadedIs(bool value) {
        multiThreaded_.store(value, std::memory_order_relaxed);
    }

private:
    static std::atomic<bool> multiThreaded_;
};

}  // namespace Brumo
