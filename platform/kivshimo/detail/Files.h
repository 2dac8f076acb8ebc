// Files and folders of shared memory below their root: made, opened, checked, locked, kept aside.
//
// Used by MappedFile only.
//
// What always holds:
//  1. Below the root no symbolic link is followed. What a writer opens belongs to this user, and
//     others may not write to its folders.
//  2. Folders have mode 0750, files 0640, whatever the process's mask is.
#pragma once

#include <sys/stat.h>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/kivshimo/detail/MappedFile.h"

namespace KivShimo::detail {

inline constexpr mode_t kFileMode = 0640;

/// Throws MountError with the reason of the last failed system call.
[[noreturn]] void throwErrno(std::string_view path, std::string_view operation);

/// Opens the folder that holds the file, making the folders from the root on where they are
/// missing.
Descriptor folderOf(const std::string& root, const std::string& file);

/// Opens the folder that holds a file below its root, for a reader: makes none, and follows no link
/// below the root. The root itself may lie behind links.
Descriptor folderBelow(const std::string& root, const std::string& file);

/// The last part of a path.
std::string nameIn(const std::string& file);

/// Size and kind of what is open. Throws MountError unless it is a regular file of this user; for
/// readers, root's files will do, and root reads all.
struct stat checkedStatus(const Descriptor& descriptor, const std::string& path, bool forReading);

/// Takes the write lock that ends with the last descriptor of this open file. False when somebody
/// else has it.
bool locked(const Descriptor& descriptor, const std::string& path);

/// Renames the file to "<name>.damaged-<n>" and returns that name. At most 3 are kept; the oldest
/// goes.
std::string keptAside(const Descriptor& folder, const std::string& file);

/// The manifest beside a table file: says that the table existed, and who writes.
///
///   0       8               12        16          24         56
///   | magic | layoutVersion | existed | holderPid | reserved | checksum |
struct Manifest {
    std::uint64_t magic;
    std::uint32_t layoutVersion;
    std::uint32_t existed;
    std::uint64_t holderPid;
    std::uint64_t reserved[4];
    std::uint64_t checksum;
};
static_assert(sizeof(Manifest) == 64 && offsetof(Manifest, holderPid) == 16);

/// The manifest's content. An empty one is all zero; a damaged one says that the table existed.
Manifest manifestIn(const Descriptor& descriptor);
void manifestIs(const Descriptor& descriptor, const std::string& path, bool existed);

}  // namespace KivShimo::detail
