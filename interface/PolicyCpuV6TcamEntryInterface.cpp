#include "interface/PolicyCpuV6TcamEntryInterface.h"

#include "catalogue/Modules.h"
#include "interface/InterfaceImpl.h"

namespace VornPolicyCpu {

template class Interface<PolicyCpuV6TcamEntryBinding>;

namespace {

const Kiv::ModuleRegistration module(interfaceModule<PolicyCpuV6TcamEntryBinding>());

}  // namespace

}  // namespace VornPolicyCpu
