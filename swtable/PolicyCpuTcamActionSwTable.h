// The action table: its software table, wrappers, resolver entries and hooks.
#pragma once

#include "entrylog/PolicyCpuTcamActionEntryLog.h"
#include "linkage/PolicyCpuTcamActionLinkages.h"
#include "swtable/EntryIterator.h"
#include "swtable/EntryWrapper.h"
#include "swtable/SwTable.h"
#include "swtable/SwTableEntriesPy.h"

namespace VornPolicyCpu {

/// The wrapper of an action, with what its resources have resolved to.
class PolicyCpuTcamActionEntryWrapper final : public EntryWrapper<PolicyCpuTcamActionBinding> {
public:
    using EntryWrapper::EntryWrapper;

    const Brumo::Ptr<const CrpsIndexRequestBinding::ResourceHandle>& counterRequestKeyResPtr()
        const {
        return resource<CrpsIndexRequestBinding>();
    }
    const Brumo::Ptr<const PolicerIndexRequestBinding::ResourceHandle>& policerRequestKeyResPtr()
        const {
        return resource<PolicerIndexRequestBinding>();
    }
    const VornCountersLib::CrpsIndexRequestEntryKey& counterRequestKey() const {
        return entry().counterRequestKey;
    }
    const VornPolicerLib::PolicerIndexRequestEntryKey& policerRequestKey() const {
        return entry().policerRequestKey;
    }
    const VornPolicerLib::PolicerIndexRequestClientData& policerClientData() const {
        return entry().policerClientData;
    }
    /// The unresolved value while there is no counter.
    std::uint32_t counterIndex() const {
        const auto& counter = counterRequestKeyResPtr();
        return counter == nullptr ? kNoCounterIndex : counter->counterIndex();
    }
    /// 0 while there is no counter.
    std::uint8_t featureId() const {
        const auto& counter = counterRequestKeyResPtr();
        return counter == nullptr ? std::uint8_t{0} : counter->featureId();
    }
    /// The unresolved value while there is no policer.
    std::uint16_t policerIndex() const {
        const auto& policer = policerRequestKeyResPtr();
        return policer == nullptr ? kNoPolicerIndex : policer->policerIndex();
    }
};

/// The action table of one unit.
class PolicyCpuTcamActionSwTable final : public SwTable<PolicyCpuTcamActionBinding> {
public:
    using SwTable::SwTable;

    const Brumo::Ptr<PolicyCpuTcamActionCrpsIndexRequestLinkage>& crpsIndexRequestLinkage() const {
        return linkage<CrpsIndexRequestBinding>();
    }
    void crpsIndexRequestLinkageIs(Brumo::Ptr<PolicyCpuTcamActionCrpsIndexRequestLinkage> linkage) {
        linkageIs<CrpsIndexRequestBinding>(std::move(linkage));
    }
    const Brumo::Ptr<PolicyCpuTcamActionPolicerIndexRequestLinkage>& policerIndexRequestLinkage()
        const {
        return linkage<PolicerIndexRequestBinding>();
    }
    void policerIndexRequestLinkageIs(
        Brumo::Ptr<PolicyCpuTcamActionPolicerIndexRequestLinkage> linkage) {
        linkageIs<PolicerIndexRequestBinding>(std::move(linkage));
    }
};

using PolicyCpuTcamActionResolverEntry = ResolverEntry<PolicyCpuTcamActionBinding>;
using PolicyCpuTcamActionSwTableHelperBase = SwTableHelperBase<PolicyCpuTcamActionBinding>;
using PolicyCpuTcamActionSwTableIteratorState = SwTableIteratorState<PolicyCpuTcamActionBinding>;
extern template class SwTable<PolicyCpuTcamActionBinding>;
extern template class EntryWrapper<PolicyCpuTcamActionBinding>;

/// Makes a table of a unit, without linkages yet. `tableSet` outlives it.
Brumo::Ptr<PolicyCpuTcamActionSwTable> policyCpuTcamActionSwTableFactory(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuTcamActionEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver);
/// The same.
Brumo::Ptr<PolicyCpuTcamActionSwTable> PolicyCpuTcamActionSwTableIs(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuTcamActionEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver);

/// Wraps an entry for its change.
Brumo::Ptr<PolicyCpuTcamActionEntryWrapper> policyCpuTcamActionEntryWrapperFactory(
    const PolicyCpuTcamActionEntry& entry,
    const Brumo::Ptr<PolicyCpuTcamActionSwTable::EntryHandle>& entryHandle);
Brumo::Ptr<PolicyCpuTcamActionEntryWrapper> PolicyCpuTcamActionEntryWrapperIs(
    const PolicyCpuTcamActionEntry& entry,
    const Brumo::Ptr<PolicyCpuTcamActionSwTable::EntryHandle>& entryHandle);

/// Makes what the group resolver queues of a change.
Brumo::Ptr<PolicyCpuTcamActionResolverEntry> policyCpuTcamActionResolverEntryFactory(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<PolicyCpuTcamActionEntryWrapper>& entryWrapper);
Brumo::Ptr<PolicyCpuTcamActionResolverEntry> PolicyCpuTcamActionResolverEntryIs(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<PolicyCpuTcamActionEntryWrapper>& entryWrapper);

/// Makes the default hooks.
Brumo::Ptr<PolicyCpuTcamActionSwTableHelperBase> policyCpuTcamActionSwTableHelperBaseFactory();
Brumo::Ptr<PolicyCpuTcamActionSwTableHelperBase> PolicyCpuTcamActionSwTableHelperBaseIs();

/// Makes the state of a walk that has not begun.
Brumo::Ptr<PolicyCpuTcamActionSwTableIteratorState> policyCpuTcamActionSwTableIteratorStateFactory(
    const Brumo::Ptr<const PolicyCpuTcamActionSwTable>& swTable);

}  // namespace VornPolicyCpu
