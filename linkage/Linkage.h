// A linkage connects a software table to one resource table: it requests resources for entries,
// says how far they have come, and tracks which committed entries use which resource.
//
// Event thread only. The software table owns its linkages; a linkage refers to its table.
//
// What always holds:
//  1. At most one usage state machine exists for a resource key, made for one handle.
//  2. The default resource key means that no resource is needed; it never has a state machine.
//  3. The resource table learns of a use (ackUpdate) when the first entry that uses the resource is
//     committed, and of its end (release) when the last one has left; not when the table is cleared
//     and the resources are kept: then the machines stay, with the keys of entries that are gone.
#pragma once

#include <string>

#include "linkage/LocalUsageUpdateSm.h"
#include "platform/asic/NeededEntry.h"
#include "platform/kiv/Entity.h"

namespace VornPolicyCpu {

template <class B, class L>
class Linkage final : public Kiv::Entity {
public:
    using Binding = B;
    using ResourceBinding = L;
    using Key = typename B::Key;
    using Entry = typename B::Entry;
    using Wrapper = typename B::EntryWrapper;
    using WrapperPtr = Brumo::Ptr<Wrapper>;
    using ConstWrapperPtr = Brumo::Ptr<const Wrapper>;
    using ResourceKey = typename L::ResourceKey;
    using ResourceHandle = typename L::ResourceHandle;
    using HandlePtr = Brumo::Ptr<const ResourceHandle>;
    using ClientPtr = Brumo::Ptr<typename L::ClientInstance>;
    using UsageSm = LocalUsageUpdateSm<B, L>;
    using UsageSmPtr = Brumo::Ptr<UsageSm>;
    using DependencyPtr = Brumo::Ptr<const Asic::DependencyEntryHandle>;

    static constexpr Kiv::AttributeId kEntryUsageSm = 1;

    Linkage(typename B::SwTable* swTable, ClientPtr resTblClient)
        : swTable_(swTable), resTblClient_(std::move(resTblClient)) {}
    ~Linkage() override;

    const Kiv::TypeData& typeData() const override;

    typename B::SwTable* swTable() const { return swTable_; }
    const ClientPtr& resTblClient() const { return resTblClient_; }

    // Resolution.

    /// Requests the entry's resource and puts the handle into the wrapper's slot. An entry that
    /// needs none leaves the slot as it was.
    void resolveEntry(const WrapperPtr& wrapper);
    /// created: wait; complete: usable, or none is needed; resourceFailed: there will be none.
    Asic::EntryState entryResolutionState(const ConstWrapperPtr& wrapper) const;
    /// Reconnects the wrapper to the handle that is tracked for its key, without a request.
    void setResourceHandle(const WrapperPtr& wrapper);
    /// The versions that the hardware must hold before an entry that uses the resource.
    Brumo::Ptr<Asic::NeededEntry> getNeededEntrySet(const ConstWrapperPtr& wrapper) const;
    /// Adds them to others.
    void addNeeded(const ConstWrapperPtr& wrapper, Asic::NeededEntry& to) const;
    ResourceKey resourceKeyFromEntry(const Entry& entry) const {
        return L::resourceKeyFromEntry(entry);
    }
    /// The handle in the wrapper's slot; may be null.
    const HandlePtr& resourceOf(const Wrapper& wrapper) const {
        return wrapper.template resource<L>();
    }

    // Usage.

    /// Records the use of a restored entry, without a word to the resource table.
    void restoreEntry(const WrapperPtr& wrapper);
    /// After a commit: moves the use from the old entry's resource to the new one's. A default
    /// `oldEntry` means that there was none.
    void updateLocalUsage(const WrapperPtr& wrapper, const Entry& oldEntry, bool isDeleted);
    /// After a restore: brings all entries up to date with the resources they use.
    void handleResourceChangeAtInit();

    /// Null when no committed entry uses the key.
    UsageSmPtr entryUsageSm(const ResourceKey& key) const;
    std::size_t entryUsageSms() const { return entryUsageSm_.size(); }
    const Kiv::HashMap2018<ResourceKey, UsageSmPtr>& entryUsageSmCollection() const {
        return entryUsageSm_;
    }
    /// The state machine of the handle's key, made on first use. Throws Kiv::NullArgumentError for
    /// a null handle and Kiv::ReinstantiationError when the key's machine has another handle.
    UsageSmPtr entryUsageSmIs(const HandlePtr& handle);
    /// Removes the machine and returns it; null when there is none.
    UsageSmPtr entryUsageSmDel(const ResourceKey& key);
    /// Removes all machines without a word to the resource table.
    void entryUsageSmDelAll();

private:
    typename B::SwTable* swTable_;
    ClientPtr resTblClient_;
    Kiv::HashMap2018<ResourceKey, UsageSmPtr> entryUsageSm_;
};

/// What linkages trace on: a handle named by the linkage's class.
template <class L>
struct LinkageTraces {
    static inline const Brumo::TraceSource accessor{L::kClassName, "SwTableResourceAccessor"};
};

}  // namespace VornPolicyCpu
