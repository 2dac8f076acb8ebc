// What a resource table asks of the group of tables that uses it.
//
// Event thread only.
#pragma once

#include <functional>
#include <memory>

#include "platform/asic/GroupInterface.h"
#include "platform/asic/Versions.h"
#include "platform/kiv/Publisher.h"

namespace Asic {

class ResourceGroup {
public:
    virtual ~ResourceGroup() = default;

    /// Announces a change of the resource table to the hardware side.
    virtual void announce(SwTableId tableId, LogVersion version) = 0;
    /// Takes up a resource table whose last version before the restart was `version`.
    virtual void restored(SwTableId tableId, LogVersion version) = 0;
    virtual LogVersion acknowledged(SwTableId tableId) const = 0;
    /// The last version that the table has handed out, as far as the group can know.
    virtual LogVersion handedOut(SwTableId tableId) const = 0;
    /// `moved` is called when some table's acknowledged version has moved.
    [[nodiscard]] virtual Kiv::Subscription onAcknowledged(std::function<void()> moved) = 0;
};

/// Null for a null group.
std::unique_ptr<ResourceGroup> makeResourceGroup(const Brumo::Ptr<GroupInterface>& group);

}  // namespace Asic
