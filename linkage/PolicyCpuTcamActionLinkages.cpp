#include "linkage/PolicyCpuTcamActionLinkages.h"

#include "catalogue/Modules.h"
#include "linkage/LinkageImpl.h"
#include "swtable/PolicyCpuTcamActionSwTable.h"

namespace VornPolicyCpu {

template class Linkage<PolicyCpuTcamActionBinding, CrpsIndexRequestBinding>;
template class Linkage<PolicyCpuTcamActionBinding, PolicerIndexRequestBinding>;

namespace {

const Kiv::ModuleRegistration module(
    linkageModule<PolicyCpuTcamActionBinding, CrpsIndexRequestBinding,
                  PolicerIndexRequestBinding>());

}  // namespace

Brumo::Ptr<PolicyCpuTcamActionCrpsIndexRequestLinkage>
policyCpuTcamActionCrpsIndexRequestLinkageFactory(
    PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<CrpsIndexRequestBinding::ClientInstance>& resTblClient) {
    return Brumo::make<PolicyCpuTcamActionCrpsIndexRequestLinkage>(swTable, resTblClient);
}

Brumo::Ptr<PolicyCpuTcamActionPolicerIndexRequestLinkage>
policyCpuTcamActionPolicerIndexRequestLinkageFactory(
    PolicyCpuTcamActionSwTable* swTable,
    const Brumo::Ptr<PolicerIndexRequestBinding::ClientInstance>& resTblClient) {
    return Brumo::make<PolicyCpuTcamActionPolicerIndexRequestLinkage>(swTable, resTblClient);
}

}  // namespace VornPolicyCpu
