// The bodies of SwTable; included where a table is instantiated.
#pragma once

#include "catalogue/Modules.h"
#include "entrylog/EntryLogImpl.h"
#include "linkage/LinkageImpl.h"
#include "swtable/CommitPath.h"
#include "swtable/ReadPath.h"
#include "swtable/RemovePath.h"
#include "swtable/RestorePath.h"
#include "swtable/SwTableEntriesPy.h"
#include "swtable/WritePath.h"

namespace VornPolicyCpu {

template <class B>
SwTable<B>::SwTable(Brumo::Ptr<const Asic::CanonicalTableName> name, Asic::SwTableId tableId,
                    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
                    Brumo::Ptr<EntryLog<B>> entryLog, Brumo::Ptr<Asic::GroupResolver> groupResolver)
    : Base(std::move(name), tableId, unit, tableSet),
      entryLog_(std::move(entryLog)),
      groupResolver_(std::move(groupResolver)) {
    handleInitialized();
}

template <class B>
void SwTable<B>::handleInitialized() {
    Traces<B>::swTable(8, "doesMarkSweep: False hwErrorHandling: False");
    swTableHelperIs(Brumo::make<SwTableHelperBase<B>>());
    this->statsIs();
}

/// The resolver forgets the table's changes first; the linkages go in the reverse order of theirs.
template <class B>
SwTable<B>::~SwTable() {
    if (groupResolver_ != nullptr)
        groupResolver_->resolverQueueDel(this);
    const auto releaseInReverse = [this]<std::size_t... I>(std::index_sequence<I...>) {
        ((std::get<sizeof...(I) - 1 - I>(linkages_.linkages) = nullptr), ...);
    };
    releaseInReverse(std::make_index_sequence<B::Linkages::kCount>{});
    entryHandleInLogDelAll();
    groupResolver_ = nullptr;
    entryLog_ = nullptr;
    transientVersionForKey_.clear();
    transientRemoveEntry_.clear();
    transientAddEntry_.clear();
    swTableHelper_ = nullptr;
}

template <class B>
const Kiv::TypeData& SwTable<B>::typeData() const {
    return swTableTypeData<B>();
}

template <class B>
const Kiv::TypeData& SwTable<B>::EntryHandle::typeData() const {
    return entryHandleTypeData<B>();
}

// Changes.

template <class B>
auto SwTable<B>::entryWrite(const Key& key, const Entry& entry, const DependencyPtr& dependency)
    -> Brumo::Ptr<const EntryHandle> {
    Traces<B>::swTable(8, " key: {}", key);
    return entryWriteWithResponseHandler(key, entry, dependency, {});
}

template <class B>
auto SwTable<B>::entryWriteWithResponseHandler(const Key& key, const Entry& entry,
                                               const DependencyPtr& dependency,
                                               const ResponseHandler& handler)
    -> Brumo::Ptr<const EntryHandle> {
    Traces<B>::swTable(8, " key: {}", key);
    const Brumo::Ptr<SwTable> keep(this);  // an observer may drop the table
    return withLinkages([&](const auto&... linkages) {
        return OrderedSwTableAccessor<B>::entryWriteGeneric(self(), key, entry, dependency, handler,
                                                            linkages...);
    });
}

template <class B>
auto SwTable<B>::entryRemove(const Key& key, const DependencyPtr& dependency)
    -> Brumo::Ptr<const EntryHandle> {
    Traces<B>::swTable(8, " key: {}", key);
    return entryRemoveWithResponseHandler(key, dependency, {});
}

template <class B>
auto SwTable<B>::entryRemoveWithResponseHandler(const Key& key, const DependencyPtr& dependency,
                                                const ResponseHandler& handler)
    -> Brumo::Ptr<const EntryHandle> {
    Traces<B>::swTable(8, " key: {}", key);
    const Brumo::Ptr<SwTable> keep(this);  // an observer may drop the table
    return OrderedSwTableAccessor<B>::entryRemoveGeneric(self(), key, dependency, handler);
}

template <class B>
void SwTable<B>::entryRemoveAll(const DependencyPtr& dependency) {
    Traces<B>::swTable(8, "");
    entryRemoveAllWithResponseHandler(dependency, {});
}

template <class B>
void SwTable<B>::entryRemoveAllWithResponseHandler(const DependencyPtr& dependency,
                                                   const ResponseHandler& handler) {
    Traces<B>::swTable(8, "");
    const Brumo::Ptr<SwTable> keep(this);  // an observer may drop the table
    OrderedSwTableAccessor<B>::entryRemoveAllGeneric(self(), dependency, handler);
}

template <class B>
void SwTable<B>::clearTable(bool releaseResources) {
    Traces<B>::swTable(8, "");
    const Brumo::Ptr<SwTable> keep(this);  // an observer may drop the table
    Brumo::Ptr<EntryHandle> handle;
    withLinkages([&](const auto&... linkages) {
        OrderedSwTableAccessor<B>::delAllEntries(self(), releaseResources, nullptr, handle,
                                                 linkages...);
    });
}

// Commit.

template <class B>
bool SwTable<B>::isResolverEntryResolved(const Brumo::Ptr<ResolverEntry<B>>& resolverEntry) {
    Traces<B>::swTable(8, "");
    return withLinkages([&](const auto&... linkages) {
        return OrderedSwTableAccessor<B>::isResolverEntryResolved(self(), *resolverEntry,
                                                                  linkages...);
    });
}

template <class B>
void SwTable<B>::commitEntry(const Brumo::Ptr<Asic::ResolverEntry>& resolverEntry) {
    Traces<B>::swTable(8, "");
    const Brumo::Ptr<SwTable> keep(this);  // a hook or handler may drop the table
    withLinkages([&](const auto&... linkages) {
        OrderedSwTableAccessor<B>::commitEntry(self(), resolverEntry, linkages...);
    });
}

// Reads.

template <class B>
auto SwTable<B>::entryRead(const Key& key) const -> Entry {
    Traces<B>::swTable(8, " key: {}", key);
    return OrderedSwTableAccessor<B>::entryReadGeneric(self(), key);
}

template <class B>
auto SwTable<B>::entryFromConfig(const Key& key) const -> Entry {
    Traces<B>::swTable(8, " key: {}", key);
    return OrderedSwTableAccessor<B>::entryFromConfig(self(), key);
}

template <class B>
bool SwTable<B>::entryHas(const Key& key) const {
    Traces<B>::swTable(8, " key: {}", key);
    return OrderedSwTableAccessor<B>::entryHas(self(), key);
}

template <class B>
std::uint32_t SwTable<B>::entrys() const {
    Traces<B>::swTable(8, "");
    return OrderedSwTableAccessor<B>::entrys(self());
}

template <class B>
Brumo::Ptr<SwTableIteratorState<B>> SwTable<B>::initIterState() const {
    Traces<B>::swTable(8, "");
    using State = SwTableIteratorState<B>;
    const auto state = Brumo::make<State>(Brumo::Ptr<const typename B::SwTable>(&self()));
    state->set(State::kInAddCollection);
    if (transientRemoveAllVersion_.valid())
        state->set(State::kRemoveAllPending);
    return state;
}

template <class B>
Brumo::Ptr<SwTableIteratorState<B>> SwTable<B>::initIterStateFromKey(const Key& key) const {
    Traces<B>::swTable(8, " key: {}", key);
    using State = SwTableIteratorState<B>;
    const auto state = Brumo::make<State>(Brumo::Ptr<const typename B::SwTable>(&self()));
    if (transientRemoveAllVersion_.valid())
        state->set(State::kRemoveAllPending);
    state->bookmarkIs(key);
    if (transientAddEntry_.find(key) != nullptr) {
        state->set(State::kInAddCollection);
    } else if (!transientRemoveAllVersion_.valid() && entryLog_->entryHas(key, this->unitId())) {
        state->set(State::kInConfiguration);
    }
    return state;
}

template <class B>
auto SwTable<B>::entryIteratorConst() const -> EntryIteratorConst {
    Traces<B>::swTable(8, "");
    return EntryIteratorConst(initIterState());
}

template <class B>
auto SwTable<B>::entryIteratorConst(const Key& key) const -> EntryIteratorConst {
    Traces<B>::swTable(8, " key: {}", key);
    return EntryIteratorConst(initIterStateFromKey(key));
}

template <class B>
void SwTable<B>::forEach(const std::function<void(const Entry&)>& visit) const {
    for (auto iterator = entryIteratorConst(); iterator.valid(); ++iterator)
        visit(*iterator);
}

template <class B>
auto SwTable<B>::getTableEntries_py() -> SwTableEntries_py& {
    if (tableEntries_ == nullptr)
        tableEntries_ = std::make_unique<SwTableEntries_py>(self());
    return *tableEntries_;
}

// Work on committed entries.

template <class B>
void SwTable<B>::restoreEntries() {
    Traces<B>::swTable(8, "");
    const Brumo::Ptr<SwTable> keep(this);  // a hook may drop the table
    withLinkages([&](const auto&... linkages) {
        OrderedSwTableAccessor<B>::restoreEntries(self(), linkages...);
    });
}

template <class B>
auto SwTable<B>::updateEntry(const Key& key) -> Brumo::Ptr<const EntryHandle> {
    Traces<B>::swTable(8, " key: {}", key);
    const Brumo::Ptr<SwTable> keep(this);  // a hook may drop the table
    return withLinkages([&](const auto&... linkages) {
        return OrderedSwTableAccessor<B>::updateEntry(self(), key, linkages...);
    });
}

template <class B>
Brumo::Ptr<Asic::NeededEntry> SwTable<B>::getNeededEntrySet(
    const Brumo::Ptr<const Wrapper>& wrapper) const {
    Traces<B>::swTable(8, "");
    return withLinkages([&](const auto&... linkages) {
        return OrderedSwTableAccessor<B>::getNeededEntrySet(wrapper, linkages...);
    });
}

template <class B>
void SwTable<B>::setRsrcPtrs(const WrapperPtr& wrapper, bool refresh) {
    Traces<B>::swTable(8, "");
    withLinkages([&](const auto&... linkages) {
        OrderedSwTableAccessor<B>::setRsrcPtrs(wrapper, refresh, linkages...);
    });
}

template <class B>
auto SwTable<B>::entryWrapperFromConfig(const Key& key, bool refreshRsrcPtrs,
                                        Brumo::Ptr<EntryHandle>& handle) -> WrapperPtr {
    StoredValue<B> stored(*entryLog_, key, this->unitId());
    return OrderedSwTableAccessor<B>::entryWrapperFromConfig(self(), stored, refreshRsrcPtrs,
                                                             handle);
}

template <class B>
void SwTable<B>::tableStatusVersion(Asic::LogVersion version) {
    Traces<B>::swTable(8, "");
    const Brumo::Ptr<SwTable> keep(this);  // a handler may drop the table
    OrderedSwTableAccessor<B>::tableStatusVersion(self(), version);
}

template <class B>
bool SwTable<B>::hasPendingHwWrites() const {
    const bool pending = !transientAddEntry_.empty() || !transientRemoveEntry_.empty() ||
                         transientRemoveAllVersion_.valid() ||
                         entryLog_->tableVersion() != entryLog_->cleanedUpTo();
    Traces<B>::engine(3, " pendingHwWrites for swTable: tableId: {}, unitId{} is {}",
                      this->tableId(), this->unitId(), pending);
    return pending;
}

template <class B>
auto SwTable<B>::staged(const Key& key) const -> std::optional<StagedChange<Entry>> {
    if (const WrapperPtr write = transientAddEntry(key); write != nullptr)
        return StagedChange<Entry>{write->entryHandle(), write->entry()};
    if (const WrapperPtr remove = transientRemoveEntry(key); remove != nullptr)
        return StagedChange<Entry>{remove->entryHandle(), std::nullopt};
    return std::nullopt;
}

template <class B>
void SwTable<B>::forEachHandleInLog(
    const std::function<bool(const Asic::OrderedSwTable::EntryHandle&)>& visit) const {
    entryHandleInLog_.forEachWhile(visit);
}

// Members.

template <class B>
void SwTable<B>::swTableHelperIs(Brumo::Ptr<SwTableHelperBase<B>> helper) {
    if (helper == swTableHelper_)
        return;
    const auto old = std::exchange(swTableHelper_, std::move(helper));
    this->publisher().publish(Asic::OrderedSwTable::kSwTableHelper, &old);
}

/// What was there is looked up for observers only; without them a change costs one look-up.
template <class B>
void SwTable<B>::stagedIs(Staged& staged, Kiv::AttributeId attribute, const WrapperPtr& wrapper) {
    WrapperPtr old;
    if (observed()) {
        old = stagedUnder(staged, wrapper->key());
        if (old == wrapper)
            return;
    }
    staged.insertOrReplace(wrapper->key(), wrapper);
    this->publisher().publish(attribute, &old);
}

template <class B>
void SwTable<B>::stagedDel(Staged& staged, Kiv::AttributeId attribute, const Key& key) {
    const WrapperPtr old = observed() ? stagedUnder(staged, key) : nullptr;
    if (staged.erase(key))
        this->publisher().publish(attribute, &old);
}

template <class B>
void SwTable<B>::stagedDelAll(Staged& staged, Kiv::AttributeId attribute) {
    if (staged.empty())
        return;
    staged.clear();
    this->publisher().publish(attribute);
}

template <class B>
auto SwTable<B>::transientAddEntry(const Key& key) const -> WrapperPtr {
    return stagedUnder(transientAddEntry_, key);
}
template <class B>
void SwTable<B>::transientAddEntryIs(const WrapperPtr& wrapper) {
    stagedIs(transientAddEntry_, Asic::OrderedSwTable::kTransientAddEntry, wrapper);
}
template <class B>
void SwTable<B>::transientAddEntryDel(const Key& key) {
    stagedDel(transientAddEntry_, Asic::OrderedSwTable::kTransientAddEntry, key);
}
template <class B>
void SwTable<B>::transientAddEntryDelAll() {
    stagedDelAll(transientAddEntry_, Asic::OrderedSwTable::kTransientAddEntry);
}

template <class B>
auto SwTable<B>::transientRemoveEntry(const Key& key) const -> WrapperPtr {
    return stagedUnder(transientRemoveEntry_, key);
}
template <class B>
void SwTable<B>::transientRemoveEntryIs(const WrapperPtr& wrapper) {
    stagedIs(transientRemoveEntry_, Asic::OrderedSwTable::kTransientRemoveEntry, wrapper);
}
template <class B>
void SwTable<B>::transientRemoveEntryDel(const Key& key) {
    stagedDel(transientRemoveEntry_, Asic::OrderedSwTable::kTransientRemoveEntry, key);
}
template <class B>
void SwTable<B>::transientRemoveEntryDelAll() {
    stagedDelAll(transientRemoveEntry_, Asic::OrderedSwTable::kTransientRemoveEntry);
}

template <class B>
Asic::EntryVersion SwTable<B>::transientVersionForKey(const Key& key) const {
    const Asic::EntryVersion* found = transientVersionForKey_.find(key);
    return found == nullptr ? Asic::EntryVersion{} : *found;
}
template <class B>
void SwTable<B>::transientVersionForKeyIs(const Key& key, Asic::EntryVersion version) {
    Asic::EntryVersion old;
    if (observed()) {
        old = transientVersionForKey(key);
        if (transientVersionForKeyFind(key) != nullptr && old.isEq(version))
            return;
    }
    transientVersionForKey_.insertOrReplace(key, version);
    this->publisher().publish(Asic::OrderedSwTable::kTransientVersionForKey, &old);
}
template <class B>
void SwTable<B>::transientVersionForKeyDel(const Key& key) {
    const Asic::EntryVersion old = observed() ? transientVersionForKey(key) : Asic::EntryVersion{};
    if (transientVersionForKey_.erase(key))
        this->publisher().publish(Asic::OrderedSwTable::kTransientVersionForKey, &old);
}
template <class B>
void SwTable<B>::transientVersionForKeyDelAll() {
    if (transientVersionForKey_.empty())
        return;
    transientVersionForKey_.clear();
    this->publisher().publish(Asic::OrderedSwTable::kTransientVersionForKey);
}

template <class B>
void SwTable<B>::transientRemoveAllVersionIs(Asic::MajorVersion version) {
    if (version == transientRemoveAllVersion_)
        return;
    const Asic::MajorVersion old = std::exchange(transientRemoveAllVersion_, version);
    this->publisher().publish(Asic::OrderedSwTable::kTransientRemoveAllVersion, &old);
}

template <class B>
void SwTable<B>::entryHandleInLogEnq(const Brumo::Ptr<EntryHandle>& handle) {
    const std::uint32_t number = entryHandleInLog_.enqueue(handle);
    this->publisher().publish(Asic::OrderedSwTable::kEntryHandleInLog, &number);
}

template <class B>
void SwTable<B>::assertConsistent() const {
    transientAddEntry_.forEach([this](const Key& key, const WrapperPtr& wrapper) {
        Brumo::require(transientRemoveEntry_.find(key) == nullptr, "staged once");
        Brumo::require(wrapper->key().isEq(key), "wrapper->key().isEq(key)");
        Brumo::require(transientVersionForKey(key).isEq(wrapper->entryHandle()->entryVersion()),
                       "staged at the latest version");
    });
    transientRemoveEntry_.forEach([this](const Key& key, const WrapperPtr& wrapper) {
        Brumo::require(transientVersionForKey(key).isEq(wrapper->entryHandle()->entryVersion()),
                       "staged at the latest version");
    });
    Asic::LogVersion last;
    const std::uint32_t front = entryHandleInLog_.empty() ? 0 : entryHandleInLog_.frontNumber();
    for (std::uint32_t i = 0; i < entryHandleInLog_.size(); ++i) {
        const auto handle = entryHandleInLog_.at(front + i);
        Brumo::require(handle->logVersion() > last, "ascending log versions");
        Brumo::require(handle->entryState() == Asic::EntryState::written, "queued when written");
        last = handle->logVersion();
    }
}

}  // namespace VornPolicyCpu
