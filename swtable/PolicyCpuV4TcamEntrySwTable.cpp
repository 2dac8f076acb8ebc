// The IPv4 match table in the plug-in: its instantiation, registration and factories.

#include "swtable/PolicyCpuV4TcamEntrySwTable.h"

#include "catalogue/Modules.h"
#include "swtable/SwTableImpl.h"

namespace VornPolicyCpu {

template class SwTable<PolicyCpuV4TcamEntryBinding>;
template class EntryWrapper<PolicyCpuV4TcamEntryBinding>;

namespace {

const Kiv::ModuleRegistration infraTypesModule(infraTypesModuleOf<PolicyCpuV4TcamEntryBinding>());
const Kiv::ModuleRegistration swTableModule(swTableModuleOf<PolicyCpuV4TcamEntryBinding>());

}  // namespace

Brumo::Ptr<PolicyCpuV4TcamEntrySwTable> policyCpuV4TcamEntrySwTableFactory(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver) {
    return Brumo::make<PolicyCpuV4TcamEntrySwTable>(name, tableId, unit, tableSet, entryLog,
                                                    groupResolver);
}

Brumo::Ptr<PolicyCpuV4TcamEntrySwTable> PolicyCpuV4TcamEntrySwTableIs(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver) {
    return policyCpuV4TcamEntrySwTableFactory(name, tableId, unit, tableSet, entryLog,
                                              groupResolver);
}

Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper> policyCpuV4TcamEntryEntryWrapperFactory(
    const PolicyCpuV4TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV4TcamEntrySwTable::EntryHandle>& entryHandle) {
    return Brumo::make<PolicyCpuV4TcamEntryEntryWrapper>(entry, entryHandle);
}

Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper> PolicyCpuV4TcamEntryEntryWrapperIs(
    const PolicyCpuV4TcamEntryEntry& entry,
    const Brumo::Ptr<PolicyCpuV4TcamEntrySwTable::EntryHandle>& entryHandle) {
    return policyCpuV4TcamEntryEntryWrapperFactory(entry, entryHandle);
}

Brumo::Ptr<PolicyCpuV4TcamEntryResolverEntry> policyCpuV4TcamEntryResolverEntryFactory(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV4TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper>& entryWrapper) {
    return Brumo::make<PolicyCpuV4TcamEntryResolverEntry>(dependantEntryHandle, flags, swTable,
                                                          entryWrapper);
}

Brumo::Ptr<PolicyCpuV4TcamEntryResolverEntry> PolicyCpuV4TcamEntryResolverEntryIs(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuV4TcamEntrySwTable* swTable,
    const Brumo::Ptr<PolicyCpuV4TcamEntryEntryWrapper>& entryWrapper) {
    return policyCpuV4TcamEntryResolverEntryFactory(dependantEntryHandle, flags, swTable,
                                                    entryWrapper);
}

Brumo::Ptr<PolicyCpuV4TcamEntrySwTableHelperBase> policyCpuV4TcamEntrySwTableHelperBaseFactory() {
    return Brumo::make<PolicyCpuV4TcamEntrySwTableHelperBase>();
}

Brumo::Ptr<PolicyCpuV4TcamEntrySwTableHelperBase> PolicyCpuV4TcamEntrySwTableHelperBaseIs() {
    return policyCpuV4TcamEntrySwTableHelperBaseFactory();
}

Brumo::Ptr<PolicyCpuV4TcamEntrySwTableIteratorState>
policyCpuV4TcamEntrySwTableIteratorStateFactory(
    const Brumo::Ptr<const PolicyCpuV4TcamEntrySwTable>& swTable) {
    return Brumo::make<PolicyCpuV4TcamEntrySwTableIteratorState>(swTable);
}

}  // namespace VornPolicyCpu
