// The IPv6 match table: its software table, wrappers, resolver entries and hooks.
#pragma once

#include "entrylog/PolicyCpuV6TcamEntryEntryLog.h"
#include "swtable/EntryIterator.h"
#include "swtable/EntryWrapper.h"
#include "swtable/SwTable.h"
#include "swtable/SwTableEntriesPy.h"

namespace VornPolicyCpu {

using PolicyCpuV6TcamEntryEntryWrapper = EntryWrapper<PolicyCpuV6TcamEntryBinding>;
using PolicyCpuV6TcamEntrySwTable = SwTable<PolicyCpuV6TcamEntryBinding>;

using PolicyCpuV6TcamEntryResolverEntry = ResolverEntry<PolicyCpuV6TcamEntryBinding>;
using PolicyCpuV6TcamEntrySwTableHelperBase = SwTableHelperBase<PolicyCpuV6TcamEntryBinding>;
using PolicyCpuV6TcamEntrySwTableIteratorState = SwTableIteratorState<PolicyCpuV6TcamEntryBinding>;
extern template class SwTable<PolicyCpuV6TcamEntryBinding>;
extern template class EntryWrapper<PolicyCpuV6TcamEntryBinding>;

/// Makes a table of a unit, without linkages yet. `tableSet` outlives it.
Brumo::Ptr<PolicyCpuV6TcamEntrySwTable> policyCpuV6TcamEntrySwTableFactory(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver);
/// The same.
Brumo::Ptr<PolicyCpuV6TcamEntrySwTable> PolicyCpuV6TcamEntrySwTableIs(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver);

/// Wraps an entry for its change.
Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper> policyCpuV6TcamEntryEntryWrapperFactory(
    const PolicyCpuV6TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV6TcamEntrySwTable::EntryHandle>& entryHandle);
Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper> PolicyCpuV6TcamEntryEntryWrapperIs(
    const PolicyCpuV6TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV6TcamEntrySwTable::EntryHandle>& entryHandle);

/// Makes what the group resolver queues of a change.
Brumo::Ptr<PolicyCpuV6TcamEntryResolverEntry> policyCpuV6TcamEntryResolverEntryFactory(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV6TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper>& entryWrapper);
Brumo::Ptr<PolicyCpuV6TcamEntryResolverEntry> PolicyCpuV6TcamEntryResolverEntryIs(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV6TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper>& entryWrapper);

/// Makes the default hooks.
Brumo::Ptr<PolicyCpuV6TcamEntrySwTableHelperBase> policyCpuV6TcamEntrySwTableHelperBaseFactory();
Brumo::Ptr<PolicyCpuV6TcamEntrySwTableHelperBase> PolicyCpuV6TcamEntrySwTableHelperBaseIs();

/// Makes the state of a walk that has not begun.
Brumo::Ptr<PolicyCpuV6TcamEntrySwTableIteratorState>
policyCpuV6TcamEntrySwTableIteratorStateFactory(
    const Brumo::Ptr<const PolicyCpuV6TcamEntrySwTable>& swTable);

}  // namespace VornPolicyCpu
