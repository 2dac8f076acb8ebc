#include "platform/resources/HardwareWaits.h"

#include <limits>

#include "platform/brumo/Assert.h"

namespace Asic {

namespace {

/// Stands after every version that the table ever hands out.
TableVersion lastOf(SwTableId tableId) {
    return {tableId, LogVersion{std::numeric_limits<std::uint64_t>::max()}};
}

}  // namespace

HardwareWaits::HardwareWaits(ResourceGroup* group, Over over)
    : group_(group), over_(std::move(over)) {
    if (group_ == nullptr)
        return;
    subscription_ = group_->onAcknowledged([this] { acknowledgementsMoved(); });
}

void HardwareWaits::waitFor(std::uint32_t index, const Brumo::Ptr<const Handle>& handle) {
    if (handle == nullptr || over(*handle))
        return;
    Watched& watched = watched_[handle.get()];
    if (watched.handle == nullptr) {
        watched.handle = handle;
        watched.subscription = handle->publisher().subscribe(
            [this, key = handle.get()](const Kiv::Change& /*change*/) { moved(key); });
        moved(handle.get());
    }
    // The same change often ends several uses of one index, one after the other.
    if (!watched.indexes.empty() && watched.indexes.back() == index)
        return;
    watched.indexes.push_back(index);
    ++counts_[index];
}

void HardwareWaits::waitFor(std::uint32_t index, const TableVersion& version) {
    if (group_ == nullptr || acknowledged(version))
        return;
    versions_[version].push_back(index);
    ++counts_[index];
}

bool HardwareWaits::over(const Handle& handle) const {
    return handle.entryState() == EntryState::complete || handle.failed() ||
           (group_ != nullptr && handle.entryTableVersion().version.value != 0 &&
            acknowledged(handle.entryTableVersion()));
}

bool HardwareWaits::acknowledged(const TableVersion& version) const {
    return group_->acknowledged(version.tableId) >= version.version;
}

/// The handle's state or version has changed.
void HardwareWaits::moved(const Handle* handle) {
    const auto found = watched_.find(handle);
    if (found == watched_.end())
        return;
    if (over(*handle)) {
        end(handle);
        return;
    }
    Watched& watched = found->second;
    const TableVersion version = handle->entryTableVersion();
    if (version == watched.filed)
        return;
    byVersion_.erase({watched.filed, handle});
    watched.filed = version;
    if (version.version.value != 0)
        byVersion_.insert({version, handle});
}

void HardwareWaits::acknowledgementsMoved() {
    // Both collections are ordered by table, then version: what is acknowledged of a table stands
    // before what is not. Ending a wait may change neither collection in another way.
    for (auto next = byVersion_.begin(); next != byVersion_.end();) {
        const auto [version, handle] = *next;
        if (acknowledged(version)) {
            end(handle);
            next = byVersion_.lower_bound({version, handle});
        } else {
            next = byVersion_.lower_bound({lastOf(version.tableId), nullptr});
        }
    }
    for (auto next = versions_.begin(); next != versions_.end();) {
        const TableVersion version = next->first;
        if (acknowledged(version)) {
            const std::vector<std::uint32_t> indexes = std::move(next->second);
            versions_.erase(next);
            countDown(indexes);
            next = versions_.lower_bound(version);
        } else {
            next = versions_.lower_bound(lastOf(version.tableId));
        }
    }
}

void HardwareWaits::end(const Handle* handle) {
    const auto found = watched_.find(handle);
    const Watched ended = std::move(found->second);
    watched_.erase(found);
    byVersion_.erase({ended.filed, handle});
    countDown(ended.indexes);
}

void HardwareWaits::countDown(const std::vector<std::uint32_t>& indexes) {
    for (const std::uint32_t index : indexes) {
        const auto count = counts_.find(index);
        if (--count->second > 0)
            continue;
        counts_.erase(count);
        over_(index);
    }
}

void HardwareWaits::assertConsistent() const {
    std::unordered_map<std::uint32_t, std::uint32_t> counted;
    std::size_t filed = 0;
    for (const auto& [handle, watched] : watched_) {
        Brumo::require(!over(*handle), "what is over is waited for no more");
        Brumo::require(!watched.indexes.empty(), "a handle is observed for some index");
        if (watched.filed.version.value != 0)
            ++filed;
        for (const std::uint32_t index : watched.indexes)
            ++counted[index];
    }
    Brumo::require(filed == byVersion_.size(), "handles with a version are filed once");
    for (const auto& [version, indexes] : versions_) {
        for (const std::uint32_t index : indexes)
            ++counted[index];
    }
    Brumo::require(counted == counts_, "every index is counted as often as it waits");
}

}  // namespace Asic
