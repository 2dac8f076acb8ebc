// Files opened, read and refused, each failure with path and operation.
//
// Used by this folder only. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "recording/Events.h"

namespace Recording {

/// Of the last system call that failed. Throws std::system_error.
[[noreturn]] void throwErrno(const std::string& file, const char* operation);

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();

    /// Negative where nothing was opened.
    int fd() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

/// What a regular file holds from the offset on, at most `most` bytes. One that grows meanwhile is
/// read as far as it went at first, one that is cut meanwhile as far as it still goes. Throws
/// std::system_error.
std::vector<std::byte> partOf(const Descriptor& opened, const std::string& file, std::size_t offset,
                              std::size_t most);
/// All of it.
std::vector<std::byte> allOf(const Descriptor& opened, const std::string& file);
/// Throws std::system_error.
void writeAt(const Descriptor& opened, const std::string& file, const char* operation, Bytes bytes,
             std::size_t offset);

}  // namespace Recording
