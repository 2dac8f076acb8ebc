// A change log in shared memory: records by consecutive version numbers, as their writer sees them.
//
// Event thread of the writing process; a member of a table class. Records are 32 bytes and carry
// their version. Readers: VersionLogReader.h.
//
// What always holds:
//  1. The record of version v lies in slot v modulo the number of slots, a power of two. So there
//     is no search, and a look-up touches the record and its check.
//  2. Capacity is what was declared; slots are the next power of two, and the room between is a
//     reserve for changes past the capacity.
//  3. A slot that a record left behind (a straggler) still takes is not overwritten: inserting the
//     other version that belongs there returns false and changes nothing.
//  4. The check of a slot is 0 exactly when it holds no record; it is stored last and taken away
//     first. So a killed writer leaves whole records only, and a check that is there and does not
//     verify is rot.
//  5. Versions, their count and their order are in the writer's private memory, rebuilt from the
//     checks at each mount; no hint in the file is trusted.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/brumo/Assert.h"
#include "platform/kivshimo/Table.h"
#include "platform/kivshimo/detail/LogLayout.h"
#include "platform/kivshimo/detail/Memory.h"
#include "platform/kivshimo/detail/SlotSet.h"

namespace KivShimo {

template <class Record, class VersionOf = RecordVersion>
class VersionLog {
    static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) == 32);

public:
    static CollectionLayout layout(std::string name) {
        return {std::move(name), detail::CollectionKind::versionLog, sizeof(Record),
                layoutFingerprint<Record>()};
    }

    /// Takes up the collection of that name. REQUIRES: the table's type declares it.
    VersionLog(Table& table, std::string_view name);
    VersionLog(const VersionLog&) = delete;
    VersionLog& operator=(const VersionLog&) = delete;

    std::uint64_t capacity() const { return capacity_; }
    std::uint64_t slots() const { return slots_; }
    std::uint64_t count() const { return present_.count(); }
    /// 0 when the log is empty.
    std::uint64_t lowest() const { return lowest_; }
    /// No present version is above it; just after the mount it is the highest present one. 0 when
    /// the log is empty.
    std::uint64_t highestBound() const { return highestBound_; }

    /// Inserts, or replaces the record of the same version. False when a straggler has the slot, or
    /// the version is 0.
    bool insert(const Record& record);
    /// False when there was no such record.
    bool erase(std::uint64_t version);
    bool has(std::uint64_t version) const {
        return version != 0 && versions_[slotOf(version)] == version;
    }
    /// Whether a record of that version could be inserted.
    bool hasRoomFor(std::uint64_t version) const {
        const std::uint64_t there = versions_[slotOf(version)];
        return version != 0 && (there == 0 || there == version);
    }
    /// The version whose record is where that of `version` belongs; 0 when there is none.
    std::uint64_t versionInPlaceOf(std::uint64_t version) const {
        return versions_[slotOf(version)];
    }
    /// Throws CorruptionError.
    std::optional<Record> find(std::uint64_t version) const;

    /// The lowest present version at or after the given one; versions only, nothing is read.
    std::optional<std::uint64_t> versionAtOrAfter(std::uint64_t version) const;

    /// Calls `visit(version)` for each present version of [from, to] in increasing order, at a cost
    /// bounded by the records there are. `visit` may erase what it is given, and insert.
    template <class Visit>
    void visitVersions(std::uint64_t from, std::uint64_t to, Visit&& visit) const {
        std::optional<std::uint64_t> version = versionAtOrAfter(from);
        while (version && *version <= to) {
            const std::uint64_t current = *version;
            visit(current);
            if (current == to)
                return;
            version = versionAtOrAfter(current + 1);
        }
    }
    /// Calls `visit(record)` for each record in increasing order of versions; throws
    /// CorruptionError at the first rotten one.
    template <class Visit>
    void forEach(Visit&& visit) const {
        visitVersions(1, ~std::uint64_t{0}, [&](std::uint64_t version) {
            const std::optional<Record> record = find(version);
            if (record)
                visit(*record);
        });
    }

    /// Checks everything that always holds, in memory and in the file; ends the process otherwise.
    void assertConsistent() const;

private:
    static constexpr std::size_t kWords = Words<Record>::kCount;

    std::size_t slotOf(std::uint64_t version) const {
        return static_cast<std::size_t>(version & (slots_ - 1));
    }
    std::uint64_t* recordAt(std::size_t slot) const { return records_ + slot * kWords; }
    void takeUp(Table& table, std::size_t slot);
    /// Slots whose pages are made at once: 8 pages of records.
    static constexpr std::uint64_t kRecordsAhead = 1024;
    void makePagesAfter(std::size_t slot) const;
    std::optional<std::uint64_t> lowestAfterEpochOf(std::uint64_t version) const;

    std::string file_;
    std::string name_;
    std::uint64_t capacity_;
    std::uint64_t slots_;
    std::uint64_t seed_;
    std::uint64_t* checks_;   ///< in the file
    std::uint64_t* records_;  ///< in the file

    // The writer's own, rebuilt at each mount
    detail::ZeroedWords versions_;
    detail::SlotSet present_;
    std::uint64_t lowest_ = 0;
    std::uint64_t highestBound_ = 0;  ///< no present version is above it
};

}  // namespace KivShimo

#include "platform/kivshimo/detail/VersionLogWriting.h"
