// Committing a staged change: is it resolved, and into the entry log with it.
//
// Called by the group resolver: commitEntry() once a change, right after isResolverEntryResolved()
// has answered true for it.
#pragma once

#include <chrono>

#include "platform/asic/Recorder.h"
#include "platform/brumo/Assert.h"
#include "swtable/OrderedSwTableAccessor.h"

namespace VornPolicyCpu {

/// The most records that the change log holds while changes may still be committed to it.
inline constexpr std::size_t kFullChangeLog = kEntryLogConfigCapacity - 1;

template <class B>
template <class... L>
bool OrderedSwTableAccessor<B>::isResolverEntryResolved(Table& table, Resolver& resolverEntry,
                                                        const L&... linkages) {
    const WrapperPtr& wrapper = resolverEntry.entryWrapper();
    const bool isEntryDelete = resolverEntry.isEntryDeleted();
    if (table.entryLog()->entryLogConfigs() > kFullChangeLog) {
        Traces<B>::engine(1, "key: {}, isEntryDeleted: {} : no space in entryLog!", wrapper->key(),
                          isEntryDelete);
        resolverEntry.blockerIs({Asic::Blocker::Cause::logFull, nullptr});
        return false;
    }
    if (const DependencyPtr& dependency = resolverEntry.dependantEntryHandle();
        dependency != nullptr) {
        if (dependency->entryState() == Asic::EntryState::created) {
            Traces<B>::engine(3, "key: {} dependant entry not yet resolved", wrapper->key());
            resolverEntry.blockerIs({Asic::Blocker::Cause::dependency, dependency});
            return false;
        }
        Traces<B>::engine(3, "key: {} dependant entry is resolved", wrapper->key());
    }
    if (!isEntryDelete) {
        table.setRsrcPtrs(wrapper, true);
        if (!resAccessorCheckResolved(resolverEntry, linkages...))
            return false;
    }
    Traces<B>::engine(3, "key: {}, isEntryDeleted: {}, isTableDeleted: {}, resolved: true",
                      wrapper->key(), isEntryDelete, resolverEntry.isTableDeleted());
    return true;
}

/// Are all linkages past resolution? The first that is not becomes the blocker.
template <class B>
template <class... L>
bool OrderedSwTableAccessor<B>::resAccessorCheckResolved(Resolver& resolverEntry,
                                                         const L&... linkages) {
    const ConstWrapperPtr wrapper = resolverEntry.entryWrapper();
    if (wrapper == nullptr)
        return true;
    bool resolved = true;
    runOnAllResourceLinkages(
        [&](const auto& linkage) {
            if (!resolved || linkage.entryResolutionState(wrapper) != Asic::EntryState::created) {
                return;
            }
            Traces<B>::engine.in("resAccessorCheckResolved", 3,
                                 "SwTable key: {}, resourceKey: {} is still unresolved!",
                                 wrapper->key(), linkage.resourceKeyFromEntry(wrapper->entry()));
            resolverEntry.blockerIs({Asic::Blocker::Cause::resource, linkage.resourceOf(*wrapper)});
            resolved = false;
        },
        linkages...);
    return resolved;
}

/// Did all linkages resolve successfully? Stops asking at the first that did not.
template <class B>
template <class... L>
bool OrderedSwTableAccessor<B>::checkResolveSuccess(const ConstWrapperPtr& wrapper,
                                                    const L&... linkages) {
    bool succeeded = true;
    runOnAllResourceLinkages(
        [&](const auto& linkage) {
            if (!succeeded || linkage.entryResolutionState(wrapper) == Asic::EntryState::complete) {
                return;
            }
            Traces<B>::engine.in("checkResolveSuccess", 3,
                                 "SwTable key: {}, resourceKey: {} has failed resolution!",
                                 wrapper->key(), linkage.resourceKeyFromEntry(wrapper->entry()));
            succeeded = false;
        },
        linkages...);
    return succeeded;
}

template <class B>
template <class... L>
void OrderedSwTableAccessor<B>::commitEntry(Table& table,
                                            const Brumo::Ptr<Asic::ResolverEntry>& resolverEntry,
                                            const L&... linkages) {
    const Resolver& change = static_cast<const Resolver&>(*resolverEntry);
    const WrapperPtr& wrapper = change.entryWrapper();
    const bool isEntryDelete = change.isEntryDeleted();
    const bool isTableDelete = change.isTableDeleted();
    Traces<B>::engine(8, "Entry: {}, isEntryDeleted: {}, isTableDeleted: {}", wrapper->key(),
                      isEntryDelete, isTableDelete);
    Brumo::require(!(isEntryDelete && isTableDelete), "!( isEntryDelete && isTableDelete )");
    const HandlePtr entryHandle = wrapper->entryHandle();
    Brumo::require(entryHandle != nullptr, "entryHandle != NULL");
    if (!isTableDelete) {
        Brumo::require(entryHandle->entryVersion().valid(), "entryConfVersion.valid()");
    }

    if (change.dependantEntryHandle() != nullptr && change.dependantEntryHandle()->failed()) {
        failOnDependency(change, entryHandle);
    } else if (isTableDelete) {
        commitTableDelete(table, change, entryHandle, linkages...);
    } else if (isEntryDelete) {
        commitEntryDelete(table, change, entryHandle, linkages...);
    } else {
        commitWrite(table, change, entryHandle, linkages...);
    }

    updateGroupAndFamily(table);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    table.stats()->lastCommitTimeIs(std::chrono::duration<double>(now).count());
    table.stats()->commitCntInc(1);
}

/// Nothing is written and no hook is called; what is staged for the key stays staged.
template <class B>
void OrderedSwTableAccessor<B>::failOnDependency(const Resolver& change, const HandlePtr& handle) {
    if (change.isTableDeleted()) {
        Traces<B>::engine.in("commitEntry", 1, "Failed dependent entry for remove all");
        Traces<B>::engine.in("commitEntry", 1, "Failed to commit entry remove all operation");
    } else {
        Traces<B>::engine.in("commitEntry", 1, "Failed dependent entry for key: {}",
                             change.entryWrapper()->key());
        Traces<B>::engine.in("commitEntry", 1, "Failed to commit entry key: {}",
                             change.entryWrapper()->key());
    }
    answer(handle, Asic::EntryState::failed);
}

/// A remove-all's handle is not queued for the hardware side and its handler is not called: whoever
/// asked for it follows the table, not the handle.
template <class B>
template <class... L>
void OrderedSwTableAccessor<B>::commitTableDelete(Table& table, const Resolver& change,
                                                  HandlePtr handle, const L&... linkages) {
    const Asic::MajorVersion inFlight = table.transientRemoveAllVersion();
    Brumo::require(inFlight.valid(), "currRemoveAllVersion.valid()");
    Traces<B>::engine.in("commitEntry", 8, "Committing table delete for version: {}", inFlight);
    const NeededPtr needed = table.getNeededEntrySet(change.entryWrapper());
    if (change.dependantEntryHandle() != nullptr) {
        needed->add(change.dependantEntryHandle()->entryTableVersion());
    }
    delAllEntries(table, true, needed, handle, linkages...);
    table.transientRemoveAllVersionIs(inFlight.value == 0 ? Asic::MajorVersion{}
                                                          : Asic::MajorVersion{inFlight.value - 1});
}

template <class B>
template <class... L>
void OrderedSwTableAccessor<B>::commitEntryDelete(Table& table, const Resolver& change,
                                                  const HandlePtr& handle, const L&... linkages) {
    const WrapperPtr& wrapper = change.entryWrapper();
    const Key key = wrapper->key();
    const Entry committed = table.entryFromConfig(key);
    const NeededPtr needed = Brumo::make<Asic::NeededEntry>();
    if (change.dependantEntryHandle() != nullptr) {
        needed->add(change.dependantEntryHandle()->entryTableVersion());
    }
    clearTransient(table, key, handle->entryVersion(), true);
    wrapper->finalizeOnSuccess(Brumo::Ptr<const Table>(&table), true);
    const Asic::LogVersion version = table.entryLog()->entryDel(key, needed, table.unitId());
    handle->logVersionIs(version);
    if (version.value != 0) {
        queueInLog(table, handle);
    } else {
        answer(handle, Asic::EntryState::complete);
    }
    runOnAllResourceLinkages(
        [&](auto& linkage) { linkage.updateLocalUsage(wrapper, committed, true); }, linkages...);
}

template <class B>
template <class... L>
void OrderedSwTableAccessor<B>::commitWrite(Table& table, const Resolver& change,
                                            const HandlePtr& handle, const L&... linkages) {
    const WrapperPtr& wrapper = change.entryWrapper();
    if (!finalizeWrite(table, wrapper, handle, linkages...))
        return;
    const NeededPtr needed = table.getNeededEntrySet(wrapper);
    const Entry committed = table.entryFromConfig(wrapper->key());
    if (change.dependantEntryHandle() != nullptr) {
        needed->add(change.dependantEntryHandle()->entryTableVersion());
    }
    const Asic::LogVersion version = table.entryLog()->entryIs(
        wrapper->logEntry(), wrapper->rsrcKeys(), needed, table.unitId(), table.stats(), false);
    handle->logVersionIs(version);
    if (version > table.entryLog()->cleanedUpTo()) {
        queueInLog(table, handle);
    } else {
        answer(handle, Asic::EntryState::complete);
    }
    runOnAllResourceLinkages(
        [&](auto& linkage) { linkage.updateLocalUsage(wrapper, committed, false); }, linkages...);
}

/// Runs the hooks of a write and clears what was staged. False when the write has failed and was
/// answered: a resource failed and the hook does not want the entry all the same, or the
/// configuration has no room for its key. Room is asked for before any hook: one that was told of
/// success must not see the write fail.
template <class B>
template <class... L>
bool OrderedSwTableAccessor<B>::finalizeWrite(Table& table, const WrapperPtr& wrapper,
                                              const HandlePtr& handle, const L&... linkages) {
    const Brumo::Ptr<const Table> tablePtr(&table);
    const bool hasRoom = table.entryLog()->entryHasRoom(wrapper->key(), table.unitId());
    const bool resolved = checkResolveSuccess(wrapper, linkages...);
    if (!resolved)
        table.stats()->resolveFailCntInc(1);
    if (resolved && hasRoom) {
        wrapper->finalizeOnSuccess(tablePtr, false);
        clearTransient(table, wrapper->key(), handle->entryVersion(), false);
        return true;
    }
    const bool commitAllTheSame = wrapper->finalizeOnFailure(tablePtr, false) != 0;
    clearTransient(table, wrapper->key(), handle->entryVersion(), false);
    if (commitAllTheSame && hasRoom)
        return true;
    Traces<B>::engine.in("commitEntry", 1, "Failed to commit entry key: {}", wrapper->key());
    answer(handle, Asic::EntryState::failed);
    return false;
}

/// Drops what is staged for the key, unless a later change of the key is staged.
template <class B>
void OrderedSwTableAccessor<B>::clearTransient(Table& table, const Key& key,
                                               Asic::EntryVersion version, bool isRemove) {
    const WrapperPtr staged =
        isRemove ? table.transientRemoveEntry(key) : table.transientAddEntry(key);
    if (staged == nullptr || !staged->entryHandle()->entryVersion().isEq(version))
        return;
    if (isRemove) {
        table.transientRemoveEntryDel(key);
    } else {
        table.transientAddEntryDel(key);
    }
    table.transientVersionForKeyDel(key);
}

template <class B>
void OrderedSwTableAccessor<B>::queueInLog(Table& table, const HandlePtr& handle) {
    handle->committedAtIs(table.groupResolver()->turnTime());
    if (handle->stagedAt().count() != 0)
        table.stats()->stagedTimes().add(handle->committedAt() - handle->stagedAt());
    handle->entryStateIs(Asic::EntryState::written);
    table.entryHandleInLogEnq(handle);
}

/// Ends a change for its caller. The handler is copied: it may drop the handle.
template <class B>
void OrderedSwTableAccessor<B>::answer(const HandlePtr& handle, Asic::EntryState state) {
    handle->entryStateIs(state);
    const ResponseHandler handler = handle->responseHandler();
    if (!handler)
        return;
    Asic::Recorder* const recorder = Asic::recorder();
    if (recorder == nullptr) [[likely]] {
        handler(handle);
        return;
    }
    recorder->handlerIs(*handle, true);
    handler(handle);
    recorder->handlerIs(*handle, false);
}

}  // namespace VornPolicyCpu
