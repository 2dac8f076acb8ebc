// The bodies of Linkage; included where a table's linkages are instantiated, after the table.
#pragma once

#include "catalogue/Modules.h"
#include "linkage/SwTableResourceAccessor.h"

namespace VornPolicyCpu {

template <class B, class L>
void LocalUsageUpdateSm<B, L>::handleResourceChange() {
    SwTableResourceAccessor<Linkage<B, L>>::handleResourceChange(
        *parent_, Brumo::Ptr<LocalUsageUpdateSm>(this));
}

template <class B, class L>
Linkage<B, L>::~Linkage() {
    entryUsageSm_.forEach(
        [](const ResourceKey&, const UsageSmPtr& machine) { machine->kivDoZombieReactors(); });
}

template <class B, class L>
const Kiv::TypeData& Linkage<B, L>::typeData() const {
    return linkageTypeData<L>();
}

template <class B, class L>
void Linkage<B, L>::resolveEntry(const WrapperPtr& wrapper) {
    if (resourceKeyFromEntry(wrapper->entry()).isEq(ResourceKey{}))
        return;
    wrapper->template resourceIs<L>(L::request(*resTblClient_, wrapper->entry()));
}

template <class B, class L>
Asic::EntryState Linkage<B, L>::entryResolutionState(const ConstWrapperPtr& wrapper) const {
    return SwTableResourceAccessor<Linkage>::entryResolutionState(*this, wrapper);
}

template <class B, class L>
void Linkage<B, L>::setResourceHandle(const WrapperPtr& wrapper) {
    const UsageSmPtr* machine = entryUsageSm_.find(L::resourceKeyFromEntry(wrapper->entry()));
    if (machine != nullptr)
        wrapper->template resourceIs<L>((*machine)->resPtr());
}

template <class B, class L>
Brumo::Ptr<Asic::NeededEntry> Linkage<B, L>::getNeededEntrySet(
    const ConstWrapperPtr& wrapper) const {
    return SwTableResourceAccessor<Linkage>::getNeededEntrySet(*this, wrapper);
}

template <class B, class L>
void Linkage<B, L>::addNeeded(const ConstWrapperPtr& wrapper, Asic::NeededEntry& to) const {
    SwTableResourceAccessor<Linkage>::addNeeded(*this, wrapper, to);
}

template <class B, class L>
void Linkage<B, L>::restoreEntry(const WrapperPtr& wrapper) {
    if (wrapper == nullptr)
        return;
    const ResourceKey key = resourceKeyFromEntry(wrapper->entry());
    if (key.isEq(ResourceKey{}))
        return;
    SwTableResourceAccessor<Linkage>::addResKeyMapping(*this, key, wrapper, false);
}

/// The old resource is released before the new one is acknowledged.
template <class B, class L>
void Linkage<B, L>::updateLocalUsage(const WrapperPtr& wrapper, const Entry& oldEntry,
                                     bool isDeleted) {
    using Accessor = SwTableResourceAccessor<Linkage>;
    const Key swKey = wrapper == nullptr ? Key{} : wrapper->key();
    LinkageTraces<L>::accessor(8, "key: {}, isDeleted: {}, oldEntry:{}", swKey, isDeleted,
                               oldEntry);
    const bool isFirst = oldEntry.isEq(Entry{});
    const ResourceKey oldKey = resourceKeyFromEntry(oldEntry);
    const auto handle = wrapper == nullptr ? nullptr : DependencyPtr(wrapper->entryHandle());
    if (isDeleted) {
        if (!isFirst)
            Accessor::deleteResKeyMapping(*this, oldKey, swKey, handle);
        return;
    }
    const ResourceKey newKey =
        wrapper == nullptr ? ResourceKey{} : resourceKeyFromEntry(wrapper->entry());
    if (!isFirst) {
        if (oldKey.isEq(newKey))
            return;
        Accessor::deleteResKeyMapping(*this, oldKey, swKey, handle);
    }
    Accessor::addResKeyMapping(*this, newKey, wrapper, true);
}

template <class B, class L>
void Linkage<B, L>::handleResourceChangeAtInit() {
    // A hook may drop the table, and with it the linkage.
    const Brumo::Ptr<Linkage> keep(this);
    const Brumo::Ptr<typename B::SwTable> keepTable(swTable_);
    for (const auto* node = entryUsageSm_.first(); node != nullptr;) {
        const ResourceKey key = node->key;
        const UsageSmPtr machine = node->value;
        SwTableResourceAccessor<Linkage>::handleResourceChange(*this, machine);
        node = entryUsageSm_.after(key);
    }
}

template <class B, class L>
auto Linkage<B, L>::entryUsageSm(const ResourceKey& key) const -> UsageSmPtr {
    const UsageSmPtr* found = entryUsageSm_.find(key);
    return found == nullptr ? nullptr : *found;
}

template <class B, class L>
auto Linkage<B, L>::entryUsageSmIs(const HandlePtr& handle) -> UsageSmPtr {
    if (handle == nullptr)
        throw Kiv::NullArgumentError("entryUsageSm");
    if (const UsageSmPtr existing = entryUsageSm(handle->key()); existing != nullptr) {
        if (existing->resPtr() == handle)
            return existing;
        throw Kiv::ReinstantiationError("entryUsageSm");
    }
    const UsageSmPtr machine = Brumo::make<UsageSm>(handle, this);
    machine->hasNotificationActiveIs(true);
    entryUsageSm_.insertOrReplace(handle->key(), machine);
    publisher().publish(kEntryUsageSm);
    return machine;
}

template <class B, class L>
auto Linkage<B, L>::entryUsageSmDel(const ResourceKey& key) -> UsageSmPtr {
    const UsageSmPtr removed = entryUsageSm(key);
    if (removed == nullptr)
        return nullptr;
    entryUsageSm_.erase(key);
    publisher().publish(kEntryUsageSm);
    removed->hasNotificationActiveIs(false);
    return removed;
}

template <class B, class L>
void Linkage<B, L>::entryUsageSmDelAll() {
    for (const auto* node = entryUsageSm_.first(); node != nullptr;) {
        const ResourceKey key = node->key;
        entryUsageSmDel(node->value->resourceKey());
        node = entryUsageSm_.after(key);
    }
}

}  // namespace VornPolicyCpu
