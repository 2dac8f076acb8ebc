// A recording as a file: written by an agent at work, readable whenever it ends, also by a kill.
//
// Written by one process at a time, on its event thread; read by anybody, also while it grows.
//
//   0       8          16      16 + n
//   | magic | reserved | frame | frame | … | zeros
//
// A frame is the length of its middle, the nanoseconds since the event before and the event, and
// four bytes of their check. Numbers are of variable length, as in the events. The first byte of a
// frame is stored last, and is never zero: what stands behind the last whole frame is zero. The
// check is the lower half of XXH3, seeded with the frame's offset.
//
// What always holds:
//  1. Whatever instruction a kill strikes at, what was told before is there, and nothing else.
//  2. A process that goes on with a file goes on behind its last whole frame; its first event is a
//     start.
//  3. Storing an event takes a system call once a megabyte.
//
// The file is mapped while it is written: whoever cuts it meanwhile ends its writer (SIGBUS).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "recording/Codec.h"
#include "recording/Sink.h"

namespace Recording {

/// Another process writes the recording.
class BusyError : public FormatError {
public:
    using FormatError::FormatError;
};

class FileWriter final : public Sink {
public:
    /// Goes on with the recording in the file, or makes it, for this user and group to read. One
    /// that is damaged is renamed to "<name>.damaged", and another begun. Throws std::system_error
    /// with path and operation, FormatError where the file is no recording, BusyError.
    explicit FileWriter(std::string file);
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;
    ~FileWriter() override;

    /// Where the file cannot grow any more, it keeps what it has: failure() says why.
    void eventIs(Bytes event, std::chrono::nanoseconds time) override;
    /// Empty while all is stored.
    const std::string& failure() const { return failure_; }
    /// What a damaged recording is called now; empty: there was none.
    const std::string& setAside() const { return setAside_; }

private:
    void makeRoom(std::size_t bytes);
    void unmap();

    std::string file_;
    int fd_ = -1;
    std::byte* window_ = nullptr;  ///< mapped at windowStart_, a page's beginning
    std::size_t windowSize_ = 0;
    std::size_t windowStart_ = 0;
    std::size_t used_ = 0;  ///< of the file
    std::chrono::nanoseconds last_{-1};
    std::string failure_;
    std::string setAside_;
};

/// One event of a recording.
struct Recorded {
    std::chrono::nanoseconds time{0};  ///< since the start of its process
    Bytes bytes;                       ///< decode() makes the event of them
};

/// A recording, whole in memory.
class Contents {
public:
    /// Of a file, or of a text (see Text.h), whichever it is. Throws std::system_error,
    /// FormatError.
    static Contents ofFile(const std::string& file);
    /// Of the frames in bytes that begin with the file's head. Throws FormatError.
    explicit Contents(std::vector<std::byte> bytes);
    /// Made event by event.
    Contents() = default;
    Contents(Contents&&) = default;
    Contents& operator=(Contents&&) = default;
    Contents(const Contents&) = delete;
    Contents& operator=(const Contents&) = delete;
    ~Contents() = default;

    /// Keeps a copy of the event.
    void add(Bytes event, std::chrono::nanoseconds time);
    const std::vector<Recorded>& events() const { return events_; }
    /// What of the file could not be read; empty where all could.
    const std::string& damage() const { return damage_; }
    /// Bytes of the file up to the end of the last event.
    std::size_t size() const { return size_; }

private:
    std::vector<std::vector<std::byte>> storage_;  ///< moved, it keeps its bytes where they are
    std::vector<Recorded> events_;
    std::string damage_;
    std::size_t size_ = 0;
};

}  // namespace Recording
