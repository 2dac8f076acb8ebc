// The interface of the action table family.
#pragma once

#include "interface/Interface.h"
#include "swtable/PolicyCpuTcamActionSwTable.h"

namespace VornPolicyCpu {

using PolicyCpuTcamActionInterface = Interface<PolicyCpuTcamActionBinding>;
extern template class Interface<PolicyCpuTcamActionBinding>;

}  // namespace VornPolicyCpu
