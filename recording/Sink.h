// Where the events of a recorder go.
//
// Event thread only.
#pragma once

#include <chrono>

#include "recording/Codec.h"

namespace Recording {

class Sink {
public:
    virtual ~Sink() = default;
    /// `time`: of the turn of the event loop, by a clock of its own.
    virtual void eventIs(const Buffer& event, std::chrono::nanoseconds time) = 0;
};

}  // namespace Recording
