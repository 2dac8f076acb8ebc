// The IPv6 match table in the plug-in: its instantiation, registration and factories.

#include "swtable/PolicyCpuV6TcamEntrySwTable.h"

#include "catalogue/Modules.h"
#include "swtable/SwTableImpl.h"

namespace VornPolicyCpu {

template class SwTable<PolicyCpuV6TcamEntryBinding>;
template class EntryWrapper<PolicyCpuV6TcamEntryBinding>;

namespace {

const Kiv::ModuleRegistration infraTypesModule(infraTypesModuleOf<PolicyCpuV6TcamEntryBinding>());
const Kiv::ModuleRegistration swTableModule(swTableModuleOf<PolicyCpuV6TcamEntryBinding>());

}  // namespace

Brumo::Ptr<PolicyCpuV6TcamEntrySwTable> policyCpuV6TcamEntrySwTableFactory(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver) {
    return Brumo::make<PolicyCpuV6TcamEntrySwTable>(name, tableId, unit, tableSet, entryLog,
                                                    groupResolver);
}

Brumo::Ptr<PolicyCpuV6TcamEntrySwTable> PolicyCpuV6TcamEntrySwTableIs(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver) {
    return policyCpuV6TcamEntrySwTableFactory(name, tableId, unit, tableSet, entryLog,
                                              groupResolver);
}

Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper> policyCpuV6TcamEntryEntryWrapperFactory(
    const PolicyCpuV6TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV6TcamEntrySwTable::EntryHandle>& entryHandle) {
    return Brumo::make<PolicyCpuV6TcamEntryEntryWrapper>(entry, entryHandle);
}

Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper> PolicyCpuV6TcamEntryEntryWrapperIs(
    const PolicyCpuV6TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV6TcamEntrySwTable::EntryHandle>& entryHandle) {
    return policyCpuV6TcamEntryEntryWrapperFactory(entry, entryHandle);
}

Brumo::Ptr<PolicyCpuV6TcamEntryResolverEntry> policyCpuV6TcamEntryResolverEntryFactory(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV6TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper>& entryWrapper) {
    return Brumo::make<PolicyCpuV6TcamEntryResolverEntry>(dependantEntryHandle, flags, swTable,
                                                          entryWrapper);
}

Brumo::Ptr<PolicyCpuV6TcamEntryResolverEntry> PolicyCpuV6TcamEntryResolverEntryIs(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV6TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV6TcamEntryEntryWrapper>& entryWrapper) {
    return policyCpuV6TcamEntryResolverEntryFactory(dependantEntryHandle, flags, swTable,
                                                    entryWrapper);
}

Brumo::Ptr<PolicyCpuV6TcamEntrySwTableHelperBase> policyCpuV6TcamEntrySwTableHelperBaseFactory() {
    return Brumo::make<PolicyCpuV6TcamEntrySwTableHelperBase>();
}

Brumo::Ptr<PolicyCpuV6TcamEntrySwTableHelperBase> PolicyCpuV6TcamEntrySwTableHelperBaseIs() {
    return policyCpuV6TcamEntrySwTableHelperBaseFactory();
}

Brumo::Ptr<PolicyCpuV6TcamEntrySwTableIteratorState>
policyCpuV6TcamEntrySwTableIteratorStateFactory(
    const Brumo::Ptr<const PolicyCpuV6TcamEntrySwTable>& swTable) {
    return Brumo::make<PolicyCpuV6TcamEntrySwTableIteratorState>(swTable);
}

}  // namespace VornPolicyCpu
