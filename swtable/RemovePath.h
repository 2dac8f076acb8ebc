// Staging a remove of one key or of all entries; like a write, it reaches the log at its commit.
#pragma once

#include "swtable/OrderedSwTableAccessor.h"

namespace VornPolicyCpu {

template <class B>
auto OrderedSwTableAccessor<B>::entryRemoveGeneric(Table& table, const Key& key,
                                                   const DependencyPtr& dependency,
                                                   const ResponseHandler& handler)
    -> ConstHandlePtr {
    Traces<B>::engine(8, " Key: {} ", key);
    const Asic::EntryVersion version = nextVersion(table, key);
    const HandlePtr handle = newHandle(table, version, key, handler);
    if (Asic::recorder() != nullptr) [[unlikely]]
        recordChange(table, Asic::Recorder::Operation::remove, *handle, {}, dependency);
    Entry removed;
    removed.key = key;
    const WrapperPtr wrapper = Brumo::make<Wrapper>(removed, handle);
    wrapper->isDeletedIs(true);
    table.transientAddEntryDel(key);
    table.transientRemoveEntryIs(wrapper);
    enqueue(table, dependency, Asic::EntryFlags::entryDelete, wrapper);
    Traces<B>::engine(2, " Done processing remove for key: {} ", key);
    table.stats()->entryRemoveCntInc(1);
    updateGroupAndFamily(table);
    return handle;
}

/// The dropped changes keep their place in the resolver's queue and are committed in their turn,
/// before the remove-all.
template <class B>
void OrderedSwTableAccessor<B>::entryRemoveAllGeneric(Table& table, const DependencyPtr& dependency,
                                                      const ResponseHandler& handler) {
    Traces<B>::engine(8, "");
    const HandlePtr handle = newHandle(table, Asic::EntryVersion{0, 0}, Key{}, handler);
    if (Asic::recorder() != nullptr) [[unlikely]]
        recordChange(table, Asic::Recorder::Operation::removeAll, *handle, {}, dependency);
    const WrapperPtr wrapper = Brumo::make<Wrapper>(Entry{}, handle);
    table.transientAddEntryDelAll();
    table.transientRemoveEntryDelAll();
    const Asic::MajorVersion inFlight = table.transientRemoveAllVersion();
    if (inFlight.valid()) {
        Traces<B>::engine(8, "Found valid table remove all version: {}", inFlight);
        table.transientRemoveAllVersionIs({inFlight.value + 1});
    } else {
        Traces<B>::engine(8, "No remove all operation currently enqueued");
        table.transientRemoveAllVersionIs({0});
    }
    enqueue(table, dependency, Asic::EntryFlags::tableDelete, wrapper);
    Traces<B>::engine(2, "Done processing remove all ");
    updateGroupAndFamily(table);
}

}  // namespace VornPolicyCpu
