#include "platform/ringtrace/ProcessRing.h"

#include <utility>

namespace RingTrace {

namespace {

std::shared_ptr<Ring>& current() {
    static std::shared_ptr<Ring> ring;
    return ring;
}

}  // namespace

void processRingIs(std::shared_ptr<Ring> ring) {
    current() = std::move(ring);
}

const std::shared_ptr<Ring>& processRing() {
    return current();
}

}  // namespace RingTrace
