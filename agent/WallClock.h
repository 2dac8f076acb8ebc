// The time of day.
#pragma once

#include <chrono>

namespace Agent {

/// UTC.
inline double secondsSince1970() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

}  // namespace Agent
