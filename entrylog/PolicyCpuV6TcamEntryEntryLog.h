// The entry log of the IPv6 match table.
#pragma once

#include "catalogue/PolicyCpuV6TcamEntry.h"
#include "entrylog/EntryLog.h"

namespace VornPolicyCpu {

using PolicyCpuV6TcamEntryConfigShimo = ConfigShimo<PolicyCpuV6TcamEntryTypes>;
using PolicyCpuV6TcamEntryEntryLogShimo = EntryLogShimo<PolicyCpuV6TcamEntryTypes>;
using PolicyCpuV6TcamEntryEntryLog = EntryLog<PolicyCpuV6TcamEntryBinding>;
extern template class EntryLog<PolicyCpuV6TcamEntryBinding>;

/// Makes the entry log and mounts its change log. Throws KivShimo::MountError.
Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog> policyCpuV6TcamEntryEntryLogFactory(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName);
/// The same.
Brumo::Ptr<PolicyCpuV6TcamEntryEntryLog> PolicyCpuV6TcamEntryEntryLogIs(
    Asic::SwTableId tableId, const Brumo::Ptr<Regdb::EntityManager>& entityManager,
    const Brumo::Ptr<Asic::GroupInterface>& groupInterface, const Brumo::String& agentName);

}  // namespace VornPolicyCpu
