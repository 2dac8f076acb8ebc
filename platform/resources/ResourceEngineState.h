// Definitions of a resource table's workings: taking up the file, inspection, and what always
// holds.
#pragma once

#include <algorithm>
#include <utility>

#include "platform/brumo/Assert.h"
#include "platform/resources/ResourceEngine.h"

namespace Asic {

template <class Binding>
ResourceEngine<Binding>::ResourceEngine(Kiv::Entity* owner, SwTableId tableId,
                                        std::uint32_t poolSize, ResourceTableParts<Binding> parts,
                                        Kiv::EventLoop& loop)
    : tableId_(tableId),
      loop_(loop),
      anchor_(std::make_shared<Kiv::Entity*>(owner)),
      store_(std::move(parts.store)),
      group_(std::move(parts.group)),
      waits_(group_.get(), [this](std::uint32_t index) { maybeEndReturn(index); }),
      pool_(poolSize) {
    Brumo::require(poolSize <= Binding::kIndexLimit, "indexes fit in their field");
    restoreAll();
}

template <class Binding>
ResourceEngine<Binding>::~ResourceEngine() {
    *anchor_ = nullptr;
    allocations_.forEach([](const Key&, const Allocation& allocation) {
        if (allocation.handle != nullptr)
            allocation.handle->goneIs({});
    });
}

/// Takes up the records of the process before. A record that contradicts an earlier one, or makes
/// no sense, is dropped; of two allocations of a key, the newer one is a move that was cut short.
template <class Binding>
void ResourceEngine<Binding>::restoreAll() {
    std::vector<Record> records;
    store_->forEach([&](const Record& record) { records.push_back(record); });
    std::sort(records.begin(), records.end(),
              [](const Record& a, const Record& b) { return a.version > b.version; });
    version_ = store_->version();
    if (store_->versionInDoubt() && group_ != nullptr)
        version_ = std::max(version_, group_->handedOut(tableId_));
    for (const Record& record : records) {
        version_.value = std::max(version_.value, record.version);
        restoreRecord(record);
    }
    for (auto& [index, returning] : returning_) {
        returning.revivable = allocations_.find(returning.record.requestKey) == nullptr;
    }
    pool_.restored();
    store_->restoredVersionIs(version_);
    if (group_ != nullptr)
        group_->restored(tableId_, version_);
    trace_(2, "restored {} allocations, {} returns, version {}", allocations_.size(),
           returning_.size(), version_);
}

template <class Binding>
void ResourceEngine<Binding>::restoreRecord(const Record& record) {
    const bool known = record.state == ResourceRecordState::allocated ||
                       record.state == ResourceRecordState::returning;
    if (!known || record.index >= pool_.size() || record.requestKey.isEq(Key{}) ||
        pool_.place(record.index) != IndexPool::Place::free) {
        trace_(1, "corrupt allocation dropped: key: {}, index: {}", record.requestKey,
               record.index);
        store_->erase(record.index);
        return;
    }
    if (record.userTable != 0)
        userTables_.insert(SwTableId(record.userTable));
    if (record.state == ResourceRecordState::returning) {
        restoreReturning(record);
    } else if (allocations_.find(record.requestKey) == nullptr) {
        restoreAllocation(record);
    } else {
        trace_(3, "key: {}: a move from index {} was cut short", record.requestKey, record.index);
        Record replaced = record;
        replaced.state = ResourceRecordState::returning;
        store_->write(replaced);
        restoreReturning(replaced);
    }
}

template <class Binding>
void ResourceEngine<Binding>::restoreAllocation(const Record& record) {
    pool_.restore(record.index, IndexPool::Place::used);
    Allocation& restored = allocations_.insertOrReplace(record.requestKey, Allocation{}).value;
    restored.key = record.requestKey;
    restored.data = record.clientData;
    restored.index = record.index;
    restored.state = EntryState::complete;
    restored.featureId = record.featureId;
    restored.updateVersion = 1;
    restored.version = record.version;
    restored.userTable = SwTableId(record.userTable);
    restored.unclaimed = true;
    restored.fromBefore = true;
}

template <class Binding>
void ResourceEngine<Binding>::restoreReturning(const Record& record) {
    pool_.restore(record.index, IndexPool::Place::returning);
    enterReturning({.record = record, .untilSwept = true});
}

template <class Binding>
auto ResourceEngine<Binding>::recordOf(const Allocation& allocation, std::uint32_t index) const
    -> Record {
    Record record;
    record.version = allocation.version;
    record.requestKey = allocation.key;
    record.index = index;
    record.userTable = allocation.userTable.whole();
    record.featureId = allocation.featureId;
    record.clientData = allocation.data;
    return record;
}

template <class Binding>
ResourcePoolFigures ResourceEngine<Binding>::pool() const {
    return {pool_.size(), pool_.used(), pool_.returning()};
}

template <class Binding>
auto ResourceEngine<Binding>::keys() const -> std::vector<ResourceKeyInfo<Key>> {
    std::vector<ResourceKeyInfo<Key>> infos;
    infos.reserve(allocations_.size());
    allocations_.forEach([&](const Key& key, const Allocation& allocation) {
        infos.push_back({key, allocation.index.value_or(0), allocation.state,
                         static_cast<std::uint32_t>(allocation.users.size())});
    });
    return infos;
}

/// For walks that change the collection.
template <class Binding>
auto ResourceEngine<Binding>::allocationKeys() const -> std::vector<Key> {
    std::vector<Key> all;
    all.reserve(allocations_.size());
    allocations_.forEach([&](const Key& key, const Allocation&) { all.push_back(key); });
    return all;
}

template <class Binding>
void ResourceEngine<Binding>::assertConsistent() const {
    using Brumo::require;
    pool_.assertConsistent();
    waits_.assertConsistent();
    std::size_t indexes = 0;
    std::size_t unanswered = 0;
    std::size_t failed = 0;
    allocations_.forEach([&](const Key& key, const Allocation& allocation) {
        require(allocation.key.isEq(key), "an allocation stands under its key");
        assertAllocation(allocation);
        if (allocation.index)
            ++indexes;
        if (allocation.state == EntryState::created)
            ++unanswered;
        if (allocation.state == EntryState::exhausted)
            ++failed;
    });
    std::size_t listed = 0;
    returningOf_.forEach(
        [&](const Key&, const std::vector<std::uint32_t>& some) { listed += some.size(); });
    for (const auto& [index, returning] : returning_)
        assertReturning(index, returning);
    require(pool_.used() == indexes, "each used index belongs to one allocation");
    require(pool_.returning() == returning_.size(), "each returning index is known");
    require(listed == returning_.size(), "each returning index is listed once");
    require(store_->size() == indexes + returning_.size(), "the file holds what memory holds");
    require(store_->version() == version_, "the file holds the last version");
    require(pending_.size() == unanswered, "each unanswered request is queued once");
    require(exhausted_.size() == failed, "each failed request is queued once");
    require(scheduled_ || !work(), "a turn is scheduled when there is work");
}

template <class Binding>
void ResourceEngine<Binding>::assertAllocation(const Allocation& allocation) const {
    using Brumo::require;
    const EntryState state = allocation.state;
    const bool answered = state == EntryState::complete || state == EntryState::resourceFailed;
    require(answered || state == EntryState::created || state == EntryState::exhausted,
            "an allocation is in one of four states");
    require(!answered || allocation.index, "an allocated resource has an index");
    require(state != EntryState::exhausted || !allocation.index, "an exhausted request has none");
    require(allocation.handle != nullptr || !allocation.users.empty() || allocation.unclaimed,
            "an allocation without a handle has users or is unclaimed");
    require(allocation.handle != nullptr || allocation.index, "a request has a handle");
    require(!allocation.unclaimed || allocation.users.empty(), "what is used is claimed");
    if (state == EntryState::created) {
        require(pending_.contains(allocation.ticket), "an unanswered request is queued");
    }
    if (state == EntryState::exhausted) {
        require(exhausted_.contains(allocation.ticket), "a failed request is queued");
    }
    if (allocation.handle != nullptr)
        assertHandle(allocation);
    if (!allocation.index)
        return;
    require(pool_.place(*allocation.index) == IndexPool::Place::used, "its index is used");
    require(store_->find(*allocation.index) == recordOf(allocation, *allocation.index),
            "the file holds the allocation");
    require(allocation.version <= version_.value, "versions are handed out in order");
}

template <class Binding>
void ResourceEngine<Binding>::assertHandle(const Allocation& allocation) const {
    using Brumo::require;
    const Handle& handle = *allocation.handle;
    require(handle.key().isEq(allocation.key), "the handle is of the key");
    require(handle.entryState() == allocation.state, "the handle shows the state");
    require(handle.updateVersion() == allocation.updateVersion, "the handle shows the version");
    require(!handle.isPostReleaseProtoState(), "a live handle is not released");
    const bool answered =
        allocation.state == EntryState::complete || allocation.state == EntryState::resourceFailed;
    if (!answered)
        return;
    require(Binding::shows(handle, *allocation.index, allocation.featureId, allocation.data),
            "the handle shows the values");
    const std::size_t needed = group_ != nullptr ? 1 : 0;
    require(handle.neededVersions().size() == needed, "the handle needs the latest version only");
    if (needed == 0)
        return;
    require(handle.neededVersions()[0] == TableVersion{tableId_, LogVersion{allocation.version}},
            "the handle needs the version of its allocation");
}

template <class Binding>
void ResourceEngine<Binding>::assertReturning(std::uint32_t index,
                                              const Returning& returning) const {
    using Brumo::require;
    require(returning.record.index == index, "a returning index stands under itself");
    require(!ended(returning), "a returning index has something to wait for");
    require(pool_.place(index) == IndexPool::Place::returning, "a returning index returns");
    require(returning.record.state == ResourceRecordState::returning, "its record says so");
    require(store_->find(index) == returning.record, "the file holds the return");
    const std::vector<std::uint32_t>* listed = returningOf_.find(returning.record.requestKey);
    require(listed != nullptr && std::count(listed->begin(), listed->end(), index) == 1,
            "a returning index is listed under its key");
}

}  // namespace Asic
