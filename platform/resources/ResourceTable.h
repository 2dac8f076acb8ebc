// A table of indexed hardware resources: hands indexes out by request key, persistently, and takes
// them back when no hardware uses them any more. One engine; a binding names keys, values and
// files.
//
// Event thread only. The linkages of the software tables use it through client instances, one a
// software table; the agent makes it before the tables and calls sweepUnclaimed() after them.
//
// What always holds:
//  1. An index is free, or allocated to one key, or returning; the file says the same.
//  2. A request is answered on a later turn. An allocation known from before a restart is the
//     exception: its request is answered at once, with the values that it had.
//  3. An index returns to the pool when nobody uses it by their own word (release, or ackUpdate
//     after a move) and the hardware has taken in the changes that ended its use: the one of the
//     handle passed along, if it does not fail, and for an update all that the table of the users
//     has handed out. Where there is nothing of that, it returns at once.
//  4. Freed indexes go to the requests that failed for want of one, oldest first.
//  5. Handles are referred to weakly: dropping one that was never acknowledged gives the index
//     back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/asic/GroupInterface.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/asic/Recorder.h"
#include "platform/kiv/EventLoop.h"
#include "platform/resources/ResourceGroup.h"
#include "platform/resources/ResourceHandle.h"
#include "platform/resources/ResourceRecord.h"

namespace Asic {

/// Figures of an index pool; what is neither used nor returning is free.
struct ResourcePoolFigures {
    std::uint32_t size = 0;
    std::uint32_t used = 0;
    std::uint32_t returning = 0;

    bool operator==(const ResourcePoolFigures&) const = default;
};

/// A request as inspection shows it.
template <class Key>
struct ResourceKeyInfo {
    Key key;
    std::uint32_t index = 0;  ///< of no meaning while the state is created or exhausted
    EntryState state = EntryState::created;
    std::uint32_t users = 0;  ///< clients that have acknowledged it and not released it
};

/// Client data of resources that need none.
struct NoClientData {
    std::array<std::uint8_t, 2> reserved{};

    bool operator==(const NoClientData&) const = default;
    std::string toText() const { return {}; }
};

template <class Binding>
class ResourceClient;
template <class Binding>
class ResourceEngine;

/// The surroundings of a resource table, for those who bring their own.
template <class Binding>
struct ResourceTableParts {
    std::unique_ptr<ResourceStore<ResourceRecord<Binding>>> store;
    std::unique_ptr<ResourceGroup> group;  ///< may be null
};

template <class Binding>
class ResourceTable : public ResourceTableBase {
public:
    using Key = typename Binding::Key;
    using ClientData = typename Binding::ClientData;
    using Handle = typename Binding::Handle;
    using Parts = ResourceTableParts<Binding>;

    /// `group` may be null: then there are no announcements and no needed versions, and only the
    /// state of a change handle tells when the hardware has taken a change in. `loop` outlives the
    /// table. Throws KivShimo::MountError.
    ResourceTable(std::string name, SwTableId tableId, std::uint32_t poolSize,
                  const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                  const Brumo::Ptr<GroupInterface>& group, Kiv::EventLoop& loop);
    ResourceTable(std::string name, SwTableId tableId, std::uint32_t poolSize, Parts parts,
                  Kiv::EventLoop& loop);
    ~ResourceTable() override;

    const std::string& name() const { return name_; }
    SwTableId tableId() const { return tableId_; }
    /// Allocations, restored ones included, and requests that wait.
    std::size_t entries() const override;
    ResourcePoolFigures pool() const;
    /// In the order of the keys' hashes.
    std::vector<ResourceKeyInfo<Key>> keys() const;

    /// Gives the key another index; its users learn it on a later turn. False, and nothing has
    /// changed, when the key has no answered index or no other is left. A failed resource is whole
    /// again.
    bool move(const Key& key);
    /// The resource is lost; it keeps its index. False when the key has no answered index. Not
    /// remembered over a restart.
    bool fail(const Key& key);
    /// Ends a failure. False when the key has no answered index.
    bool restore(const Key& key);

    /// Gives back what was allocated before the restart, and by client instances that are gone, and
    /// is not used or held since. Pending returns from before the restart end when all that the
    /// tables have handed out by now is acknowledged. REQUIRES: the tables that use this one are
    /// restored.
    void sweepUnclaimed();

    /// Ends the process unless what always holds does.
    void assertConsistent() const;

private:
    friend class ResourceClient<Binding>;

    void recorded(Recorder::ResourceOperation operation, const Key& key) const;

    std::string name_;
    SwTableId tableId_;
    std::unique_ptr<ResourceEngine<Binding>> engine_;
};

}  // namespace Asic
