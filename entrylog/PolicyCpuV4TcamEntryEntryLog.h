// The entry log of the IPv4 match table.
#pragma once

#include "catalogue/PolicyCpuV4TcamEntry.h"
#include "entrylog/EntryLog.h"

namespace VornPolicyCpu {

using PolicyCpuV4TcamEntryConfigShimo = ConfigShimo<PolicyCpuV4TcamEntryTypes>;
using PolicyCpuV4TcamEntryEntryLogShimo = EntryLogShimo<PolicyCpuV4TcamEntryTypes>;
using PolicyCpuV4TcamEntryEntryLog = EntryLog<PolicyCpuV4TcamEntryBinding>;
extern template class EntryLog<PolicyCpuV4TcamEntryBinding>;

/// Makes the entry log and mounts its change log. Throws KivShimo::MountError.
Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog> policyCpuV4TcamEntryEntryLogFactory(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName);
/// The same.
Brumo::Ptr<PolicyCpuV4TcamEntryEntryLog> PolicyCpuV4TcamEntryEntryLogIs(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName);

}  // namespace VornPolicyCpu
