// The linkages of the action table: to the counter indexes and to the policer indexes.
#pragma once

#include "catalogue/PolicyCpuTcamAction.h"
#include "linkage/Linkage.h"

namespace VornPolicyCpu {

using PolicyCpuTcamActionCrpsIndexRequestLinkage =
    Linkage<PolicyCpuTcamActionBinding, CrpsIndexRequestBinding>;
using PolicyCpuTcamActionPolicerIndexRequestLinkage =
    Linkage<PolicyCpuTcamActionBinding, PolicerIndexRequestBinding>;
extern template class Linkage<PolicyCpuTcamActionBinding, CrpsIndexRequestBinding>;
extern template class Linkage<PolicyCpuTcamActionBinding, PolicerIndexRequestBinding>;

/// Makes the counter linkage of a table; `swTable` outlives it.
Brumo::Ptr<PolicyCpuTcamActionCrpsIndexRequestLinkage>
policyCpuTcamActionCrpsIndexRequestLinkageFactory(
    PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<CrpsIndexRequestBinding::ClientInstance>& resTblClient);

/// Makes the policer linkage of a table; `swTable` outlives it.
Brumo::Ptr<PolicyCpuTcamActionPolicerIndexRequestLinkage>
policyCpuTcamActionPolicerIndexRequestLinkageFactory(
    PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<PolicerIndexRequestBinding::ClientInstance>& resTblClient);

}  // namespace VornPolicyCpu
