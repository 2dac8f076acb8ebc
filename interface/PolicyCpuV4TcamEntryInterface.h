// The interface of the IPv4 match table family.
#pragma once

#include "interface/Interface.h"
#include "swtable/PolicyCpuV4TcamEntrySwTable.h"

namespace VornPolicyCpu {

using PolicyCpuV4TcamEntryInterface = Interface<PolicyCpuV4TcamEntryBinding>;
extern template class Interface<PolicyCpuV4TcamEntryBinding>;

}  // namespace VornPolicyCpu
