// The entry log of the action table: its instantiation, registrations and factories.
#include "entrylog/PolicyCpuTcamActionEntryLog.h"

#include "catalogue/Modules.h"
#include "entrylog/EntryLogImpl.h"

namespace VornPolicyCpu {

template class EntryLog<PolicyCpuTcamActionBinding>;

namespace {

const ShimoTypes<PolicyCpuTcamActionTypes> shimoTypes;
const Kiv::ModuleRegistration module(entryLogModule<PolicyCpuTcamActionBinding>());

}  // namespace

Brumo::Ptr<PolicyCpuTcamActionEntryLog> policyCpuTcamActionEntryLogFactory(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName) {
    return entryLogFactory<PolicyCpuTcamActionBinding>(tableId, entityManager, groupInterface,
                                                       agentName);
}

Brumo::Ptr<PolicyCpuTcamActionEntryLog> PolicyCpuTcamActionEntryLogIs(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName) {
    return policyCpuTcamActionEntryLogFactory(tableId, entityManager, groupInterface, agentName);
}

}  // namespace VornPolicyCpu
