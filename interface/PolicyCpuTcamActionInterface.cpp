#include "interface/PolicyCpuTcamActionInterface.h"

#include "catalogue/Modules.h"
#include "interface/InterfaceImpl.h"

namespace VornPolicyCpu {

template class Interface<PolicyCpuTcamActionBinding>;

namespace {

const Kiv::ModuleRegistration module(interfaceModule<PolicyCpuTcamActionBinding>());

}  // namespace

}  // namespace VornPolicyCpu
