// One entry under processing: the entry as written, the handle of its change, and the resources
// that were resolved for it.
//
// Event thread only. The table's staged collections and the resolver hold references.
//
// What always holds:
//  1. The resolved fields of the entry are written by setResolvedFields() only, from the resource
//     slots: linkages in their order, an empty slot giving the unresolved values.
//  2. A failed or deleted entry keeps its resolved fields as they were.
#pragma once

#include <cstdint>
#include <tuple>

#include "catalogue/Binding.h"
#include "swtable/SwTableHelperBase.h"

namespace VornPolicyCpu {

/// One resource slot a linkage.
template <class Linkages>
struct ResourceSlots;
template <class... L>
struct ResourceSlots<LinkageList<L...>> {
    std::tuple<Brumo::Ptr<const typename L::ResourceHandle>...> slots;
};

template <class B>
class EntryWrapper : public Brumo::RefCounted {
public:
    using Key = typename B::Key;
    using Entry = typename B::Entry;
    using Handle = typename SwTable<B>::EntryHandle;

    EntryWrapper(const Entry& entry, Brumo::Ptr<Handle> entryHandle)
        : entry_(entry), entryHandle_(std::move(entryHandle)) {}

    const Entry& entry() const { return entry_; }
    Entry& entry() { return entry_; }
    /// The same, under the name that inspection tools know.
    const Entry& swTableEntry() const { return entry_; }
    const Key& key() const { return entry_.key; }
    void keyIs(const Key& key) { entry_.key = key; }
    const Brumo::Ptr<Handle>& entryHandle() const { return entryHandle_; }
    bool isDeleted() const { return isDeleted_; }
    void isDeletedIs(bool isDeleted) { isDeleted_ = isDeleted; }

    /// The entry in the form of the entry log.
    auto logEntry() const { return entry_.toLogEntry(); }
    auto rsrcKeys() const { return entry_.resourceKeys(); }

    /// The slot of the linkage bound by L; null until that linkage has resolved the entry.
    template <class L>
    const Brumo::Ptr<const typename L::ResourceHandle>& resource() const {
        return std::get<slotIndex<L>(typename B::Linkages{})>(resources_.slots);
    }
    template <class L>
    void resourceIs(Brumo::Ptr<const typename L::ResourceHandle> handle) {
        std::get<slotIndex<L>(typename B::Linkages{})>(resources_.slots) = std::move(handle);
    }

    /// Writes what the resolved resources give into the entry.
    void setResolvedFields() { setResolvedFields(typename B::Linkages{}); }

    /// Copies the client data that a resource carries into the entry, where it is resolved.
    void retrieveClientData() { retrieveClientData(typename B::Linkages{}); }

    void finalizeOnSuccess(const Brumo::Ptr<const typename B::SwTable>& swTable, bool isDeleted);
    /// Returns what the hook answered: not 0 means that the entry is to be committed all the same.
    std::uint32_t finalizeOnFailure(const Brumo::Ptr<const typename B::SwTable>& swTable,
                                    bool isDeleted);

    std::string toText() const { return entry_.toText(); }

private:
    template <class Wanted, class... L>
    static constexpr std::size_t slotIndex(LinkageList<L...>) {
        std::size_t index = 0;
        static_cast<void>(((std::is_same_v<Wanted, L> || (++index, false)) || ...));
        return index;
    }
    template <class... L>
    void setResolvedFields(LinkageList<L...>) {
        (L::setResolvedFields(entry_, resource<L>().get()), ...);
    }
    template <class... L>
    void retrieveClientData(LinkageList<L...>) {
        (retrieveClientDataOf<L>(), ...);
    }
    template <class L>
    void retrieveClientDataOf() {
        const auto& handle = resource<L>();
        if (handle == nullptr)
            return;
        if constexpr (requires { handle->clientData(); }) {
            Traces<B>::entryWrapper.in("retrieveClientData", 3, " Setting clientData to: {} ",
                                       handle->clientData());
        }
        L::retrieveClientData(entry_, *handle);
    }

    Entry entry_;
    Brumo::Ptr<Handle> entryHandle_;
    [[no_unique_address]] ResourceSlots<typename B::Linkages> resources_;
    bool isDeleted_ = false;
};

template <class B>
void EntryWrapper<B>::finalizeOnSuccess(const Brumo::Ptr<const typename B::SwTable>& swTable,
                                        bool isDeleted) {
    Traces<B>::entryWrapper(8, " key: {} isDeleted: {}", key(), isDeleted);
    isDeleted_ = isDeleted;
    if (!isDeleted)
        setResolvedFields();
    const Brumo::Ptr<SwTableHelperBase<B>> helper = swTable->swTableHelper();
    const Brumo::Ptr<const typename B::EntryWrapper> self(
        static_cast<const typename B::EntryWrapper*>(this));
    helper->finalizeOnSuccess(self, isDeleted, swTable);
}

template <class B>
std::uint32_t EntryWrapper<B>::finalizeOnFailure(
    const Brumo::Ptr<const typename B::SwTable>& swTable, bool isDeleted) {
    Traces<B>::entryWrapper(8, " key: {} isDeleted: {}", key(), isDeleted);
    const Brumo::Ptr<SwTableHelperBase<B>> helper = swTable->swTableHelper();
    const Brumo::Ptr<const typename B::EntryWrapper> self(
        static_cast<const typename B::EntryWrapper*>(this));
    const std::uint32_t retVal = helper->finalizeOnFailure(self, isDeleted, swTable);
    Traces<B>::entryWrapper(3, " retVal: {}", retVal);
    return retVal;
}

}  // namespace VornPolicyCpu
