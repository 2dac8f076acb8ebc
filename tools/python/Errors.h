// Damages as warnings.
//
// Needs the interpreter's lock.
#pragma once

#include "tools/python/Bind.h"

namespace Python {

/// Warns with vorn.DamageWarning. Throws py::error_already_set where warnings are errors.
void warnOf(const Inspect::Damage& damage);

}  // namespace Python
