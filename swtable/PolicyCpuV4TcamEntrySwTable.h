// The IPv4 match table: its software table, wrappers, resolver entries and hooks.
#pragma once

#include "entrylog/PolicyCpuV4TcamEntryEntryLog.h"
#include "swtable/EntryIterator.h"
#include "swtable/EntryWrapper.h"
#include "swtable/SwTable.h"
#include "swtable/SwTableEntriesPy.h"

namespace VornPolicyCpu {

using PolicyCpuV4TcamEntryEntryWrapper = EntryWrapper<PolicyCpuV4TcamEntryBinding>;
using PolicyCpuV4TcamEntrySwTable = SwTable<PolicyCpuV4TcamEntryBinding>;

using PolicyCpuV4TcamEntryResolverEntry = ResolverEntry<PolicyCpuV4TcamEntryBinding>;
using PolicyCpuV4TcamEntrySwTableHelperBase = SwTableHelperBase<PolicyCpuV4TcamEntryBinding>;
using PolicyCpuV4TcamEntrySwTableIteratorState = SwTableIteratorState<PolicyCpuV4TcamEntryBinding>;
extern template class SwTable<PolicyCpuV4TcamEntryBinding>;
extern template class EntryWrapper<PolicyCpuV4TcamEntryBinding>;

/// Makes a table of a unit, without linkages yet. `tableSet` outlives it.
Brumo::Ptr<PolicyCpuV4TcamEntrySwTable> policyCpuV4TcamEntrySwTableFactory(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver);
/// The same.
Brumo::Ptr<PolicyCpuV4TcamEntrySwTable> PolicyCpuV4TcamEntrySwTableIs(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver);

/// Wraps an entry for its change.
Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper> policyCpuV4TcamEntryEntryWrapperFactory(
    const PolicyCpuV4TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV4TcamEntrySwTable::EntryHandle>& entryHandle);
Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper> PolicyCpuV4TcamEntryEntryWrapperIs(
    const PolicyCpuV4TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV4TcamEntrySwTable::EntryHandle>& entryHandle);

/// Makes what the group resolver queues of a change.
Brumo::Ptr<PolicyCpuV4TcamEntryResolverEntry> policyCpuV4TcamEntryResolverEntryFactory(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV4TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper>& entryWrapper);
Brumo::Ptr<PolicyCpuV4TcamEntryResolverEntry> PolicyCpuV4TcamEntryResolverEntryIs(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV4TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper>& entryWrapper);

/// Makes the default hooks.
Brumo::Ptr<PolicyCpuV4TcamEntrySwTableHelperBase> policyCpuV4TcamEntrySwTableHelperBaseFactory();
Brumo::Ptr<PolicyCpuV4TcamEntrySwTableHelperBase> PolicyCpuV4TcamEntrySwTableHelperBaseIs();

/// Makes the state of a walk that has not begun.
Brumo::Ptr<PolicyCpuV4TcamEntrySwTableIteratorState>
policyCpuV4TcamEntrySwTableIteratorStateFactory(
    const Brumo::Ptr<const PolicyCpuV4TcamEntrySwTable>& swTable);

}  // namespace VornPolicyCpu
