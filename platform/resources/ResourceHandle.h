// What a resource table hands out for a request: the state of one resource, as its users see it.
//
// Event thread only. The table owns the right to change a handle; clients hold Ptr<const>.
//
// What always holds:
//  1. A change of state, of the index or of the client data raises updateVersion() and publishes
//     kState, on a later turn of the event loop than the call that caused it.
//  2. A handle that was released by its last user never comes back to life by a new request: that
//     gets a handle of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "platform/asic/SwTable.h"
#include "platform/kiv/Entity.h"

namespace Asic {

/// The attribute that every resource handle publishes on a new state; no old value.
inline constexpr Kiv::AttributeId kResourceHandleState = 517;

template <class RequestKey>
class ResourceHandle : public Kiv::Entity {
public:
    using Key = RequestKey;
    using Gone = std::function<void(const ResourceHandle&)>;

    static constexpr Kiv::AttributeId kState = kResourceHandleState;

    explicit ResourceHandle(const Key& key) : key_(key) {}

    const Key& key() const { return key_; }
    /// created: pending; exhausted: none was left; complete: allocated; resourceFailed: lost.
    EntryState entryState() const { return entryState_; }
    /// Raised with every change; what ackUpdate() acknowledges.
    std::uint32_t updateVersion() const { return updateVersion_; }
    /// True from the last release on: whatever the handle still publishes is of no concern.
    bool isPostReleaseProtoState() const { return postRelease_; }
    /// What the hardware must hold before a change that uses this resource.
    const std::vector<TableVersion>& neededVersions() const { return neededVersions_; }
    std::string toText() const {
        return fmt::format("{} state {} version {}", key_.toText(), static_cast<int>(entryState_),
                           updateVersion_);
    }

    // The table's side, and that of tests.
    void entryStateIs(EntryState state) { entryState_ = state; }
    void updateVersionIs(std::uint32_t version) { updateVersion_ = version; }
    void postReleaseProtoStateIs(bool released) { postRelease_ = released; }
    void neededVersionsIs(std::vector<TableVersion> versions) {
        neededVersions_ = std::move(versions);
    }
    /// Called when nobody holds the handle any more, right before it ends; may be empty.
    void goneIs(Gone gone) { gone_ = std::move(gone); }
    void publishState() const { publisher().publish(kState); }

protected:
    void lastUserGone() const override {
        if (const Gone gone = gone_)
            gone(*this);
        Kiv::Entity::lastUserGone();
    }

private:
    Key key_;
    EntryState entryState_ = EntryState::created;
    bool postRelease_ = false;
    std::uint32_t updateVersion_ = 0;
    std::vector<TableVersion> neededVersions_;
    Gone gone_;
};

}  // namespace Asic
