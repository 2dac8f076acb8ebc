// The generic engine of ordered software tables: what the operations of every table do.
//
// Event thread only. Stateless; works on a table's members. Each operation takes the table's
// linkages as its trailing arguments and visits them in that order; a table without linkages passes
// none, and the loops over them compile to nothing.
//
// The bodies stand by subject: WritePath.h, CommitPath.h, RemovePath.h, ReadPath.h, RestorePath.h.
#pragma once

#include <span>

#include "entrylog/StoredValue.h"
#include "platform/asic/Recorder.h"
#include "swtable/EntryWrapper.h"
#include "swtable/SwTable.h"

namespace VornPolicyCpu {

template <class B>
struct OrderedSwTableAccessor {
    using Table = typename B::SwTable;
    using Key = typename B::Key;
    using Entry = typename B::Entry;
    using Wrapper = typename B::EntryWrapper;
    using WrapperPtr = Brumo::Ptr<Wrapper>;
    using ConstWrapperPtr = Brumo::Ptr<const Wrapper>;
    using Handle = typename SwTable<B>::EntryHandle;
    using HandlePtr = Brumo::Ptr<Handle>;
    using ConstHandlePtr = Brumo::Ptr<const Handle>;
    using DependencyPtr = Brumo::Ptr<const Asic::DependencyEntryHandle>;
    using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
    using Resolver = ResolverEntry<B>;
    using NeededPtr = Brumo::Ptr<Asic::NeededEntry>;
    using ConfigValue = typename EntryLog<B>::ConfigValue;
    using Stored = StoredValue<B>;

    // Staging a change.

    template <class... L>
    static ConstHandlePtr entryWriteGeneric(Table& table, const Key& key, const Entry& entry,
                                            const DependencyPtr& dependency,
                                            const ResponseHandler& handler, const L&... linkages);
    static ConstHandlePtr entryRemoveGeneric(Table& table, const Key& key,
                                             const DependencyPtr& dependency,
                                             const ResponseHandler& handler);
    static void entryRemoveAllGeneric(Table& table, const DependencyPtr& dependency,
                                      const ResponseHandler& handler);

    // Committing it.

    template <class... L>
    static bool isResolverEntryResolved(Table& table, Resolver& resolverEntry,
                                        const L&... linkages);
    template <class... L>
    static void commitEntry(Table& table, const Brumo::Ptr<Asic::ResolverEntry>& resolverEntry,
                            const L&... linkages);

    // Reading both layers.

    static Entry entryReadGeneric(const Table& table, const Key& key);
    static Entry entryFromConfig(const Table& table, const Key& key);
    static bool entryHas(const Table& table, const Key& key);
    static std::uint32_t entrys(const Table& table);
    static void tableStatusVersion(Table& table, Asic::LogVersion version);

    // Working on committed entries.

    template <class... L>
    static void setRsrcPtrs(const WrapperPtr& wrapper, bool refresh, const L&... linkages);
    static WrapperPtr entryWrapperFromConfig(Table& table, Stored& stored, bool refreshRsrcPtrs,
                                             HandlePtr& handle);
    template <class... L>
    static NeededPtr getNeededEntrySet(const ConstWrapperPtr& wrapper, const L&... linkages);
    template <class... L>
    static void restoreEntries(Table& table, const L&... linkages);
    template <class... L>
    static ConstHandlePtr updateEntry(Table& table, const Key& key, const L&... linkages);
    template <class... L>
    static void delAllEntries(Table& table, bool releaseResources,
                              const Brumo::Ptr<const Asic::NeededEntry>& needed, HandlePtr& handle,
                              const L&... linkages);

private:
    // Steps of the above, in the order of their use.

    static Entry entryFromFound(const Key& key, const ConfigValue& stored);

    static Asic::EntryVersion nextVersion(Table& table, const Key& key,
                                          const char* function = __builtin_FUNCTION());
    static HandlePtr newHandle(Table& table, Asic::EntryVersion version, const Key& key,
                               const ResponseHandler& handler);
    static void recordChange(const Table& table, Asic::Recorder::Operation operation,
                             const Handle& handle, std::span<const std::byte> image,
                             const DependencyPtr& dependency);
    static void enqueue(Table& table, const DependencyPtr& dependency, Asic::EntryFlags flags,
                        const WrapperPtr& wrapper);
    static void updateGroupAndFamily(Table& table);
    static void updateFamily(Table& table);

    template <class... L>
    static bool resAccessorCheckResolved(Resolver& resolverEntry, const L&... linkages);
    template <class... L>
    static bool checkResolveSuccess(const ConstWrapperPtr& wrapper, const L&... linkages);
    static void failOnDependency(const Resolver& resolverEntry, const HandlePtr& handle);
    template <class... L>
    static void commitTableDelete(Table& table, const Resolver& resolverEntry, HandlePtr handle,
                                  const L&... linkages);
    template <class... L>
    static void commitEntryDelete(Table& table, const Resolver& resolverEntry,
                                  const HandlePtr& handle, const L&... linkages);
    template <class... L>
    static void commitWrite(Table& table, const Resolver& resolverEntry, const HandlePtr& handle,
                            const L&... linkages);
    template <class... L>
    static bool finalizeWrite(Table& table, const WrapperPtr& wrapper, const HandlePtr& handle,
                              const L&... linkages);
    static void clearTransient(Table& table, const Key& key, Asic::EntryVersion version,
                               bool isRemove);
    static void queueInLog(Table& table, const HandlePtr& handle);
    static void answer(const HandlePtr& handle, Asic::EntryState state);

    static Entry entryFromConfig(Stored& stored);
    template <class Visit>
    static void forEachCommitted(Table& table, Visit&& visit);
};

/// Calls `action` on every linkage that is installed, in order.
template <class Action, class... L>
void runOnAllResourceLinkages(Action&& action, const L&... linkages) {
    static_cast<void>(action);  // a table without linkages
    ((linkages != nullptr ? action(*linkages) : void()), ...);
}

}  // namespace VornPolicyCpu
