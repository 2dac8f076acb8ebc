// Recordings: the events that an agent told of itself, walked.
//
// Needs the interpreter's lock; gives it up while it reads a file.
#pragma once

#include <chrono>
#include <cstdint>

#include "recording/File.h"
#include "tools/python/Bind.h"

namespace Python {

/// Which process of a recording, and when it began.
struct RecordedRun {
    std::uint64_t number = 0;    ///< from 1; 0 before the first start
    std::uint64_t start_ns = 0;  ///< since 1970; 0: not recorded

    void look(const Recording::Event& event) {
        if (const auto* const start = std::get_if<Recording::Start>(&event)) {
            ++number;
            start_ns = start->time_ns;
        }
    }
    /// So long after its start, as a datetime of UTC; None where its start is not known.
    py::object wallTime(std::chrono::nanoseconds time) const;
};

/// As a float.
py::object secondsOf(std::chrono::nanoseconds time);

}  // namespace Python
