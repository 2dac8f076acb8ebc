// The workings of a resource table.
//
// Event thread only. Clients are called back only from turns of the event loop, never from within
// their own calls.
//
// What always holds, beyond what the resource table promises:
//  1. An allocation has an index, or stands in one of two queues: requests to be answered, and
//     requests that failed for want of an index. One whose index is known but whose request is not
//     answered has both an index and a place in the first.
//  2. An allocation without a live handle has users, or is unclaimed.
//  3. A returning index has something to wait for: clients that have not acknowledged its
//     replacement, the sweep, or the hardware.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/brumo/Trace.h"
#include "platform/kiv/Entity.h"
#include "platform/kiv/EventLoop.h"
#include "platform/kiv/HashMap2018.h"
#include "platform/resources/HardwareWaits.h"
#include "platform/resources/IndexPool.h"
#include "platform/resources/ResourceTable.h"

namespace Asic {

template <class Binding>
class ResourceEngine {
public:
    using Key = typename Binding::Key;
    using ClientData = typename Binding::ClientData;
    using Handle = typename Binding::Handle;
    using Record = ResourceRecord<Binding>;
    using Entry = Brumo::Ptr<const DependencyEntryHandle>;
    using ClientId = std::uint32_t;

    ResourceEngine(Kiv::Entity* owner, SwTableId tableId, std::uint32_t poolSize,
                   ResourceTableParts<Binding> parts, Kiv::EventLoop& loop);
    ~ResourceEngine();

    ClientId newClient() { return ++lastClient_; }
    void clientGone(ClientId client);
    Brumo::Ptr<const Handle> request(const Key& key, const ClientData& data);
    void ackUpdate(ClientId client, const Handle& handle, std::uint32_t updateVersion,
                   const Entry& entry);
    void release(ClientId client, const Handle& handle, const Entry& entry);

    bool move(const Key& key);
    bool stateIs(const Key& key, EntryState state);
    void sweepUnclaimed();

    std::size_t entries() const { return allocations_.size(); }
    ResourcePoolFigures pool() const;
    std::vector<ResourceKeyInfo<Key>> keys() const;
    void assertConsistent() const;

private:
    struct Allocation {
        Key key;
        ClientData data;
        Handle* handle = nullptr;            ///< null when nobody holds it
        std::optional<std::uint32_t> index;  ///< known before it is answered, when revived
        EntryState state = EntryState::created;
        std::uint8_t featureId = 0;
        std::uint32_t updateVersion = 0;
        std::uint64_t version = 0;
        SwTableId userTable{0};
        std::uint64_t ticket = 0;  ///< its place in a queue
        std::vector<ClientId> users;
        bool unclaimed = false;   ///< known from before a restart and not acknowledged since
        bool fromBefore = false;  ///< the hardware may use the index by word of what is forgotten
        bool outgoing = false;    ///< in outbox_
    };

    struct Returning {
        Record record;
        std::uint32_t replacedAt = 0;            ///< the update version that ended it
        std::vector<ClientId> unacknowledged{};  ///< clients that still use it instead
        bool untilSwept = false;
        bool revivable = false;  ///< given back, and not replaced: a new request may have it
    };

    using Queue = std::map<std::uint64_t, Key>;

    // What the file held, and what it is to hold.
    void restoreAll();
    void restoreRecord(const Record& record);
    void restoreAllocation(const Record& record);
    void restoreReturning(const Record& record);
    Record recordOf(const Allocation& allocation, std::uint32_t index) const;
    void newVersion(Allocation& allocation);

    // Requests.
    Allocation& newAllocation(const Key& key);
    void revive(Allocation& allocation, std::uint32_t index);
    std::optional<std::uint32_t> revivable(const Key& key) const;
    Brumo::Ptr<const Handle> newHandle(Allocation& allocation);
    static void showData(Handle& handle, const ClientData& data);
    void dataIs(Allocation& allocation, const ClientData& data);
    void answer(Allocation& allocation);
    void refresh(Allocation& allocation);
    void changed(Allocation& allocation);
    void publishState(const Allocation& allocation);

    // The end of uses.
    Allocation* allocationOf(const Handle& handle);
    void noteTable(Allocation& allocation, const Entry& entry);
    void endUses(ClientId client, const Key& key, std::uint32_t updateVersion, const Entry& entry,
                 const TableVersion& handedOut);
    void retire(Allocation& allocation);
    void handleGone(const ResourceHandle<Key>* handle, const Key& key);
    void giveBack(Allocation& allocation);
    void forget(Allocation& allocation);

    // The way of an index back to the pool.
    void startReturn(Returning&& returning);
    void enterReturning(Returning&& returning);
    void leaveReturning(std::uint32_t index);
    bool ended(const Returning& returning) const;
    void maybeEndReturn(std::uint32_t index);
    void freed(std::uint32_t index);

    // Turns of the event loop.
    void schedule();
    void turn();
    bool work() const;

    // Inspection.
    std::vector<Key> allocationKeys() const;
    void assertAllocation(const Allocation& allocation) const;
    void assertHandle(const Allocation& allocation) const;
    void assertReturning(std::uint32_t index, const Returning& returning) const;

    static constexpr std::size_t kAnswersPerTurn = 1024;

    const Brumo::TraceSource trace_{Binding::kClassName, Binding::kClassName};
    SwTableId tableId_;
    Kiv::EventLoop& loop_;
    std::shared_ptr<Kiv::Entity*> anchor_;  ///< null inside once the table is gone
    std::unique_ptr<ResourceStore<Record>> store_;
    std::unique_ptr<ResourceGroup> group_;
    HardwareWaits waits_;
    IndexPool pool_;
    LogVersion version_;
    Kiv::HashMap2018<Key, Allocation> allocations_;
    std::unordered_map<std::uint32_t, Returning> returning_;  ///< by index
    Kiv::HashMap2018<Key, std::vector<std::uint32_t>> returningOf_;
    Queue pending_;
    Queue exhausted_;
    std::uint64_t lastTicket_ = 0;
    std::deque<Key> outbox_;  ///< whose new state is to be published
    std::deque<Brumo::Ptr<const Handle>> farewells_;
    std::set<SwTableId> userTables_;
    ClientId lastClient_ = 0;
    bool scheduled_ = false;
};

}  // namespace Asic
