// A generation identifier in the state database: agents that watch it restart when it moves.
#pragma once

#include <cstdint>

#include "platform/kiv/Entity.h"

namespace Asic {

/// Event thread only.
class GenId final : public Kiv::Entity {
public:
    static constexpr Kiv::AttributeId kMajorId = 1;  ///< old value: std::uint64_t

    std::uint64_t majorId() const { return majorId_; }
    void majorIdInc(std::uint64_t by) {
        const std::uint64_t old = majorId_;
        majorId_ += by;
        publisher().publish(kMajorId, &old);
    }

private:
    std::uint64_t majorId_ = 0;
};

}  // namespace Asic
