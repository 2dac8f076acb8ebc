// Files opened, read and refused, each failure with path and operation.
//
// Any thread.
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
    explicit Descriptor(int fd) : fd_(fd) {}
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

/// Adds what a regular file holds behind the bytes that were read of it before, at most `most`. One
/// that grows meanwhile is read as far as it went at first, one that is cut meanwhile as far as it
/// still goes. Throws std::system_error.
void readOn(const Descriptor& opened, const std::string& file, std::vector<std::byte>& bytes,
            std::size_t most);
/// All of it.
std::vector<std::byte> allOf(const Descriptor& opened, const std::string& file);
/// Throws std::system_error.
void writeAt(const Descriptor& opened, const std::string& file, const char* operation, Bytes bytes,
             std::size_t offset);

}  // namespace Recording
