// The files of a state directory in a recording: as a process found them, and laid out again.
//
// Any thread. Only tables and their manifests are told: what else lies there, as rings, sockets,
// files that were kept aside and recordings, a process that begins does not look at.
#pragma once

#include <functional>
#include <string>

#include "recording/Events.h"

namespace Recording {

/// Calls `tell` for each file below the directory, in the order of their paths. What another
/// process changes meanwhile, as the hardware side may its acknowledgements, is as it was at some
/// time. Throws std::system_error with path and operation.
void forEachFile(const std::string& directory, const std::function<void(const File&)>& tell);

/// Makes the file below the directory. Throws std::system_error, FormatError for a path that leads
/// elsewhere.
void layOut(const File& file, const std::string& directory);

}  // namespace Recording
