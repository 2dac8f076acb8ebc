// Where the files of shared memory lie.
//
// Writers, readers and tools alike; no file is touched here.
//
// What always holds:
//  1. A table mounted at PATH lies in ROOT/PATH.table; beside it may lie its manifest, files kept
//     aside after damage, and one being made.
#pragma once

#include <string>
#include <string_view>

namespace KivShimo {

/// Below which all tables of a system lie unless told otherwise.
std::string defaultRoot(std::string_view systemName, bool local);

/// The file of a table; `path` may begin with a slash. Throws MountError for a path with empty
/// parts, "." or "..".
std::string tableFile(std::string_view root, std::string_view path);

constexpr std::string_view kTableSuffix = ".table";
constexpr std::string_view kManifestSuffix = ".manifest";
constexpr std::string_view kDamagedSuffix = ".damaged-";  ///< a number follows

}  // namespace KivShimo
