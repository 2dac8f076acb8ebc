// Definitions of a resource table's workings: acknowledgements, and the way of an index back to the
// pool.
#pragma once

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/brumo/Assert.h"
#include "platform/resources/ResourceEngine.h"

namespace Asic {

/// Null, with a trace, when the handle is not the one under its key: it was released.
template <class Binding>
auto ResourceEngine<Binding>::allocationOf(const Handle& handle) -> Allocation* {
    Allocation* found = allocations_.find(handle.key());
    if (found != nullptr && found->handle == &handle)
        return found;
    trace_(1, "key: {}: the handle was released before", handle.key());
    return nullptr;
}

template <class Binding>
void ResourceEngine<Binding>::ackUpdate(ClientId client, const Handle& handle,
                                        std::uint32_t updateVersion, const Entry& entry) {
    trace_(8, "key: {}, updateVersion: {}, client: {}", handle.key(), updateVersion, client);
    Allocation* found = allocationOf(handle);
    if (found == nullptr)
        return;
    found->unclaimed = false;
    if (std::find(found->users.begin(), found->users.end(), client) == found->users.end()) {
        found->users.push_back(client);
    }
    noteTable(*found, entry);
    TableVersion handedOut;
    if (found->userTable.whole() != 0 && group_ != nullptr)
        handedOut = {found->userTable, group_->handedOut(found->userTable)};
    endUses(client, handle.key(), updateVersion, entry, handedOut);
}

template <class Binding>
void ResourceEngine<Binding>::release(ClientId client, const Handle& handle, const Entry& entry) {
    trace_(8, "key: {}, client: {}", handle.key(), client);
    Allocation* found = allocationOf(handle);
    if (found == nullptr)
        return;
    noteTable(*found, entry);
    endUses(client, handle.key(), std::numeric_limits<std::uint32_t>::max(), entry, {});
    if (found->index)
        waits_.waitFor(*found->index, entry);
    std::erase(found->users, client);
    if (!found->users.empty())
        return;
    retire(*found);
    if (found->index) {
        giveBack(*found);
    } else {
        forget(*found);
    }
}

/// Remembers whose changes bring the index to the hardware: after a restart, an index that was
/// given up waits for all that this table had handed out.
template <class Binding>
void ResourceEngine<Binding>::noteTable(Allocation& allocation, const Entry& entry) {
    if (entry == nullptr || entry->tableId() == allocation.userTable)
        return;
    allocation.userTable = entry->tableId();
    userTables_.insert(allocation.userTable);
    if (allocation.index)
        store_->write(recordOf(allocation, *allocation.index));
}

/// The client uses no index of the key that was replaced at or before `updateVersion`, once the
/// hardware has the entry's change, and with it all that the table has `handedOut` (version 0:
/// nothing). The latter is for updates: the entry is one user of many, and not always the one with
/// the highest version, as an update that another resource brought about may have given others
/// their new index later; and there is no entry when a clear of the table, which hardware may still
/// have to carry out, has left the resource in use.
template <class Binding>
void ResourceEngine<Binding>::endUses(ClientId client, const Key& key, std::uint32_t updateVersion,
                                      const Entry& entry, const TableVersion& handedOut) {
    const std::vector<std::uint32_t>* held = returningOf_.find(key);
    if (held == nullptr)
        return;
    const std::vector<std::uint32_t> indexes = *held;  // ending a return changes the list
    for (const std::uint32_t index : indexes) {
        Returning& returning = returning_.at(index);
        const bool ended = updateVersion >= returning.replacedAt &&
                           std::erase(returning.unacknowledged, client) > 0;
        if (ended || returning.untilSwept) {
            waits_.waitFor(index, entry);
            if (handedOut.version.value != 0)
                waits_.waitFor(index, handedOut);
        }
        maybeEndReturn(index);
    }
}

/// Detaches the handle for good. Whoever waits for its answer is told to ask anew.
template <class Binding>
void ResourceEngine<Binding>::retire(Allocation& allocation) {
    if (allocation.handle == nullptr)
        return;
    Handle& handle = *std::exchange(allocation.handle, nullptr);
    handle.goneIs({});
    handle.postReleaseProtoStateIs(true);
    if (allocation.state != EntryState::created)
        return;
    farewells_.push_back(Brumo::Ptr<const Handle>(&handle));
    schedule();
}

/// Nobody holds the handle any more.
template <class Binding>
void ResourceEngine<Binding>::handleGone(const ResourceHandle<Key>* handle, const Key& key) {
    Allocation* found = allocations_.find(key);
    Brumo::require(found != nullptr && found->handle == handle, "a live handle has an allocation");
    found->handle = nullptr;
    if (!found->index) {
        forget(*found);
    } else if (found->users.empty() && !found->unclaimed) {
        giveBack(*found);
    }
}

/// The index starts its way back; the allocation is no more.
template <class Binding>
void ResourceEngine<Binding>::giveBack(Allocation& allocation) {
    Returning returning{.record = recordOf(allocation, *allocation.index),
                        .untilSwept = allocation.fromBefore,
                        .revivable = true};
    forget(allocation);
    startReturn(std::move(returning));
}

template <class Binding>
void ResourceEngine<Binding>::forget(Allocation& allocation) {
    if (allocation.state == EntryState::created)
        pending_.erase(allocation.ticket);
    if (allocation.state == EntryState::exhausted)
        exhausted_.erase(allocation.ticket);
    const Key key = allocation.key;
    allocations_.erase(key);
}

template <class Binding>
void ResourceEngine<Binding>::startReturn(Returning&& returning) {
    const std::uint32_t index = returning.record.index;
    pool_.startReturn(index);
    if (ended(returning)) {
        freed(index);
        return;
    }
    trace_(3, "key: {}, index: {} returns", returning.record.requestKey, index);
    returning.record.state = ResourceRecordState::returning;
    store_->write(returning.record);
    enterReturning(std::move(returning));
}

template <class Binding>
void ResourceEngine<Binding>::enterReturning(Returning&& returning) {
    const Record& record = returning.record;
    if (std::vector<std::uint32_t>* others = returningOf_.find(record.requestKey)) {
        others->push_back(record.index);
    } else {
        returningOf_.insertOrReplace(record.requestKey, {record.index});
    }
    returning_.emplace(record.index, std::move(returning));
}

template <class Binding>
void ResourceEngine<Binding>::leaveReturning(std::uint32_t index) {
    const auto found = returning_.find(index);
    const Key key = found->second.record.requestKey;
    returning_.erase(found);
    std::vector<std::uint32_t>& others = *returningOf_.find(key);
    std::erase(others, index);
    if (others.empty())
        returningOf_.erase(key);
}

template <class Binding>
bool ResourceEngine<Binding>::ended(const Returning& returning) const {
    return returning.unacknowledged.empty() && !returning.untilSwept &&
           !waits_.waits(returning.record.index);
}

template <class Binding>
void ResourceEngine<Binding>::maybeEndReturn(std::uint32_t index) {
    const auto found = returning_.find(index);
    if (found == returning_.end() || !ended(found->second))
        return;
    leaveReturning(index);
    freed(index);
}

template <class Binding>
void ResourceEngine<Binding>::freed(std::uint32_t index) {
    trace_(3, "index: {} is free", index);
    store_->erase(index);
    pool_.giveBack(index);
    if (!exhausted_.empty())
        schedule();
}

/// The index that a new request for the key gets, if one of its own is on the way back.
template <class Binding>
std::optional<std::uint32_t> ResourceEngine<Binding>::revivable(const Key& key) const {
    const std::vector<std::uint32_t>* held = returningOf_.find(key);
    if (held == nullptr)
        return std::nullopt;
    const Returning* newest = nullptr;
    for (const std::uint32_t index : *held) {
        const Returning& candidate = returning_.at(index);
        if (!candidate.revivable)
            continue;
        if (newest == nullptr || newest->record.version < candidate.record.version) {
            newest = &candidate;
        }
    }
    if (newest == nullptr)
        return std::nullopt;
    return newest->record.index;
}

/// What a client that went without a word had in use may still be in the hardware.
template <class Binding>
void ResourceEngine<Binding>::clientGone(ClientId client) {
    for (const Key& key : allocationKeys()) {
        Allocation& allocation = *allocations_.find(key);
        if (std::erase(allocation.users, client) == 0)
            continue;
        if (!allocation.users.empty())
            continue;
        allocation.unclaimed = allocation.index.has_value();
        allocation.fromBefore = allocation.index.has_value();
    }
    for (auto& [index, returning] : returning_) {
        if (std::erase(returning.unacknowledged, client) > 0)
            returning.untilSwept = true;
    }
}

template <class Binding>
void ResourceEngine<Binding>::sweepUnclaimed() {
    std::vector<TableVersion> handedOut;
    for (const SwTableId table : userTables_) {
        if (group_ != nullptr)
            handedOut.push_back({table, group_->handedOut(table)});
    }
    const auto waitForAll = [&](std::uint32_t index) {
        for (const TableVersion& version : handedOut)
            waits_.waitFor(index, version);
    };
    std::size_t swept = 0;
    for (const Key& key : allocationKeys()) {
        Allocation& allocation = *allocations_.find(key);
        allocation.unclaimed = false;
        if (std::exchange(allocation.fromBefore, false))
            waitForAll(*allocation.index);
        if (allocation.handle != nullptr || !allocation.users.empty())
            continue;
        giveBack(allocation);
        ++swept;
    }
    std::vector<std::uint32_t> settled;
    for (auto& [index, returning] : returning_) {
        if (!std::exchange(returning.untilSwept, false))
            continue;
        waitForAll(index);
        settled.push_back(index);
    }
    for (const std::uint32_t index : settled)
        maybeEndReturn(index);
    trace_(2, "{} unclaimed given back, {} restored returns go on", swept, settled.size());
}

}  // namespace Asic
