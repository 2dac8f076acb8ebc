// A recording as a file: written by an agent at work, readable whenever it ends, also by a kill.
//
// Written by one process at a time, on its event thread; read by anybody, also while it grows.
//
//   0       8       16                 1 MiB
//   | magic | moved | front: the last  | body: the first frames, all that have been moved
//
// The newest frames (see Frames.h) stand in the front, which is mapped and always the same memory.
// When the process rests and 32 KiB have gathered, and when the front is full, they are moved
// behind those in the body, and then `moved` says how many bytes of frames stand there. A frame
// that is too large for the front goes to the body at once, its first word last. In the body of a
// recording that has ended in good order are all frames.
//
// What always holds:
//  1. Whatever instruction a kill strikes at, what was told before is there, and nothing else.
//  2. What is taken out of the front stands in the body before: read first the front and then the
//     body, no frame is missed.
//  3. A process that goes on with a file goes on behind its last whole frame; its first event is a
//     start.
//  4. After a rest, no event takes a system call before nearly a MiB has been told, but one that is
//     too large for the front.
//
// Whoever cuts the file below the body while it is written ends its writer (SIGBUS).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "recording/Codec.h"
#include "recording/FileAccess.h"
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
    /// with path and operation, FormatError where the file is no recording, BusyError. Where it has
    /// a head and cannot grow, failure() says why from the start.
    explicit FileWriter(std::string file);
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;
    ~FileWriter() override;

    /// Where the file cannot grow any more, it keeps what it has: failure() says why.
    void eventIs(const Buffer& event, std::chrono::nanoseconds time) override;
    /// For when nothing else is to do: moves what stands in the front, where that is worth a system
    /// call, so that later on no event has to wait for it. Where it cannot, the front goes on.
    void makeRoom();
    /// Empty while all is stored.
    const std::string& failure() const { return failure_; }
    /// What a damaged recording is called now; empty: there was none.
    const std::string& setAside() const { return setAside_; }

private:
    struct Head;

    void mapHead();
    /// Bytes of frames. REQUIRES: no failure.
    std::size_t inFront() const { return window_.offset - moved_; }
    void clearFront();
    void moveToBody();
    bool settleElsewhere(const Buffer& event, std::chrono::nanoseconds passed);
    void storeInBody(const Buffer& event, std::chrono::nanoseconds passed);

    std::string file_;
    Descriptor opened_;
    Head* head_ = nullptr;   ///< mapped; null where that has failed
    std::size_t moved_ = 0;  ///< bytes of frames in the body
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
    /// Of a file's bytes, the front not later than the body. Throws FormatError.
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
    /// Whether it was read of a file that a writer makes, and not of a text.
    bool isBinary() const { return isBinary_; }

private:
    std::vector<std::vector<std::byte>> storage_;  ///< moved, it keeps its bytes where they are
    std::vector<Recorded> events_;
    std::string damage_;
    bool isBinary_ = false;
};

}  // namespace Recording
