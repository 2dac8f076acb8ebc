// Damages as warnings, and files that cannot be read.
//
// Needs the interpreter's lock.
#pragma once

#include <string>
#include <system_error>

#include "tools/python/Bind.h"

namespace Python {

/// Warns with vorn.DamageWarning. Throws py::error_already_set where warnings are errors.
void warnOf(const Inspect::Damage& damage);

/// Throws vorn.FileError, with the errno and the file.
[[noreturn]] void raiseFileError(const std::system_error& error, const std::string& file);

}  // namespace Python
