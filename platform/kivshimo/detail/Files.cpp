// System calls on folders, files and manifests, each with its error.
#include "platform/kivshimo/detail/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/Paths.h"

namespace KivShimo::detail {
namespace {

constexpr mode_t kFolderMode = 0750;
constexpr int kMostKeptAside = 3;
constexpr std::uint64_t kManifestMagic = 0x31464E414D485356U;

void makeFolder(const std::string& path) {
    if (mkdir(path.c_str(), kFolderMode) == 0) {
        if (chmod(path.c_str(), kFolderMode) != 0)
            throwErrno(path, "set mode of folder");
    } else if (errno != EEXIST) {
        throwErrno(path, "make folder");
    }
}

/// The root may lie behind links, as /dev/shm does on some systems; itself it must be a folder.
Descriptor openedRoot(const std::string& root) {
    for (std::size_t slash = root.find('/', 1); slash != std::string::npos;
         slash = root.find('/', slash + 1)) {
        makeFolder(root.substr(0, slash));
    }
    // With a slash at its end a link would be followed.
    const std::string itself = root.substr(0, root.find_last_not_of('/') + 1);
    const std::string& path = itself.empty() ? root : itself;
    makeFolder(path);
    Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder)
        throwErrno(path, "open folder");
    return folder;
}

void checkFolder(const Descriptor& folder, const std::string& path) {
    struct stat status {};
    if (fstat(folder.fd(), &status) != 0)
        throwErrno(path, "check folder");
    if (status.st_uid != geteuid()) {
        throw MountError(path, "check folder", "belongs to another user");
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        throw MountError(
            path, "check folder",
            fmt::format("others may write to it: mode {:04o}", status.st_mode & 07777U));
    }
}

std::uint64_t sumOf(const Manifest& manifest) {
    return checksumOf(&manifest, offsetof(Manifest, checksum), kManifestMagic);
}

}  // namespace

void throwErrno(std::string_view path, std::string_view operation) {
    throw MountError(path, operation, std::strerror(errno));
}

Descriptor folderOf(const std::string& root, const std::string& file) {
    Descriptor folder = openedRoot(root);
    checkFolder(folder, root);
    std::size_t begin = root.size() + 1;
    for (std::size_t slash = file.find('/', begin); slash != std::string::npos;
         slash = file.find('/', begin)) {
        const std::string part = file.substr(begin, slash - begin);
        const std::string path = file.substr(0, slash);
        if (mkdirat(folder.fd(), part.c_str(), kFolderMode) == 0) {
            if (fchmodat(folder.fd(), part.c_str(), kFolderMode, 0) != 0) {
                throwErrno(path, "set mode of folder");
            }
        } else if (errno != EEXIST) {
            throwErrno(path, "make folder");
        }
        Descriptor next(
            openat(folder.fd(), part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next)
            throwErrno(path, "open folder");
        checkFolder(next, path);
        folder = std::move(next);
        begin = slash + 1;
    }
    return folder;
}

Descriptor folderBelow(const std::string& root, const std::string& file) {
    constexpr int kPathOnly = O_PATH | O_DIRECTORY | O_CLOEXEC;
    Descriptor folder(open(root.empty() ? "/" : root.c_str(), kPathOnly));
    if (!folder)
        throwErrno(root, "open folder");
    std::size_t begin = root.size() + 1;
    for (std::size_t slash = file.find('/', begin); slash != std::string::npos;
         slash = file.find('/', begin)) {
        Descriptor next(
            openat(folder.fd(), file.substr(begin, slash - begin).c_str(), kPathOnly | O_NOFOLLOW));
        if (!next)
            throwErrno(file.substr(0, slash), "open folder");
        folder = std::move(next);
        begin = slash + 1;
    }
    return folder;
}

std::string nameIn(const std::string& file) {
    return file.substr(file.rfind('/') + 1);
}

struct stat checkedStatus(const Descriptor& descriptor, const std::string& path, bool forReading) {
    struct stat status {};
    if (fstat(descriptor.fd(), &status) != 0)
        throwErrno(path, "check");
    if (!S_ISREG(status.st_mode))
        throw MountError(path, "check", "no regular file");
    const bool readable = forReading && (status.st_uid == 0 || geteuid() == 0);
    if (status.st_uid != geteuid() && !readable) {
        throw MountError(path, "check", "belongs to another user");
    }
    return status;
}

bool locked(const Descriptor& descriptor, const std::string& path) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(descriptor.fd(), F_OFD_SETLK, &lock) == 0) {
        if (fchmod(descriptor.fd(), kFileMode) != 0)
            throwErrno(path, "set mode");
        return true;
    }
    if (errno == EAGAIN || errno == EACCES)
        return false;
    throwErrno(path, "lock");
}

std::string keptAside(const Descriptor& folder, const std::string& file) {
    const std::string name = nameIn(file);
    const auto numbered = [&name](int n) {
        return name + std::string(kDamagedSuffix) + std::to_string(n);
    };
    int free = 1;
    while (free <= kMostKeptAside &&
           faccessat(folder.fd(), numbered(free).c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
        ++free;
    }
    if (free > kMostKeptAside) {
        for (int n = 1; n < kMostKeptAside; ++n) {
            if (renameat(folder.fd(), numbered(n + 1).c_str(), folder.fd(), numbered(n).c_str()) !=
                0) {
                throwErrno(file, "keep older damaged files");
            }
        }
        free = kMostKeptAside;
    }
    if (renameat(folder.fd(), name.c_str(), folder.fd(), numbered(free).c_str()) != 0) {
        throwErrno(file, "keep damaged file aside");
    }
    return numbered(free);
}

Manifest manifestIn(const Descriptor& descriptor) {
    Manifest manifest{};
    const ssize_t got = pread(descriptor.fd(), &manifest, sizeof(manifest), 0);
    if (got == 0)
        return Manifest{};
    if (got != sizeof(manifest) || manifest.magic != kManifestMagic ||
        manifest.checksum != sumOf(manifest)) {
        manifest = {};
        manifest.existed = 1;
    }
    return manifest;
}

void manifestIs(const Descriptor& descriptor, const std::string& path, bool existed) {
    Manifest manifest{};
    manifest.magic = kManifestMagic;
    manifest.layoutVersion = kLayoutVersion;
    manifest.existed = existed ? 1 : 0;
    manifest.holderPid = static_cast<std::uint64_t>(getpid());
    manifest.checksum = sumOf(manifest);
    if (pwrite(descriptor.fd(), &manifest, sizeof(manifest), 0) != sizeof(manifest)) {
        throwErrno(path, "write manifest");
    }
}

}  // namespace KivShimo::detail
