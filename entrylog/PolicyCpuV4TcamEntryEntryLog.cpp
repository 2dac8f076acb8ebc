// The entry log of the IPv4 match table: its instantiation, registrations and factories.
#include "entrylog/PolicyCpuV4TcamEntryEntryLog.h"

#include "catalogue/Modules.h"
#include "entrylog/EntryLogImpl.h"

namespace VornPolicyCpu {

template class EntryLog<PolicyCpuV4TcamEntryBinding>;

namespace {

const ShimoTypes<PolicyCpuV4TcamEntryTypes> shimoTypes;
const Kiv::ModuleRegistration module(entryLogModule<PolicyCpuV4TcamEntryBinding>());

}  // namespace

Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog> policyCpuV4TcamEntryEntryLogFactory(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName) {
    return entryLogFactory<PolicyCpuV4TcamEntryBinding>(tableId, entityManager, groupInterface,
                                                        agentName);
}

Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog> PolicyCpuV4TcamEntryEntryLogIs(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName) {
    return policyCpuV4TcamEntryEntryLogFactory(tableId, entityManager, groupInterface, agentName);
}

}  // namespace VornPolicyCpu
