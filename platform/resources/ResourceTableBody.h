// Definitions of resource tables and their clients; for the source files of the bindings.
#pragma once

#include <algorithm>
#include <bit>
#include <utility>

#include "platform/resources/ResourceClient.h"
#include "platform/resources/ResourceEngine.h"
#include "platform/resources/ResourceEngineRequests.h"
#include "platform/resources/ResourceEngineReturns.h"
#include "platform/resources/ResourceEngineState.h"
#include "platform/resources/ResourceFile.h"

namespace Asic {

template <class Binding>
ResourceTable<Binding>::ResourceTable(std::string name, SwTableId tableId, std::uint32_t poolSize,
                                      const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                                      const Brumo::Ptr<GroupInterface>& group, Kiv::EventLoop& loop)
    : name_(std::move(name)), tableId_(tableId) {
    auto store = std::make_unique<ResourceFileStore<Binding>>(entityManager, name_, poolSize);
    const auto size =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(poolSize, store->capacity()));
    engine_ = std::make_unique<ResourceEngine<Binding>>(
        this, tableId, size, Parts{std::move(store), makeResourceGroup(group)}, loop);
}

template <class Binding>
ResourceTable<Binding>::ResourceTable(std::string name, SwTableId tableId, std::uint32_t poolSize,
                                      Parts parts, Kiv::EventLoop& loop)
    : name_(std::move(name)),
      tableId_(tableId),
      engine_(std::make_unique<ResourceEngine<Binding>>(this, tableId, poolSize, std::move(parts),
                                                        loop)) {}

template <class Binding>
ResourceTable<Binding>::~ResourceTable() = default;

template <class Binding>
std::size_t ResourceTable<Binding>::entries() const {
    return engine_->entries();
}

template <class Binding>
ResourcePoolFigures ResourceTable<Binding>::pool() const {
    return engine_->pool();
}

template <class Binding>
auto ResourceTable<Binding>::keys() const -> std::vector<ResourceKeyInfo<Key>> {
    return engine_->keys();
}

template <class Binding>
void ResourceTable<Binding>::recorded(Recorder::ResourceOperation operation, const Key& key) const {
    if (recorder() != nullptr)
        recorder()->resourceOperation(tableId_, operation, std::bit_cast<std::uint64_t>(key));
}

template <class Binding>
bool ResourceTable<Binding>::move(const Key& key) {
    recorded(Recorder::ResourceOperation::move, key);
    return engine_->move(key);
}

template <class Binding>
bool ResourceTable<Binding>::fail(const Key& key) {
    recorded(Recorder::ResourceOperation::fail, key);
    return engine_->stateIs(key, EntryState::resourceFailed);
}

template <class Binding>
bool ResourceTable<Binding>::restore(const Key& key) {
    recorded(Recorder::ResourceOperation::restore, key);
    return engine_->stateIs(key, EntryState::complete);
}

template <class Binding>
void ResourceTable<Binding>::sweepUnclaimed() {
    recorded(Recorder::ResourceOperation::sweep, Key{});
    engine_->sweepUnclaimed();
}

template <class Binding>
void ResourceTable<Binding>::assertConsistent() const {
    engine_->assertConsistent();
}

template <class Binding>
ResourceClient<Binding>::ResourceClient(Brumo::Ptr<ResourceTable<Binding>> table)
    : table_(std::move(table)), id_(table_->engine_->newClient()) {}

template <class Binding>
ResourceClient<Binding>::~ResourceClient() {
    table_->engine_->clientGone(id_);
}

template <class Binding>
void ResourceClient<Binding>::ackUpdate(
    const Brumo::Ptr<const Handle>& handle, std::uint32_t updateVersion,
    const Brumo::Ptr<const DependencyEntryHandle>& entryHandle) {
    if (handle != nullptr)
        table_->engine_->ackUpdate(id_, *handle, updateVersion, entryHandle);
}

template <class Binding>
void ResourceClient<Binding>::release(const Brumo::Ptr<const Handle>& handle,
                                      const Brumo::Ptr<const DependencyEntryHandle>& entryHandle) {
    if (handle != nullptr)
        table_->engine_->release(id_, *handle, entryHandle);
}

template <class Binding>
auto ResourceClient<Binding>::requestOf(const Key& key, const ClientData& clientData)
    -> Brumo::Ptr<const Handle> {
    return table_->engine_->request(key, clientData);
}

}  // namespace Asic
