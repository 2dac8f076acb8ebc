// The entry log of the action table.
#pragma once

#include "catalogue/PolicyCpuTcamAction.h"
#include "entrylog/EntryLog.h"

namespace VornPolicyCpu {

using PolicyCpuTcamActionConfigShimo = ConfigShimo<PolicyCpuTcamActionTypes>;
using PolicyCpuTcamActionEntryLogShimo = EntryLogShimo<PolicyCpuTcamActionTypes>;
using PolicyCpuTcamActionEntryLog = EntryLog<PolicyCpuTcamActionBinding>;
extern template class EntryLog<PolicyCpuTcamActionBinding>;

/// Makes the entry log and mounts its change log. Throws KivShimo::MountError.
Brumo::Ptr<PolicyCpuTcamActionEntryLog> policyCpuTcamActionEntryLogFactory(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName);
/// The same.
Brumo::Ptr<PolicyCpuTcamActionEntryLog> PolicyCpuTcamActionEntryLogIs(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName);

}  // namespace VornPolicyCpu
