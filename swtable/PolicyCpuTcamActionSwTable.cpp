// The action table in the plug-in: its instantiation, registration and factories.

#include "swtable/PolicyCpuTcamActionSwTable.h"

#include "catalogue/Modules.h"
#include "swtable/SwTableImpl.h"

namespace VornPolicyCpu {

template class SwTable<PolicyCpuTcamActionBinding>;
template class EntryWrapper<PolicyCpuTcamActionBinding>;

namespace {

const Kiv::ModuleRegistration infraTypesModule(infraTypesModuleOf<PolicyCpuTcamActionBinding>());
const Kiv::ModuleRegistration swTableModule(swTableModuleOf<PolicyCpuTcamActionBinding>());

}  // namespace

Brumo::Ptr<PolicyCpuTcamActionSwTable> policyCpuTcamActionSwTableFactory(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuTcamActionEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver) {
    return Brumo::make<PolicyCpuTcamActionSwTable>(name, tableId, unit, tableSet, entryLog,
                                                   groupResolver);
}

Brumo::Ptr<PolicyCpuTcamActionSwTable> PolicyCpuTcamActionSwTableIs(
    const Brumo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
    Asic::UnitId unit, Asic::OrderedSwTableSet* tableSet,
    const Brumo::Ptr<PolicyCpuTcamActionEntryLog>& entryLog,
    const Brumo::Ptr<Asic::GroupResolver>& groupResolver) {
    return policyCpuTcamActionSwTableFactory(name, tableId, unit, tableSet, entryLog,
                                             groupResolver);
}

Brumo::Ptr<PolicyCpuTcamActionEntryWrapper> policyCpuTcamActionEntryWrapperFactory(
    const PolicyCpuTcamActionEntry& entry,
    const Brumo::Ptr<PolicyCpuTcamActionSwTable::EntryHandle>& entryHandle) {
    return Brumo::make<PolicyCpuTcamActionEntryWrapper>(entry, entryHandle);
}

Brumo::Ptr<PolicyCpuTcamActionEntryWrapper> PolicyCpuTcamActionEntryWrapperIs(
    const PolicyCpuTcamActionEntry& entry,
    const Brumo::Ptr<PolicyCpuTcamActionSwTable::EntryHandle>& entryHandle) {
    return policyCpuTcamActionEntryWrapperFactory(entry, entryHandle);
}

Brumo::Ptr<PolicyCpuTcamActionResolverEntry> policyCpuTcamActionResolverEntryFactory(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<PolicyCpuTcamActionEntryWrapper>& entryWrapper) {
    return Brumo::make<PolicyCpuTcamActionResolverEntry>(dependantEntryHandle, flags, swTable,
                                                         entryWrapper);
}

Brumo::Ptr<PolicyCpuTcamActionResolverEntry> PolicyCpuTcamActionResolverEntryIs(
    const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependantEntryHandle,
    Asic::EntryFlags flags, PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<PolicyCpuTcamActionEntryWrapper>& entryWrapper) {
    return policyCpuTcamActionResolverEntryFactory(dependantEntryHandle, flags, swTable,
                                                   entryWrapper);
}

Brumo::Ptr<PolicyCpuTcamActionSwTableHelperBase> policyCpuTcamActionSwTableHelperBaseFactory() {
    return Brumo::make<PolicyCpuTcamActionSwTableHelperBase>();
}

Brumo::Ptr<PolicyCpuTcamActionSwTableHelperBase> PolicyCpuTcamActionSwTableHelperBaseIs() {
    return policyCpuTcamActionSwTableHelperBaseFactory();
}

Brumo::Ptr<PolicyCpuTcamActionSwTableIteratorState> policyCpuTcamActionSwTableIteratorStateFactory(
    const Brumo::Ptr<const PolicyCpuTcamActionSwTable>& swTable) {
    return Brumo::make<PolicyCpuTcamActionSwTableIteratorState>(swTable);
}

}  // namespace VornPolicyCpu
