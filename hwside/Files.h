// Which table files there are. A link is there, wherever it leads, and refused when it is opened.
//
// Any thread. All throw KivShimo::MountError where it cannot be said; only a folder that is not
// there has no files: whoever took another failure for that would believe that everything is gone.
#pragma once

#include <string>
#include <vector>

#include "platform/asic/Versions.h"

namespace HwSide {

/// Whether anything has that name.
bool isThere(const std::string& file);
/// The table files in a folder, sorted.
std::vector<std::string> tableFilesIn(const std::string& folder);
/// The units that have a configuration in a folder, sorted.
std::vector<Asic::UnitId> unitsIn(const std::string& folder);

}  // namespace HwSide
