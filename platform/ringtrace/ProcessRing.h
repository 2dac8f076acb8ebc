// The process's own ring, into which libraries record what they do at start and end. Event thread
// only. Without a ring, recording does nothing.
#pragma once

#include <memory>
#include <string_view>

#include "platform/ringtrace/Ring.h"

namespace RingTrace {

/// Installs the process's ring, or takes it off with null.
void processRingIs(std::shared_ptr<Ring> ring);
const std::shared_ptr<Ring>& processRing();

/// Records a message of numbers; `format` has as many `{}` placeholders.
template <std::integral... Arguments>
void record(std::string_view format, Arguments... arguments) {
    if (const auto& ring = processRing(); ring != nullptr) {
        ring->record(ring->message(format), arguments...);
    }
}

}  // namespace RingTrace
