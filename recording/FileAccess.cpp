#include "recording/FileAccess.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Recording {

void throwErrno(const std::string& file, const char* operation) {
    throw std::system_error(errno, std::generic_category(), file + ": " + operation);
}

Descriptor::~Descriptor() {
    if (fd_ >= 0)
        ::close(fd_);
}

std::vector<std::byte> allOf(const Descriptor& opened, const std::string& file) {
    struct stat status {};
    if (::fstat(opened.fd(), &status) != 0)
        throwErrno(file, "look at");
    if (!S_ISREG(status.st_mode)) {
        throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                                file + ": no regular file");
    }
    std::vector<std::byte> bytes(static_cast<std::size_t>(status.st_size));
    std::size_t had = 0;
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
    return bytes;
}

}  // namespace Recording
