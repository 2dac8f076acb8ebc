// The bound of the waiting, and the waiting of one look-up.
#include "platform/kivshimo/ReadPatience.h"

#include <atomic>
#include <thread>

namespace KivShimo {
namespace {

/// Tries that follow each other at once; then others get the processor in between.
constexpr unsigned kTriesAtOnce = 100;

std::atomic<std::chrono::milliseconds> boundOfPatience{kReadPatience};

}  // namespace

void readPatienceIs(std::chrono::milliseconds patience) {
    boundOfPatience = patience;
}

/// On a busy machine giving the processor away may take long: the time counts then, not the tries.
bool ReadPatience::lasts() {
    if (++tries_ <= kTriesAtOnce)
        return true;
    const auto now = std::chrono::steady_clock::now();
    if (!deadline_)
        deadline_ = now + boundOfPatience.load();
    if (now >= *deadline_)
        return false;
    std::this_thread::yield();
    return true;
}

}  // namespace KivShimo
