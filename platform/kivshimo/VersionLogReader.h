// A change log of shared memory as others see it: the hardware side, and tools.
//
// Any process, one thread an object. Works beside a live writer and on what a dead one left.
//
// What always holds:
//  1. Nothing is ever written; a writer is never held up.
//  2. Every record returned is whole and verified; a rotten one throws CorruptionError, one that
//     the writer keeps changing BusyError.
//  3. Every record up to the number that scratchpad() returned is visible, but for those that the
//     writer has erased.
//  4. A writer may replace the file; the reader then sees the old one and stale() says so.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/Table.h"
#include "platform/kivshimo/detail/LogLayout.h"
#include "platform/kivshimo/detail/MappedFile.h"

namespace KivShimo {

template <class Record, class VersionOf = RecordVersion>
class VersionLogReader {
    static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) == 32);

public:
    /// Opens a table file (see Paths.h) of that type. Throws MountError.
    VersionLogReader(const std::string& file, std::string_view typeName,
                     std::string_view collection)
        : mapping_(detail::ReaderFile::open(
              file, typeName,
              {{std::string(collection), detail::CollectionKind::versionLog, sizeof(Record),
                layoutFingerprint<Record>(), 0}})),
          number_(mapping_.collectionNumber(collection)),
          name_(collection),
          slots_(mapping_.header().collection[number_].slots),
          seed_(mapping_.seed(number_)),
          checks_(reinterpret_cast<const std::uint64_t*>(mapping_.area(number_))),
          records_(checks_ + slots_) {}

    const std::string& file() const { return mapping_.file(); }
    std::uint64_t identity() const { return mapping_.identity(); }
    std::uint64_t capacity() const { return mapping_.header().collection[number_].capacity; }
    std::uint64_t slots() const { return slots_; }
    /// The file was replaced or is gone: open it again.
    bool stale() const { return mapping_.stale(); }
    /// The last version published. Throws CorruptionError.
    std::uint64_t scratchpad() const;
    bool wiped() const { return mapping_.wiped(); }

    /// Empty when there is no such record (any more).
    std::optional<Record> find(std::uint64_t version) const;
    /// The record of the lowest version after `version` and up to `upTo`. Costs one word for each
    /// version skipped, at most one for each slot.
    std::optional<Record> next(std::uint64_t version, std::uint64_t upTo) const;
    template <class Visit>
    void forEach(std::uint64_t from, std::uint64_t to, Visit&& visit) const {
        if (from == 0)
            from = 1;
        for (std::optional<Record> record = next(from - 1, to); record;
             record = next(VersionOf()(*record), to)) {
            visit(*record);
        }
    }
    /// Records there are, counted slot by slot.
    std::uint64_t count() const;

private:
    static constexpr std::size_t kWords = Words<Record>::kCount;
    static constexpr unsigned kTries = 10000;

    std::size_t slotOf(std::uint64_t version) const {
        return static_cast<std::size_t>(version & (slots_ - 1));
    }
    /// What the slot holds, whatever its version.
    std::optional<Record> read(std::size_t slot) const;

    detail::ReaderFile mapping_;
    std::size_t number_;
    std::string name_;
    std::uint64_t slots_;
    std::uint64_t seed_;
    const std::uint64_t* checks_;
    const std::uint64_t* records_;
};

}  // namespace KivShimo

#include "platform/kivshimo/detail/VersionLogReading.h"
