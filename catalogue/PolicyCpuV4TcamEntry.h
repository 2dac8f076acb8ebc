// The IPv4 match table: its binding. It has no linkages.
#pragma once

#include "catalogue/Binding.h"
#include "types/PolicyCpuV4TcamEntry.h"

namespace VornPolicyCpu {

struct PolicyCpuV4TcamEntryBinding
    : TableBinding<PolicyCpuV4TcamEntryBinding, PolicyCpuV4TcamEntryTypes> {};

}  // namespace VornPolicyCpu
