// The entry log of the IPv6 match table: its instantiation, registrations and factories.
#include "entrylog/PolicyCpuV6TcamEntryEntryLog.h"

#include "catalogue/Modules.h"
#include "entrylog/EntryLogImpl.h"

namespace VornPolicyCpu {

template class EntryLog<PolicyCpuV6TcamEntryBinding>;

namespace {

const ShimoTypes<PolicyCpuV6TcamEntryTypes> shimoTypes;
const Kiv::ModuleRegistration module(entryLogModule<PolicyCpuV6TcamEntryBinding>());

}  // namespace

Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog> policyCpuV6TcamEntryEntryLogFactory(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName) {
    return entryLogFactory<PolicyCpuV6TcamEntryBinding>(tableId, entityManager, groupInterface,
                                                        agentName);
}

Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog> PolicyCpuV6TcamEntryEntryLogIs(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName) {
    return policyCpuV6TcamEntryEntryLogFactory(tableId, entityManager, groupInterface, agentName);
}

}  // namespace VornPolicyCpu
