// The acknowledgements: how far the hardware has each table, and what else its side has to say.
//
// Written by the hardware side, the file's only writer; read by the agent and by tools.
//
// What always holds:
//  1. The acknowledged version of a table never goes backwards while the file lives.
//  2. Each number verifies itself; a reader gets a number that was stored, or CorruptionError.
//  3. A reader opens the file when it is there: it may come later than the agent, and go.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/detail/MappedFile.h"

namespace KivShimo {

constexpr std::size_t kMostAckTables = 64;
/// An identity that no announcement log has, as those of files are odd: what is acknowledged may be
/// of any.
constexpr std::uint64_t kNoAnnounceLog = ~std::uint64_t{1};

/// One table's acknowledgement.
struct Acknowledged {
    std::uint32_t tableId;
    std::uint64_t version;
};

/// What a map says of all tables at once; takes no memory from the heap.
class Acknowledgements {
public:
    /// REQUIRES: there are fewer than kMostAckTables.
    void add(Acknowledged row) { rows_[count_++] = row; }
    std::size_t size() const { return count_; }
    const Acknowledged* begin() const { return rows_.data(); }
    const Acknowledged* end() const { return rows_.data() + count_; }

private:
    std::array<Acknowledged, kMostAckTables> rows_;  ///< as many as are counted are set
    std::size_t count_ = 0;
};

class AckMapWriter {
public:
    /// Mounts the map at ROOT/PATH.table for writing, making it when it is not there. Throws
    /// MountError, DuplicateWriterError.
    AckMapWriter(const std::string& root, const std::string& path);

    /// False, and nothing changes, when the version is below the acknowledged one, or 64 other
    /// tables are there.
    bool ackIs(std::uint32_t tableId, std::uint64_t version);
    std::optional<std::uint64_t> acknowledged(std::uint32_t tableId) const;
    std::vector<Acknowledged> all() const;
    /// Forgets a table's acknowledgement: its log is another now.
    void forget(std::uint32_t tableId);

    /// The position in the announce log up to which everything is done, and which log that is.
    void consumedIs(std::uint64_t position) { consumed_.valueIs(position); }
    std::uint64_t consumed() const { return consumed_.value(); }
    void announceIdentityIs(std::uint64_t identity) { announceIdentity_.valueIs(identity); }
    std::uint64_t announceIdentity() const { return announceIdentity_.value(); }

    /// Asks the agent to pause between two changes, or to go on.
    void pauseRequestedIs(bool requested);
    bool pauseRequested() const;

    const std::string& file() const { return mapping_.file(); }
    std::uint64_t identity() const { return mapping_.identity(); }
    /// This mount has found that the map had existed and its content was lost.
    bool wiped() const { return wiped_; }
    /// This process's word for a Sleeper.
    detail::SleepWord sleepEpoch() const {
        return {mapping_.dynamicHeader().sleepEpoch, mapping_.sleepSeed()};
    }
    /// What was rotten at the mount, and traced. Tables whose acknowledgement was count as not
    /// acknowledged; a pause request that was counts as none.
    std::uint64_t corruptions() const { return corruptions_; }

private:
    struct Entry {
        std::uint32_t tableId;
        std::size_t row;
        std::uint64_t label;
        detail::VerifiedWordWriter version;
    };

    explicit AckMapWriter(detail::MountFindings found);
    void takeUp();
    void takeUpPause();
    const Entry* entryOf(std::uint32_t tableId) const;
    std::optional<std::size_t> freeRow() const;
    void labelIs(std::size_t row, std::uint64_t label);

    detail::WriterFile mapping_;
    detail::VerifiedWordWriter consumed_;
    detail::VerifiedWordWriter announceIdentity_;
    detail::VerifiedWordWriter pause_;
    std::vector<Entry> entries_;
    std::uint64_t corruptions_ = 0;
    bool wiped_;
};

class AckMapReader {
public:
    /// Empty when there is no such file yet. Throws MountError.
    static std::optional<AckMapReader> open(const std::string& file);

    /// Empty when the table was never acknowledged. Throws CorruptionError.
    std::optional<std::uint64_t> acknowledged(std::uint32_t tableId) const;
    /// What can be read; each row that cannot is reported, and holds no other up.
    Acknowledgements all(const CorruptionReport& report) const;
    /// Throws CorruptionError.
    std::uint64_t consumed() const;
    /// Throws CorruptionError.
    std::uint64_t announceIdentity() const;
    /// Throws CorruptionError.
    bool pauseRequested() const;

    const std::string& file() const { return mapping_.file(); }
    std::uint64_t identity() const { return mapping_.identity(); }
    bool stale() const { return mapping_.stale(); }
    /// The hardware side's word for a Waker.
    detail::SleepWord sleepEpoch() const {
        return {mapping_.dynamic().sleepEpoch, mapping_.sleepSeed()};
    }

private:
    explicit AckMapReader(detail::ReaderFile mapping) : mapping_(std::move(mapping)) {}

    detail::ReaderFile mapping_;
};

}  // namespace KivShimo
