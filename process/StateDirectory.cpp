#include "process/StateDirectory.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace Process {

void checkStateDirectory(const std::string& path, const std::string& controlSocket) {
    const auto fail = [&](std::string_view why) {
        throw StateDirectoryError(fmt::format("state directory {}: {}", path, why));
    };
    struct stat status {};
    // A link is no directory: whoever may change it could lead this process elsewhere. With a slash
    // at its end it would be followed.
    const std::string itself = path.substr(0, path.find_last_not_of('/') + 1);
    if (::lstat((itself.empty() ? path : itself).c_str(), &status) != 0)
        fail(std::strerror(errno));
    if (!S_ISDIR(status.st_mode))
        fail("it is no directory");
    if (status.st_uid != ::geteuid())
        fail(fmt::format("it belongs to user {}, not to user {}", status.st_uid, ::geteuid()));
    if ((status.st_mode & S_IWOTH) != 0)
        fail(fmt::format("others may write to it: mode {:04o}", status.st_mode & 07777U));
    if (::access(path.c_str(), R_OK | W_OK | X_OK) != 0)
        fail(fmt::format("it is not writable: {}", std::strerror(errno)));
    if (controlSocket.size() >= sizeof(sockaddr_un{}.sun_path))
        fail("the path is too long for the sockets in it");
}

}  // namespace Process
