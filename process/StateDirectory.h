// The directory in which a process keeps everything that outlives it.
#pragma once

#include <stdexcept>
#include <string>

namespace Process {

/// Where the installed services have theirs.
inline constexpr const char* kServiceStateDirectory = "/run/vorn";

/// Path and reason.
class StateDirectoryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Throws StateDirectoryError unless the path is a directory of this process's user that it, and
/// not everybody, can write to, and short enough for the control socket, which has the longest name
/// of the sockets in it. Changes nothing.
void checkStateDirectory(const std::string& path, const std::string& controlSocket);

}  // namespace Process
