// The interface of the IPv6 match table family.
#pragma once

#include "interface/Interface.h"
#include "swtable/PolicyCpuV6TcamEntrySwTable.h"

namespace VornPolicyCpu {

using PolicyCpuV6TcamEntryInterface = Interface<PolicyCpuV6TcamEntryBinding>;
extern template class Interface<PolicyCpuV6TcamEntryBinding>;

}  // namespace VornPolicyCpu
