// The in-memory software table of one table for one chip unit.
//
// Feature code writes, removes and reads entries through it. It holds the changes that are not
// committed yet, the queue of handles that wait for the hardware side, the hooks and the linkages.
// Each operation traces its name and hands over to the generic engine, OrderedSwTableAccessor.
//
// Event thread only. The table set owns tables; the resolver and handles refer to them.
//
// What always holds:
//  1. A key is in at most one of the two staged collections.
//  2. A staged key has a valid version, which is that of its latest change.
//  3. Handles in the queue have ascending log versions and are in state `written`.
//  4. When the table goes, its queued changes are dropped from the resolver first.
#pragma once

#include <cstdint>
#include <memory>
#include <tuple>

#include "catalogue/TableOperations.h"
#include "entrylog/EntryLog.h"
#include "linkage/Linkage.h"
#include "platform/kiv/HashMap2018.h"
#include "swtable/HandleQueue.h"
#include "swtable/IteratorState.h"
#include "swtable/ResolverEntry.h"
#include "swtable/SwTableHelperBase.h"

namespace VornPolicyCpu {

/// One owning pointer a linkage.
template <class B, class Linkages>
struct LinkagePtrs;
template <class B, class... L>
struct LinkagePtrs<B, LinkageList<L...>> {
    std::tuple<Brumo::Ptr<Linkage<B, L>>...> linkages;
};

template <class B>
class SwTable : public TableOperations<typename B::Types> {
public:
    using Base = TableOperations<typename B::Types>;
    using Key = typename B::Key;
    using Entry = typename B::Entry;
    using Wrapper = typename B::EntryWrapper;
    using WrapperPtr = Brumo::Ptr<Wrapper>;
    using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
    using DependencyPtr = Brumo::Ptr<const Asic::DependencyEntryHandle>;

    class EntryHandle;
    class EntryIteratorConst;
    class SwTableEntries_py;

    /// `tableSet` outlives the table. `groupResolver` and `entryLog` may be null in tests that use
    /// neither.
    SwTable(Brumo::Ptr<const Asic::CanonicalTableName> name, Asic::SwTableId tableId,
            Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet, Brumo::Ptr<EntryLog<B>> entryLog,
            Brumo::Ptr<Asic::GroupResolver> groupResolver);
    ~SwTable() override;

    const Kiv::TypeData& typeData() const override;

    // Changes. Event thread; the returned handle is shared with the caller.

    Brumo::Ptr<const EntryHandle> entryWrite(const Key& key, const Entry& entry,
                                             const DependencyPtr& dependency);
    Brumo::Ptr<const EntryHandle> entryWriteWithResponseHandler(const Key& key, const Entry& entry,
                                                                const DependencyPtr& dependency,
                                                                const ResponseHandler& handler);
    Brumo::Ptr<const EntryHandle> entryRemove(const Key& key, const DependencyPtr& dependency);
    Brumo::Ptr<const EntryHandle> entryRemoveWithResponseHandler(const Key& key,
                                                                 const DependencyPtr& dependency,
                                                                 const ResponseHandler& handler);
    void entryRemoveAll(const DependencyPtr& dependency);
    void entryRemoveAllWithResponseHandler(const DependencyPtr& dependency,
                                           const ResponseHandler& handler);
    /// Empties the table at once, past the resolver; `releaseResources` gives uses up.
    void clearTable(bool releaseResources);

    // Commit; called by the group resolver.

    virtual bool isResolverEntryResolved(const Brumo::Ptr<ResolverEntry<B>>& resolverEntry);
    virtual void commitEntry(const Brumo::Ptr<Asic::ResolverEntry>& resolverEntry);

    // Reads: staged changes over what is committed.

    Entry entryRead(const Key& key) const;
    Entry entry(const Key& key) const { return entryRead(key); }
    /// The committed entry, or the default entry.
    Entry entryFromConfig(const Key& key) const;
    bool entryHas(const Key& key) const;
    std::uint32_t entrys() const;
    EntryIteratorConst entryIteratorConst() const;
    EntryIteratorConst entryIteratorConst(const Key& key) const;
    Brumo::Ptr<SwTableIteratorState<B>> initIterState() const;
    Brumo::Ptr<SwTableIteratorState<B>> initIterStateFromKey(const Key& key) const;
    /// A listing for inspection; the table's own logic does not consult it.
    SwTableEntries_py& getTableEntries_py();

    // Work on committed entries.

    void restoreEntries();
    Brumo::Ptr<const EntryHandle> updateEntry(const Key& key);
    /// As KivShimo::Map::prefetch, of the committed value.
    void entryPrefetch(const Key& key) const { entryLog_->prefetch(key, this->unitId()); }
    Brumo::Ptr<Asic::NeededEntry> getNeededEntrySet(const Brumo::Ptr<const Wrapper>& wrapper) const;
    void setRsrcPtrs(const WrapperPtr& wrapper, bool refresh);
    WrapperPtr entryWrapperFromConfig(const Key& key, bool refreshRsrcPtrs,
                                      Brumo::Ptr<EntryHandle>& handle);

    // The framework's operations.

    void doCreateHwTable() override {}
    void tableStatusVersion(Asic::LogVersion version) override;
    bool hasPendingHwWrites() const override;
    Asic::LogVersion logVersion() const override {
        return entryLog_ == nullptr ? Asic::LogVersion{} : entryLog_->tableVersion();
    }

    // What feature code uses through the abstract class; forwarded as it stands.

    typename Base::HandlePtr write(const Key& key, const Entry& entry,
                                   const DependencyPtr& dependency,
                                   const ResponseHandler& handler) override {
        return entryWriteWithResponseHandler(key, entry, dependency, handler);
    }
    typename Base::HandlePtr remove(const Key& key, const DependencyPtr& dependency,
                                    const ResponseHandler& handler) override {
        return entryRemoveWithResponseHandler(key, dependency, handler);
    }
    void removeAll(const DependencyPtr& dependency, const ResponseHandler& handler) override {
        entryRemoveAllWithResponseHandler(dependency, handler);
    }
    Entry read(const Key& key) const override { return entryRead(key); }
    bool has(const Key& key) const override { return entryHas(key); }
    std::uint32_t count() const override { return entrys(); }
    std::optional<StagedChange<Entry>> staged(const Key& key) const override;
    void forEach(const std::function<void(const Entry&)>& visit) const override;

    // Members. Setters publish the change to the table's observers.

    const Brumo::Ptr<SwTableHelperBase<B>>& swTableHelper() const { return swTableHelper_; }
    void swTableHelperIs(Brumo::Ptr<SwTableHelperBase<B>> helper);

    /// Null when the key is absent.
    WrapperPtr transientAddEntry(const Key& key) const;
    void transientAddEntryIs(const WrapperPtr& wrapper);
    void transientAddEntryDel(const Key& key);
    void transientAddEntryDelAll();
    std::size_t transientAddEntrys() const { return transientAddEntry_.size(); }
    /// Visits the keys of the staged writes. `visit` must not change the table.
    template <class Visit>
    void forEachTransientAdd(Visit&& visit) const {
        transientAddEntry_.forEach([&](const Key& key, const WrapperPtr&) { visit(key); });
    }

    WrapperPtr transientRemoveEntry(const Key& key) const;
    void transientRemoveEntryIs(const WrapperPtr& wrapper);
    void transientRemoveEntryDel(const Key& key);
    void transientRemoveEntryDelAll();
    std::size_t transientRemoveEntrys() const { return transientRemoveEntry_.size(); }
    /// Visits the keys of the staged removes. `visit` must not change the table.
    template <class Visit>
    void forEachTransientRemove(Visit&& visit) const {
        transientRemoveEntry_.forEach([&](const Key& key, const WrapperPtr&) { visit(key); });
    }

    /// Asks for the memory of a staged write of the key and of its version, most likely; a staged
    /// remove is rare.
    void transientPrefetch(const Key& key) const {
        transientAddEntry_.prefetch(key);
        transientVersionForKey_.prefetch(key);
    }
    /// The invalid version when the key is absent.
    Asic::EntryVersion transientVersionForKey(const Key& key) const;
    /// Null when the key is absent.
    const Asic::EntryVersion* transientVersionForKeyFind(const Key& key) const {
        return transientVersionForKey_.find(key);
    }
    void transientVersionForKeyIs(const Key& key, Asic::EntryVersion version);
    void transientVersionForKeyDel(const Key& key);
    void transientVersionForKeyDelAll();
    std::size_t transientVersionForKeys() const { return transientVersionForKey_.size(); }

    Asic::MajorVersion transientRemoveAllVersion() const { return transientRemoveAllVersion_; }
    void transientRemoveAllVersionIs(Asic::MajorVersion version);

    const Brumo::Ptr<EntryLog<B>>& entryLog() const { return entryLog_; }
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver() const { return groupResolver_; }

    void entryHandleInLogEnq(const Brumo::Ptr<EntryHandle>& handle);
    /// Null when empty.
    Brumo::Ptr<EntryHandle> entryHandleInLogDeq() { return entryHandleInLog_.dequeue(); }
    Brumo::Ptr<EntryHandle> entryHandleInLogFront() const {
        return entryHandleInLog_.frontElement();
    }
    Brumo::Ptr<EntryHandle> entryHandleInLogBack() const { return entryHandleInLog_.backElement(); }
    Brumo::Ptr<EntryHandle> entryHandleInLog(std::uint32_t index) const {
        return entryHandleInLog_.at(index);
    }
    bool entryHandleInLogHas(std::uint32_t index) const { return entryHandleInLog_.has(index); }
    void entryHandleInLogDelAll() { entryHandleInLog_.clear(); }
    const HandleQueue<EntryHandle>& entryHandlesInLog() const { return entryHandleInLog_; }
    std::size_t inLogCount() const override { return entryHandleInLog_.size(); }
    std::size_t stagedCount() const override {
        return transientAddEntry_.size() + transientRemoveEntry_.size() +
               (transientRemoveAllVersion_.valid() ? transientRemoveAllVersion_.value + 1 : 0);
    }
    void forEachHandleInLog(
        const std::function<bool(const Asic::OrderedSwTable::EntryHandle&)>& visit) const override;

    /// Null until it is installed.
    template <class L>
    const Brumo::Ptr<Linkage<B, L>>& linkage() const {
        return std::get<Brumo::Ptr<Linkage<B, L>>>(linkages_.linkages);
    }
    template <class L>
    void linkageIs(Brumo::Ptr<Linkage<B, L>> linkage) {
        auto& member = std::get<Brumo::Ptr<Linkage<B, L>>>(linkages_.linkages);
        if (linkage == member)
            return;
        const auto old = std::exchange(member, std::move(linkage));
        this->publisher().publish(Asic::OrderedSwTable::kLinkage, &old);
    }

    /// States what always holds; for tests, after every step.
    void assertConsistent() const;

private:
    template <class>
    friend class IterStateAccessor;

    using Staged = Kiv::HashMap2018<Key, WrapperPtr>;

    void handleInitialized();
    bool observed() const { return this->publisher().observers() > 0; }
    static WrapperPtr stagedUnder(const Staged& staged, const Key& key) {
        const WrapperPtr* found = staged.find(key);
        return found == nullptr ? nullptr : *found;
    }
    void stagedIs(Staged& staged, Kiv::AttributeId attribute, const WrapperPtr& wrapper);
    void stagedDel(Staged& staged, Kiv::AttributeId attribute, const Key& key);
    void stagedDelAll(Staged& staged, Kiv::AttributeId attribute);
    /// This table as its own class, and a reference on it.
    typename B::SwTable& self() { return static_cast<typename B::SwTable&>(*this); }
    const typename B::SwTable& self() const {
        return static_cast<const typename B::SwTable&>(*this);
    }
    /// Calls `use` with this table's linkages, in their order.
    template <class Use>
    decltype(auto) withLinkages(Use&& use) const {
        return std::apply(std::forward<Use>(use), linkages_.linkages);
    }

    Brumo::Ptr<SwTableHelperBase<B>> swTableHelper_;
    Staged transientAddEntry_;
    Staged transientRemoveEntry_;
    Kiv::HashMap2018<Key, Asic::EntryVersion> transientVersionForKey_;
    Asic::MajorVersion transientRemoveAllVersion_;
    Brumo::Ptr<EntryLog<B>> entryLog_;
    Brumo::Ptr<Asic::GroupResolver> groupResolver_;
    HandleQueue<EntryHandle> entryHandleInLog_;
    LinkagePtrs<B, typename B::Linkages> linkages_;
    std::unique_ptr<SwTableEntries_py> tableEntries_;
};

/// The handle of one change of this table.
template <class B>
class SwTable<B>::EntryHandle final : public Asic::OrderedSwTable::EntryHandle {
public:
    EntryHandle(Asic::EntryVersion version, const Key& key, typename B::SwTable* swTable)
        : Asic::OrderedSwTable::EntryHandle(version), key_(key) {
        swTableIs(swTable);
    }

    const Kiv::TypeData& typeData() const override;

    const Key& key() const { return key_; }
    std::string keyText() const override { return key_.toText(); }
    /// Must not be used after the table has gone.
    typename B::SwTable* swTable() const { return swTable_; }
    void swTableIs(typename B::SwTable* swTable) {
        if (swTable == swTable_)
            return;
        typename B::SwTable* const old = std::exchange(swTable_, swTable);
        if (swTable != nullptr)
            tableId_ = swTable->tableId();
        this->publisher().publish(Asic::OrderedSwTable::EntryHandle::kSwTable, &old);
    }

    /// Empty when nobody is to be called.
    const ResponseHandler& responseHandler() const { return responseHandler_; }
    void responseHandlerIs(const ResponseHandler& handler) { responseHandler_ = handler; }

    Asic::SwTableId tableId() const override {
        Traces<B>::entryHandle(8, "");
        return tableId_;
    }
    /// The canonical name of the table; empty when it has no name object.
    std::string tableName() const {
        Traces<B>::entryHandle(8, "");
        const auto& name = swTable_->canonicalTableName();
        return name == nullptr ? std::string() : name->name();
    }

private:
    Key key_;
    typename B::SwTable* swTable_ = nullptr;
    Asic::SwTableId tableId_;
    ResponseHandler responseHandler_;
};

template <class B>
Brumo::Ptr<typename SwTable<B>::EntryHandle> entryHandleFactory(Asic::EntryVersion version,
                                                                const typename B::Key& key,
                                                                typename B::SwTable* swTable) {
    return Brumo::make<typename SwTable<B>::EntryHandle>(version, key, swTable);
}
/// The same.
template <class B>
Brumo::Ptr<typename SwTable<B>::EntryHandle> EntryHandleIs(Asic::EntryVersion version,
                                                           const typename B::Key& key,
                                                           typename B::SwTable* swTable) {
    return entryHandleFactory<B>(version, key, swTable);
}

}  // namespace VornPolicyCpu
