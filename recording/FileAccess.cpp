#include "recording/FileAccess.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

namespace Recording {

void throwErrno(const std::string& file, const char* operation) {
    throw std::system_error(errno, std::generic_category(), file + ": " + operation);
}

Descriptor::~Descriptor() {
    if (fd_ >= 0)
        ::close(fd_);
}

void readOn(const Descriptor& opened, const std::string& file, std::vector<std::byte>& bytes,
            std::size_t most) {
    struct stat status {};
    if (::fstat(opened.fd(), &status) != 0)
        throwErrno(file, "look at");
    if (!S_ISREG(status.st_mode)) {
        throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                                file + ": no regular file");
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    std::size_t had = bytes.size();
    bytes.resize(had + std::min(most, size - std::min(size, had)));
    while (had < bytes.size()) {
        const ssize_t got =
            ::pread(opened.fd(), bytes.data() + had, bytes.size() - had, static_cast<off_t>(had));
        if (got < 0 && errno != EINTR)
            throwErrno(file, "read");
        if (got == 0)
            break;
        had += got < 0 ? 0 : static_cast<std::size_t>(got);
    }
    bytes.resize(had);
}

std::vector<std::byte> allOf(const Descriptor& opened, const std::string& file) {
    std::vector<std::byte> bytes;
    readOn(opened, file, bytes, std::numeric_limits<std::size_t>::max());
    return bytes;
}

void writeAt(const Descriptor& opened, const std::string& file, const char* operation, Bytes bytes,
             std::size_t offset) {
    while (!bytes.empty()) {
        const ssize_t put =
            ::pwrite(opened.fd(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            throwErrno(file, operation);
        bytes = bytes.subspan(static_cast<std::size_t>(put));
        offset += static_cast<std::size_t>(put);
    }
}

}  // namespace Recording
