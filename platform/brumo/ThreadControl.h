// Whether more than one thread runs. While it says no, reference counts are plain (Ptr.h) and freed
// blocks are kept (Recycled.h).
#pragma once

#include <atomic>

namespace Brumo {

/// Set before a second thread starts; set back only when there is one again.
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
