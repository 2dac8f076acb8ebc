// The IPv6 match table: its binding. It has no linkages.
#pragma once

#include "catalogue/Binding.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace VornPolicyCpu {

struct PolicyCpuV6TcamEntryBinding
    : TableBinding<PolicyCpuV6TcamEntryBinding, PolicyCpuV6TcamEntryTypes> {};

}  // namespace VornPolicyCpu
