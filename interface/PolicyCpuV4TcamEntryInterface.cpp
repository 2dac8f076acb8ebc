#include "interface/PolicyCpuV4TcamEntryInterface.h"

#include "catalogue/Modules.h"
#include "interface/InterfaceImpl.h"

namespace VornPolicyCpu {

template class Interface<PolicyCpuV4TcamEntryBinding>;

namespace {

const Kiv::ModuleRegistration module(interfaceModule<PolicyCpuV4TcamEntryBinding>());

}  // namespace

}  // namespace VornPolicyCpu
