// Staging a write: the new value becomes transient state, gets a version and a handle, asks for its
// resources, and is queued with the resolver. Nothing is written to the entry log here.
#pragma once

#include <bit>
#include <optional>
#include <span>

#include "platform/asic/Recorder.h"
#include "platform/brumo/Assert.h"
#include "swtable/OrderedSwTableAccessor.h"
#include "types/EntryImage.h"

namespace VornPolicyCpu {

template <class B>
template <class... L>
auto OrderedSwTableAccessor<B>::entryWriteGeneric(Table& table, const Key& key, const Entry& entry,
                                                  const DependencyPtr& dependency,
                                                  const ResponseHandler& handler,
                                                  const L&... linkages) -> ConstHandlePtr {
    Traces<B>::engine(8, "key: {}", key);
    table.transientPrefetch(key);
    if (table.entryLog() != nullptr)
        table.entryLog()->prefetch(key, table.unitId());
    // Whoever reads what was only just stored waits for it: the recorder does so later on.
    std::optional<EntryImage<typename B::Types>> image;
    if (Asic::recorder() != nullptr) [[unlikely]]
        image.emplace(entry);
    const Asic::EntryVersion version = nextVersion(table, key);
    const HandlePtr handle = newHandle(table, version, key, handler);
    if (image.has_value()) [[unlikely]]
        recordChange(table, Asic::Recorder::Operation::write, *handle, image->bytes(), dependency);
    const WrapperPtr wrapper = Brumo::make<Wrapper>(entry, handle);
    wrapper->keyIs(key);
    table.transientRemoveEntryDel(key);
    table.transientAddEntryIs(wrapper);
    runOnAllResourceLinkages([&](auto& linkage) { linkage.resolveEntry(wrapper); }, linkages...);
    enqueue(table, dependency, Asic::EntryFlags::write, wrapper);
    Traces<B>::engine(2, "Done processing write for key: {} ", key);
    table.stats()->entryWriteCntInc(1);
    updateGroupAndFamily(table);
    return handle;
}

/// The version of the key's next change: one after the latest, or the first.
template <class B>
Asic::EntryVersion OrderedSwTableAccessor<B>::nextVersion(Table& table, const Key& key,
                                                          const char* function) {
    const Asic::EntryVersion* current = table.transientVersionForKeyFind(key);
    Asic::EntryVersion next{0, 0};
    if (current != nullptr) {
        Brumo::require(current->valid(), "currEntryVersion.valid()");
        next = current->next();
    } else {
        Traces<B>::engine.in(function, 8, " Key: {} not found in entry version collection", key);
    }
    table.transientVersionForKeyIs(key, next);
    return next;
}

template <class B>
auto OrderedSwTableAccessor<B>::newHandle(Table& table, Asic::EntryVersion version, const Key& key,
                                          const ResponseHandler& handler) -> HandlePtr {
    const HandlePtr handle = entryHandleFactory<B>(version, key, &table);
    if (handler)
        handle->responseHandlerIs(handler);
    handle->entryStateIs(Asic::EntryState::created);
    return handle;
}

/// `image` is empty where nothing is written.
template <class B>
void OrderedSwTableAccessor<B>::recordChange(const Table& table,
                                             Asic::Recorder::Operation operation,
                                             const Handle& handle, std::span<const std::byte> image,
                                             const DependencyPtr& dependency) {
    Asic::recorder()->changeStaged({operation, table, handle,
                                    std::bit_cast<std::uint64_t>(handle.key()), image,
                                    dependency.get(), static_cast<bool>(handle.responseHandler())});
}

template <class B>
void OrderedSwTableAccessor<B>::enqueue(Table& table, const DependencyPtr& dependency,
                                        Asic::EntryFlags flags, const WrapperPtr& wrapper) {
    const HandlePtr& handle = wrapper->entryHandle();
    handle->isRemoveIs(flags != Asic::EntryFlags::write);
    handle->stagedAtIs(table.groupResolver()->turnTime());
    table.groupResolver()->resolverQueueEnq(
        Brumo::make<Resolver>(dependency, flags, &table, wrapper));
    table.groupResolver()->updateGenId();
}

template <class B>
void OrderedSwTableAccessor<B>::updateGroupAndFamily(Table& table) {
    table.groupResolver()->maybeUpdateSuspend();
    updateFamily(table);
}

/// A table that feature code still holds may be used when its family has gone.
template <class B>
void OrderedSwTableAccessor<B>::updateFamily(Table& table) {
    if (table.tableSet() != nullptr)
        table.tableSet()->maybeUpdatePendingHwWrites();
}

}  // namespace VornPolicyCpu
