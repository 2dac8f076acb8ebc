// The part of an iteration's state that does not depend on the table: which layers are still to be
// walked. Event thread only.
#pragma once

#include <cstdint>

#include "platform/brumo/Ptr.h"

namespace Asic {

class SwTableIteratorStateBase : public Brumo::RefCounted {
public:
    enum Flag : std::uint8_t {
        kCurrentEntryValid = 1,
        kInAddCollection = 2,
        kInConfiguration = 4,
        kRemoveAllPending = 8,  ///< the committed configuration is to be skipped
        kBookmarkSet = 16,
    };

    bool has(Flag flag) const { return (flags_ & flag) != 0; }
    void set(Flag flag) { flags_ = static_cast<std::uint8_t>(flags_ | flag); }
    void clear(Flag flag) { flags_ = static_cast<std::uint8_t>(flags_ & ~flag); }
    std::uint8_t flags() const { return flags_; }

    bool inAddColl() const { return has(kInAddCollection); }
    bool inTblCfg() const { return has(kInConfiguration); }

private:
    std::uint8_t flags_ = 0;
};

}  // namespace Asic
