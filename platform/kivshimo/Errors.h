// What can go wrong with shared memory, as exceptions that name the file and the reason.
//
// Thrown by both sides: writers and readers of mounted files. The event thread of a process and
// its tools catch them where they turn failures into one line of text.
//
// What always holds:
//  1. CorruptionError means rot: bytes that were stored whole do not verify any more. A store that
//     was never finished is no corruption.
//  2. MountError means that nothing was mounted; nothing on disk was changed by a reader.
//  3. BusyError means "not now": a writer, alive or dead, is in the middle of a store.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace KivShimo {

/// Stored bytes do not verify. The message names file, collection and slot.
class CorruptionError : public std::runtime_error {
public:
    CorruptionError(std::string_view file, std::string_view collection, std::uint64_t slot,
                    std::string_view what);
};

/// Hears of what cannot be read.
using CorruptionReport = std::function<void(const CorruptionError&)>;

/// A file could not be mounted: path, operation and reason.
class MountError : public std::runtime_error {
public:
    MountError(std::string_view path, std::string_view operation, std::string_view reason);
};

/// Somebody else has mounted the file for writing. The message names the holder's pid.
class DuplicateWriterError : public MountError {
public:
    DuplicateWriterError(std::string_view path, std::uint64_t holderPid);

    /// 0 when the holder has not written it down yet.
    std::uint64_t holderPid() const { return holderPid_; }

private:
    std::uint64_t holderPid_;
};

/// A reader gave up on something that a writer keeps changing or left in mid-store.
class BusyError : public std::runtime_error {
public:
    BusyError(std::string_view file, std::string_view collection, std::uint64_t slot);
};

}  // namespace KivShimo
