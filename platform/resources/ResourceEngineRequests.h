// Definitions of a resource table's workings: requests and their answers, and changes made to
// resources in use.
#pragma once

#include <algorithm>
#include <bit>
#include <utility>

#include "platform/asic/Recorder.h"
#include "platform/resources/ResourceEngine.h"

namespace Asic {

template <class Binding>
auto ResourceEngine<Binding>::request(const Key& key, const ClientData& data)
    -> Brumo::Ptr<const Handle> {
    trace_(8, "key: {}, clientData: {}", key, data);
    if (key.isEq(Key{}))
        return nullptr;
    Allocation* known = allocations_.find(key);
    if (known == nullptr)
        known = &newAllocation(key);
    const Brumo::Ptr<const Handle> handle =
        known->handle != nullptr ? Brumo::Ptr<const Handle>(known->handle) : newHandle(*known);
    dataIs(*known, data);
    return handle;
}

/// An allocation for a key that has none: with the index that is on its way back, if there is one.
template <class Binding>
auto ResourceEngine<Binding>::newAllocation(const Key& key) -> Allocation& {
    Allocation& made = allocations_.insertOrReplace(key, Allocation{}).value;
    made.key = key;
    made.featureId = Binding::featureId(key);
    if (const auto index = revivable(key))
        revive(made, *index);
    if (made.state == EntryState::created) {
        made.ticket = ++lastTicket_;
        pending_.emplace(made.ticket, key);
        schedule();
    }
    return made;
}

/// What is known from before a restart is answered at once, as if it had never been given back.
template <class Binding>
void ResourceEngine<Binding>::revive(Allocation& allocation, std::uint32_t index) {
    const Returning returning = returning_.at(index);
    leaveReturning(index);
    pool_.revive(index);
    allocation.index = index;
    allocation.data = returning.record.clientData;
    allocation.featureId = returning.record.featureId;
    allocation.version = returning.record.version;
    allocation.userTable = SwTableId(returning.record.userTable);
    allocation.fromBefore = returning.untilSwept;
    allocation.unclaimed = returning.untilSwept;
    if (returning.untilSwept) {
        allocation.state = EntryState::complete;
        allocation.updateVersion = 1;
    }
    store_->write(recordOf(allocation, index));
    trace_(3, "key: {}, index: {} is in use again", allocation.key, index);
}

template <class Binding>
auto ResourceEngine<Binding>::newHandle(Allocation& allocation) -> Brumo::Ptr<const Handle> {
    const Brumo::Ptr<Handle> handle = Brumo::make<Handle>(allocation.key);
    handle->goneIs(
        [this, key = allocation.key](const ResourceHandle<Key>& gone) { handleGone(&gone, key); });
    allocation.handle = handle.get();
    refresh(allocation);
    return handle;
}

/// From the request on: an entry may be committed before the answer, and takes the data over.
template <class Binding>
void ResourceEngine<Binding>::showData(Handle& handle, const ClientData& data) {
    if constexpr (requires { handle.clientDataIs(data); })
        handle.clientDataIs(data);
}

template <class Binding>
void ResourceEngine<Binding>::dataIs(Allocation& allocation, const ClientData& data) {
    if (allocation.data == data)
        return;
    allocation.data = data;
    if (allocation.handle != nullptr)
        showData(*allocation.handle, data);
    if (allocation.index)
        newVersion(allocation);
    if (allocation.state == EntryState::created)
        return;  // its answer is still to come
    trace_(3, "key: {}, new clientData: {}", allocation.key, data);
    changed(allocation);
}

/// Hands out the next version of the resource table for what the allocation is now.
template <class Binding>
void ResourceEngine<Binding>::newVersion(Allocation& allocation) {
    ++version_.value;
    store_->versionIs(version_);
    allocation.version = version_.value;
    store_->write(recordOf(allocation, *allocation.index));
    if (group_ != nullptr)
        group_->announce(tableId_, version_);
}

/// Lets the live handle show what the allocation is now.
template <class Binding>
void ResourceEngine<Binding>::refresh(Allocation& allocation) {
    if (allocation.handle == nullptr)
        return;
    Handle& handle = *allocation.handle;
    handle.entryStateIs(allocation.state);
    handle.updateVersionIs(allocation.updateVersion);
    showData(handle, allocation.data);
    if (allocation.state == EntryState::created || allocation.state == EntryState::exhausted) {
        return;
    }
    Binding::valuesIs(handle, *allocation.index, allocation.featureId, allocation.data);
    if (group_ != nullptr) {
        handle.neededVersionsIs({TableVersion{tableId_, LogVersion{allocation.version}}});
    }
}

template <class Binding>
void ResourceEngine<Binding>::changed(Allocation& allocation) {
    ++allocation.updateVersion;
    refresh(allocation);
    if (allocation.outgoing || allocation.handle == nullptr)
        return;
    allocation.outgoing = true;
    outbox_.push_back(allocation.key);
    schedule();
}

/// Answers a request that stands in no queue any more, and publishes the answer.
template <class Binding>
void ResourceEngine<Binding>::answer(Allocation& allocation) {
    const bool failedBefore = allocation.state == EntryState::exhausted;
    if (!allocation.index)
        allocation.index = pool_.take();
    if (allocation.index) {
        allocation.state = EntryState::complete;
        newVersion(allocation);
        trace_(3, "key: {}, index: {}, version: {}", allocation.key, *allocation.index,
               allocation.version);
    } else {
        allocation.state = EntryState::exhausted;
        exhausted_.emplace(allocation.ticket, allocation.key);
        trace_(1, "key: {}: no index is left", allocation.key);
    }
    Brumo::require(!failedBefore || allocation.index, "an index is free for what waits for one");
    ++allocation.updateVersion;
    refresh(allocation);
    if (allocation.handle == nullptr)
        return;
    publishState(allocation);
}

/// Tells the users of an allocation what it is now. REQUIRES: there is a handle.
template <class Binding>
void ResourceEngine<Binding>::publishState(const Allocation& allocation) {
    if (Recorder* const recorder = Asic::recorder(); recorder != nullptr) [[unlikely]] {
        recorder->resourceStateIs({tableId_, std::bit_cast<std::uint64_t>(allocation.key),
                                   allocation.state, allocation.updateVersion, allocation.index});
    }
    const Brumo::Ptr<const Handle> keep(allocation.handle);
    keep->publishState();
}

template <class Binding>
bool ResourceEngine<Binding>::move(const Key& key) {
    trace_(8, "key: {}", key);
    Allocation* moved = allocations_.find(key);
    if (moved == nullptr || !moved->index || moved->state == EntryState::created)
        return false;
    const auto index = pool_.take();
    if (!index) {
        trace_(1, "key: {} stays: no index is left", key);
        return false;
    }
    Returning before{.record = recordOf(*moved, *moved->index),
                     .replacedAt = moved->updateVersion + 1,
                     .unacknowledged = moved->users,
                     .untilSwept = moved->fromBefore};
    trace_(3, "key: {}, index: {} after {}", key, *index, before.record.index);
    moved->index = index;
    moved->state = EntryState::complete;
    moved->fromBefore = false;
    newVersion(*moved);  // first: killed in between, both records stand, and the newer one counts
    startReturn(std::move(before));
    changed(*moved);
    return true;
}

template <class Binding>
bool ResourceEngine<Binding>::stateIs(const Key& key, EntryState state) {
    trace_(8, "key: {}, state: {}", key, static_cast<int>(state));
    Allocation* found = allocations_.find(key);
    if (found == nullptr || !found->index || found->state == EntryState::created)
        return false;
    if (found->state == state)
        return true;
    found->state = state;
    trace_(state == EntryState::complete ? 3 : 1, "key: {}, index: {}, state: {}", key,
           *found->index, static_cast<int>(state));
    changed(*found);
    return true;
}

template <class Binding>
bool ResourceEngine<Binding>::work() const {
    return !outbox_.empty() || !farewells_.empty() || !pending_.empty() ||
           (!exhausted_.empty() && pool_.free() > 0);
}

template <class Binding>
void ResourceEngine<Binding>::schedule() {
    if (scheduled_)
        return;
    scheduled_ = true;
    loop_.post([anchor = anchor_, this] {
        if (*anchor == nullptr)
            return;
        const Brumo::Ptr<Kiv::Entity> keep(*anchor);
        if (recorder() != nullptr) [[unlikely]]
            recorder()->turnBegins();
        turn();
    });
}

/// Publishes what has changed, then answers requests; what comes up meanwhile waits for the next
/// turn. Observers may call back into everything.
template <class Binding>
void ResourceEngine<Binding>::turn() {
    /// Also when an observer's error ends the turn.
    struct Rescheduled {
        explicit Rescheduled(ResourceEngine& whose) : engine(whose) {}
        Rescheduled(const Rescheduled&) = delete;
        Rescheduled& operator=(const Rescheduled&) = delete;
        ~Rescheduled() {
            if (engine.work())
                engine.schedule();
        }
        ResourceEngine& engine;
    };
    scheduled_ = false;
    const Rescheduled guard(*this);
    for (std::size_t due = outbox_.size(); due > 0; --due) {
        const Key key = outbox_.front();
        outbox_.pop_front();
        Allocation* found = allocations_.find(key);
        if (found == nullptr || !std::exchange(found->outgoing, false))
            continue;
        if (found->handle == nullptr)
            continue;
        publishState(*found);
    }
    for (std::size_t due = farewells_.size(); due > 0; --due) {
        const Brumo::Ptr<const Handle> last = std::move(farewells_.front());
        farewells_.pop_front();
        last->publishState();
    }
    const std::uint64_t lastDue = lastTicket_;
    for (std::size_t budget = kAnswersPerTurn; budget > 0; --budget) {
        Queue& queue = !exhausted_.empty() && pool_.free() > 0 ? exhausted_ : pending_;
        if (queue.empty() || queue.begin()->first > lastDue)
            break;
        const Key key = queue.begin()->second;
        queue.erase(queue.begin());
        answer(*allocations_.find(key));
    }
}

}  // namespace Asic
