// The announce log: which changes there are, in the order in which they were made, over all tables.
//
// Written by the agent on its event thread, read by the hardware side. A ring of fixed slots; the
// reader says elsewhere (AckMap.h) how far it has come, which frees what is before.
//
// What always holds:
//  1. Positions count from 1 and never repeat in a file; position p lies in slot p modulo the
//     number of slots, a power of two.
//  2. An announcement exists once the tail is stored at or after its position. What lies behind the
//     tail was never announced, whatever it looks like; what lies before it and does not verify is
//     rot, and the reader throws CorruptionError.
//  3. Nothing is overwritten before it is consumed: append refuses then.
//  4. A file that replaces a lost one has another identity() and begins at position 1.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/detail/MappedFile.h"

namespace KivShimo {

/// A table version that a change needs the hardware to hold first.
struct NeededVersion {
    std::uint32_t tableId = 0;
    std::uint64_t version = 0;

    bool operator==(const NeededVersion&) const = default;
};

/// One change, as announced.
struct Announcement {
    std::uint64_t position = 0;  ///< of its last slot: consumed up to here when it is done
    std::uint32_t tableId = 0;
    std::uint64_t version = 0;
    std::vector<NeededVersion> needed;
};

constexpr std::uint64_t kAnnounceSlots = 1048576;

class AnnounceLogWriter {
public:
    /// Mounts the log at ROOT/PATH.table for writing, making it when it is not there. `slots`: a
    /// power of two. Throws MountError, DuplicateWriterError.
    AnnounceLogWriter(const std::string& root, const std::string& path,
                      std::uint64_t slots = kAnnounceSlots);

    /// False when there is no room; nothing is announced then.
    bool append(std::uint32_t tableId, std::uint64_t version,
                std::span<const NeededVersion> needed = {});
    /// Slots an announcement takes: one, and one more for every 3 needed versions beyond 3.
    static std::uint64_t slotsFor(std::size_t needed) { return needed <= 3 ? 1 : (needed + 2) / 3; }
    /// Slots that may be written before more is consumed.
    std::uint64_t free() const { return slots_ - (tail() - consumed_); }
    /// The last position announced; 0 when none was.
    std::uint64_t tail() const { return tail_.value(); }
    /// Says how far the reader has come. False, and nothing changes, when that is behind what was
    /// said before or beyond the tail.
    bool consumedIs(std::uint64_t position);
    std::uint64_t consumed() const { return consumed_; }

    const std::string& file() const { return mapping_.file(); }
    std::uint64_t identity() const { return mapping_.identity(); }
    std::uint64_t slots() const { return slots_; }
    /// This mount has found that the log had existed and its content was lost.
    bool wiped() const { return wiped_; }
    /// What this mount has found rotten, and traced.
    std::uint64_t corruptions() const { return corruptions_; }
    /// This process's word for a Sleeper.
    detail::SleepWord sleepEpoch() const {
        return {mapping_.dynamicHeader().sleepEpoch, mapping_.sleepSeed()};
    }

private:
    explicit AnnounceLogWriter(detail::MountFindings found);
    void findTail();
    void makeNextPages();
    void store(std::uint64_t position, std::uint32_t tableId, std::uint64_t version, bool last,
               std::span<const NeededVersion> needed);

    detail::WriterFile mapping_;
    std::uint64_t slots_;
    std::uint64_t seed_;
    detail::VerifiedWordWriter tail_;
    std::uint64_t consumed_ = 0;
    bool wiped_;
    std::uint64_t corruptions_;
};

class AnnounceLogReader {
public:
    /// Empty when there is no such file yet. Throws MountError.
    static std::optional<AnnounceLogReader> open(const std::string& file);

    /// The last position announced; 0 when none was. Throws CorruptionError.
    std::uint64_t tail() const;
    /// The announcement whose first slot is at the position, the one after the last one's
    /// `position`; empty when it was not announced yet. Throws CorruptionError.
    std::optional<Announcement> next(std::uint64_t position) const;

    const std::string& file() const { return mapping_.file(); }
    std::uint64_t identity() const { return mapping_.identity(); }
    std::uint64_t slots() const { return slots_; }
    bool stale() const { return mapping_.stale(); }
    /// The agent's word for a Waker.
    detail::SleepWord sleepEpoch() const {
        return {mapping_.dynamic().sleepEpoch, mapping_.sleepSeed()};
    }

private:
    explicit AnnounceLogReader(detail::ReaderFile mapping);

    detail::ReaderFile mapping_;
    std::uint64_t slots_;
    std::uint64_t seed_;
};

}  // namespace KivShimo
