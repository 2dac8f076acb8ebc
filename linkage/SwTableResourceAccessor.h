// The generic part of every linkage: resolution states, needed versions, usage tracking and the
// handling of resource changes. Event thread only; stateless.
#pragma once

#include "linkage/Linkage.h"
#include "platform/brumo/Assert.h"

namespace VornPolicyCpu {

template <class LinkageType>
struct SwTableResourceAccessor {
    using B = typename LinkageType::Binding;
    using L = typename LinkageType::ResourceBinding;
    using Traces = LinkageTraces<L>;
    using Key = typename B::Key;
    using DependencyPtr = typename LinkageType::DependencyPtr;

    static Asic::EntryState entryResolutionState(
        const LinkageType& linkage, const typename LinkageType::ConstWrapperPtr& wrapper) {
        if (wrapper == nullptr || linkage.resourceOf(*wrapper) == nullptr) {
            return Asic::EntryState::complete;
        }
        switch (linkage.resourceOf(*wrapper)->entryState()) {
            case Asic::EntryState::created:
            case Asic::EntryState::written:
                return Asic::EntryState::created;
            case Asic::EntryState::complete:
                return Asic::EntryState::complete;
            case Asic::EntryState::exhausted:
            case Asic::EntryState::failed:
            case Asic::EntryState::resourceFailed:
                return Asic::EntryState::resourceFailed;
            case Asic::EntryState::undefined:
                break;
        }
        // Operators know this assertion by the place that it names.
        Brumo::assertionFailed("false && \"Unhandled resHandle entryState\"", "",
                               "OrderedTableResourceAccessor", 144);
    }

    static Brumo::Ptr<Asic::NeededEntry> getNeededEntrySet(
        const LinkageType& linkage, const typename LinkageType::ConstWrapperPtr& wrapper) {
        const auto needed = Brumo::make<Asic::NeededEntry>();
        addNeeded(linkage, wrapper, *needed);
        return needed;
    }

    /// Adds what getNeededEntrySet() gives, and traces as it does.
    static void addNeeded(const LinkageType& linkage,
                          const typename LinkageType::ConstWrapperPtr& wrapper,
                          Asic::NeededEntry& to) {
        if (wrapper == nullptr || linkage.resourceOf(*wrapper) == nullptr)
            return;
        Asic::NeededEntry needed;
        for (const Asic::TableVersion& version : linkage.resourceOf(*wrapper)->neededVersions())
            needed.add(version);
        for (const Asic::TableVersion& version : needed)
            Traces::accessor.in("getNeededEntrySet", 9, "neededVersion: {}", version);
        to.add(needed);
    }

    /// With `publish`, the first user of a resource tells the resource table.
    static void addResKeyMapping(LinkageType& linkage,
                                 const typename LinkageType::ResourceKey& resKey,
                                 const typename LinkageType::WrapperPtr& wrapper, bool publish) {
        const Key swKey = wrapper == nullptr ? Key{} : wrapper->key();
        Traces::accessor(8, "resKey: {}, swKey: {}", resKey, swKey);
        if (resKey.isEq(typename LinkageType::ResourceKey{})) {
            Traces::accessor(3, "Null resKey: {}", resKey);
            return;
        }
        auto machine = linkage.entryUsageSm(resKey);
        if (machine == nullptr) {
            machine = linkage.entryUsageSmIs(linkage.resourceOf(*wrapper));
            if (publish) {
                linkage.resTblClient()->ackUpdate(
                    machine->resPtr(), machine->resPtr()->updateVersion(), wrapper->entryHandle());
            }
            machine = linkage.entryUsageSm(resKey);  // an observer may have changed the collection
        }
        if (machine != nullptr)
            machine->entryUsageIs(swKey);
    }

    static void deleteResKeyMapping(LinkageType& linkage,
                                    const typename LinkageType::ResourceKey& resKey,
                                    const Key& swKey, const DependencyPtr& entryHandle) {
        Traces::accessor(8, "resKey: {}, swKey: {}", resKey, swKey);
        const auto machine = linkage.entryUsageSm(resKey);
        if (machine == nullptr)
            return;
        machine->entryUsageDel(swKey);
        if (!machine->entryUsage().empty())
            return;
        linkage.resTblClient()->release(machine->resPtr(), entryHandle);
        linkage.entryUsageSmDel(resKey);
    }

    /// Updates every entry that uses the resource, then acknowledges the change once. An error of
    /// an update leaves at once, unacknowledged.
    static void handleResourceChange(LinkageType& linkage,
                                     const typename LinkageType::UsageSmPtr& machine) {
        Traces::accessor(8, "");
        if (machine->resPtr()->isPostReleaseProtoState()) {
            Traces::accessor(3, "Ignoring change for resourceKey: {} ", machine->resourceKey());
            return;
        }
        // A hook may drop the table, and with it the linkage.
        const Brumo::Ptr<LinkageType> keepLinkage(&linkage);
        const Brumo::Ptr<typename B::SwTable> keepTable(linkage.swTable());
        DependencyPtr last;
        const auto& users = machine->entryUsage();
        // A hook may change the set under the walk, so each step is taken when its time has come.
        for (auto user = users.first(); user; user = users.after(*user)) {
            if (const auto following = users.after(*user))
                linkage.swTable()->entryPrefetch(following->key);
            Traces::accessor(3, "Updating sw table entry for key: {}", user->key);
            if (auto handle = linkage.swTable()->updateEntry(user->key); handle != nullptr)
                last = std::move(handle);
        }
        linkage.resTblClient()->ackUpdate(machine->resPtr(), machine->resPtr()->updateVersion(),
                                          last);
    }
};

}  // namespace VornPolicyCpu
