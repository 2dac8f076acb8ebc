// Work on entries that are committed already: rebuilding the linkages' view after a restart,
// re-evaluating an entry whose resource has changed, and deleting all entries.
#pragma once

#include "swtable/OrderedSwTableAccessor.h"

namespace VornPolicyCpu {

template <class B>
template <class... L>
void OrderedSwTableAccessor<B>::setRsrcPtrs(const WrapperPtr& wrapper, bool refresh,
                                            const L&... linkages) {
    Traces<B>::engine(8, "key: {}, refresh: {}", wrapper->key(), refresh);
    runOnAllResourceLinkages(
        [&](auto& linkage) {
            if (refresh) {
                linkage.resolveEntry(wrapper);
            } else {
                linkage.setResourceHandle(wrapper);
            }
        },
        linkages...);
}

template <class B>
auto OrderedSwTableAccessor<B>::entryWrapperFromConfig(Table& table, Stored& stored,
                                                       bool refreshRsrcPtrs, HandlePtr& handle)
    -> WrapperPtr {
    Traces<B>::engine(8, "key: {}, refreshRsrcPtrs: {}", stored.key(), refreshRsrcPtrs);
    const Entry committed = entryFromConfig(stored);
    if (handle == nullptr) {
        handle = entryHandleFactory<B>(Asic::EntryVersion{stored.entryLogVersion().value, 0},
                                       stored.key(), &table);
    }
    const WrapperPtr wrapper = Brumo::make<Wrapper>(committed, handle);
    table.setRsrcPtrs(wrapper, refreshRsrcPtrs);
    wrapper->retrieveClientData();
    return wrapper;
}

/// Traced as the table's operation of that name.
template <class B>
auto OrderedSwTableAccessor<B>::entryFromConfig(Stored& stored) -> Entry {
    Traces<B>::swTable(8, " key: {}", stored.key());
    Traces<B>::engine(8, "key: {}", stored.key());
    const auto* value = stored.live();
    return value == nullptr ? Entry{} : Entry::from(value->logEntry, value->rsrcKeys);
}

template <class B>
template <class... L>
auto OrderedSwTableAccessor<B>::getNeededEntrySet(const ConstWrapperPtr& wrapper,
                                                  const L&... linkages) -> NeededPtr {
    const NeededPtr needed = Brumo::make<Asic::NeededEntry>();
    runOnAllResourceLinkages([&](const auto& linkage) { linkage.addNeeded(wrapper, *needed); },
                             linkages...);
    return needed;
}

/// Visits the committed entries that are not in deletion. `visit` may change the table.
/// A value that cannot be read is reported and passed over; what `visit` throws passes through.
template <class B>
template <class Visit>
void OrderedSwTableAccessor<B>::forEachCommitted(Table& table, Visit&& visit) {
    const auto config = table.entryLog()->tableConfigShimo(table.unitId());
    if (config == nullptr)
        return;
    config->swTableEntriesForEachWhole([&](const auto& value) {
        if (value.inDeletion)
            return;
        Stored stored(*table.entryLog(), value, table.unitId());
        visit(stored);
    });
}

template <class B>
template <class... L>
void OrderedSwTableAccessor<B>::restoreEntries(Table& table, const L&... linkages) {
    if constexpr (sizeof...(L) > 0) {
        Traces<B>::engine(8, "");
        if (table.entryLog() == nullptr)
            return;
        forEachCommitted(table, [&](Stored& stored) {
            HandlePtr handle;
            const WrapperPtr wrapper = entryWrapperFromConfig(table, stored, true, handle);
            runOnAllResourceLinkages([&](auto& linkage) { linkage.restoreEntry(wrapper); },
                                     linkages...);
        });
        runOnAllResourceLinkages([](auto& linkage) { linkage.handleResourceChangeAtInit(); },
                                 linkages...);
    }
}

template <class B>
template <class... L>
auto OrderedSwTableAccessor<B>::updateEntry(Table& table, const Key& key, const L&... linkages)
    -> ConstHandlePtr {
    EntryLog<B>& log = *table.entryLog();
    Stored stored(log, key, table.unitId());
    if (!stored.entryHas()) {
        Traces<B>::engine(3, " key: {} entry does not exist ", key);
        return nullptr;
    }
    HandlePtr handle;
    const WrapperPtr wrapper = entryWrapperFromConfig(table, stored, false, handle);
    wrapper->setResolvedFields();
    const bool failed = !checkResolveSuccess(wrapper, linkages...);
    const Brumo::Ptr<SwTableHelperBase<B>> helper = table.swTableHelper();
    const bool commitToLog =
        helper->finalizeOnResourceUpdate(wrapper, Brumo::Ptr<const Table>(&table), failed);
    if (failed) {
        Traces<B>::engine(3, " key: {}, some resource had failed", key);
        table.stats()->updateWithFailedResourceCntInc(1);
    }
    const auto logEntry = wrapper->logEntry();
    const bool differs = !stored.entryIsEq(logEntry);
    if (differs && commitToLog) {
        const NeededPtr needed = table.getNeededEntrySet(wrapper);
        const Asic::LogVersion version = log.entryIs(logEntry, wrapper->rsrcKeys(), needed,
                                                     table.unitId(), table.stats(), false);
        handle->logVersionIs(version);
        handle->entryStateIs(Asic::EntryState::written);
        table.stats()->updateCntInc(1);
        Traces<B>::engine(3, " key: {}, neededEntry: {}, entryLogVersion: {} ", key, needed,
                          version);
    } else {
        handle->logVersionIs(stored.entryLogVersion());
        handle->entryStateIs(Asic::EntryState::written);
        Traces<B>::engine(3,
                          " key: {}, commitToLog: {}, no change in logEntry or don't commit to log",
                          key, commitToLog);
    }
    return handle;
}

template <class B>
template <class... L>
void OrderedSwTableAccessor<B>::delAllEntries(Table& table, bool releaseResources,
                                              const Brumo::Ptr<const Asic::NeededEntry>& needed,
                                              HandlePtr& handle, const L&... linkages) {
    Traces<B>::engine(8, " releaseResources: {}, neededEntry:{} ", releaseResources, needed);
    const auto config = table.entryLog()->tableConfigShimo(table.unitId());
    if (config == nullptr || config->swTableEntriesCount() == 0)
        return;
    if (releaseResources) {
        forEachCommitted(table, [&](Stored& stored) {
            const WrapperPtr wrapper = entryWrapperFromConfig(table, stored, false, handle);
            runOnAllResourceLinkages(
                [&](auto& linkage) { linkage.updateLocalUsage(wrapper, wrapper->entry(), true); },
                linkages...);
        });
    }
    const Asic::LogVersion version = table.entryLog()->tableDel(needed, table.unitId());
    if (handle != nullptr) {
        handle->logVersionIs(version);
        handle->entryStateIs(Asic::EntryState::written);
    }
    table.stats()->tableClearCntInc(1);
}

}  // namespace VornPolicyCpu
