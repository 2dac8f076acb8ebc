// Where the events of a recorder go.
//
// Event thread only.
#pragma once

#include <chrono>

#include "recording/Events.h"

namespace Recording {

class Sink {
public:
    virtual ~Sink() = default;
    /// `event`: as encode() makes it. `time`: of the turn of the event loop, by a clock of its own.
    virtual void eventIs(Bytes event, std::chrono::nanoseconds time) = 0;
};

}  // namespace Recording
