// The writer's side of a change log: the bodies of VersionLog's functions.
//
// Included by VersionLog.h only.
//
// What always holds:
//  1. A check is 0 while the record beside it is stored.
#pragma once

#include <algorithm>
#include <atomic>

#include "platform/kivshimo/VersionLog.h"
#include "platform/kivshimo/detail/MapLayout.h"

namespace KivShimo {

/// Mounting reads all checks, 8 bytes a slot that lie together, and only the records whose check is
/// there. So a nearly empty log costs some thousand cache lines in a row, about a millisecond, and
/// needs no hints about where its records are: a killed writer cannot have left wrong ones.
template <class Record, class VersionOf>
VersionLog<Record, VersionOf>::VersionLog(Table& table, std::string_view name)
    : file_(table.file()),
      name_(name),
      capacity_(0),
      slots_(table.mapping().header().collection[table.mapping().collectionNumber(name)].slots),
      seed_(0),
      checks_(nullptr),
      records_(nullptr),
      versions_(slots_),
      present_(slots_) {
    detail::WriterFile& mapping = table.mapping();
    const std::size_t number = mapping.collectionNumber(name);
    capacity_ = mapping.header().collection[number].capacity;
    seed_ = mapping.seed(number);
    checks_ = reinterpret_cast<std::uint64_t*>(mapping.writableArea(number));
    records_ = checks_ + slots_;
    for (std::size_t slot = 0; slot < slots_; ++slot) {
        if (detail::loaded(checks_[slot]) != 0)
            takeUp(table, slot);
    }
}

template <class Record, class VersionOf>
void VersionLog<Record, VersionOf>::takeUp(Table& table, std::size_t slot) {
    const auto words = Words<Record>::loadFrom(recordAt(slot));
    const std::uint64_t version = VersionOf()(words.value());
    if (words.checksum(detail::slotSeed(seed_, slot)) != detail::loaded(checks_[slot]) ||
        version == 0 || slotOf(version) != slot) {
        detail::word(checks_[slot]).store(0, std::memory_order_release);
        table.doCorruptionDetected(
            CorruptionError(file_, name_, slot, "rotten record dropped").what());
        return;
    }
    versions_[slot] = version;
    present_.add(slot);
    lowest_ = lowest_ == 0 ? version : std::min(lowest_, version);
    highestBound_ = std::max(highestBound_, version);
}

template <class Record, class VersionOf>
bool VersionLog<Record, VersionOf>::insert(const Record& record) {
    const std::uint64_t version = VersionOf()(record);
    if (!hasRoomFor(version))
        return false;
    const std::size_t slot = slotOf(version);
    const Words<Record> words(record);
    const std::uint64_t check = words.checksum(detail::slotSeed(seed_, slot));
    if (versions_[slot] == version) {
        if (detail::loaded(checks_[slot]) == check &&
            std::equal(words.words, words.words + kWords, recordAt(slot))) {
            return true;
        }
        detail::word(checks_[slot]).store(0, std::memory_order_relaxed);
    }
    // A reader that sees a word of the new record and then looks at the check again, behind its
    // fence, does not find the check of the old one any more.
    std::atomic_thread_fence(std::memory_order_release);
    words.storeTo(recordAt(slot));
    detail::word(checks_[slot]).store(check, std::memory_order_release);
    versions_[slot] = version;
    present_.add(slot);
    lowest_ = lowest_ == 0 ? version : std::min(lowest_, version);
    highestBound_ = std::max(highestBound_, version);
    if ((version & (kRecordsAhead - 1)) == 0)
        makePagesAfter(slot);
    return true;
}

template <class Record, class VersionOf>
void VersionLog<Record, VersionOf>::makePagesAfter(std::size_t slot) const {
    const std::size_t first = (slot + kRecordsAhead) & (slots_ - 1);
    const std::size_t count = std::min<std::size_t>(kRecordsAhead, slots_ - first);
    detail::makePages(recordAt(first), count * sizeof(Record));
    detail::makePages(checks_ + first, count * sizeof(*checks_));
    detail::makePages(&versions_[first], count * sizeof(versions_[first]));
}

template <class Record, class VersionOf>
bool VersionLog<Record, VersionOf>::erase(std::uint64_t version) {
    if (!has(version))
        return false;
    const std::size_t slot = slotOf(version);
    detail::word(checks_[slot]).store(0, std::memory_order_release);
    versions_[slot] = 0;
    present_.remove(slot);
    if (present_.count() == 0) {
        lowest_ = highestBound_ = 0;
    } else if (version == lowest_) {
        lowest_ = versionAtOrAfter(version).value_or(0);
    }
    return true;
}

template <class Record, class VersionOf>
std::optional<Record> VersionLog<Record, VersionOf>::find(std::uint64_t version) const {
    if (!has(version))
        return std::nullopt;
    const std::size_t slot = slotOf(version);
    const auto words = Words<Record>::loadFrom(recordAt(slot));
    if (words.checksum(detail::slotSeed(seed_, slot)) != detail::loaded(checks_[slot])) {
        throw CorruptionError(file_, name_, slot, "record does not verify");
    }
    return words.value();
}

/// Slot order from the slot of `version` on, around the end, is the order of versions as long as
/// all of them lie within one round of slots. Stragglers of earlier rounds break that: then the
/// rest of this round is searched, and after it the lowest version of a later one.
template <class Record, class VersionOf>
std::optional<std::uint64_t> VersionLog<Record, VersionOf>::versionAtOrAfter(
    std::uint64_t version) const {
    if (present_.count() == 0 || version > highestBound_)
        return std::nullopt;
    version = std::max(version, lowest_);
    const bool oneRound = highestBound_ - lowest_ < slots_;
    for (std::optional<std::size_t> slot = present_.atOrAfter(slotOf(version)); slot;
         slot = present_.atOrAfter(*slot + 1)) {
        const std::uint64_t there = versions_[*slot];
        if (oneRound && there >= version)
            return there;
        if (oneRound)
            break;
        if (there >= version && there / slots_ == version / slots_)
            return there;
    }
    if (!oneRound)
        return lowestAfterEpochOf(version);
    const std::optional<std::size_t> wrapped = present_.atOrAfter(0);
    if (wrapped && versions_[*wrapped] >= version)
        return versions_[*wrapped];
    return std::nullopt;
}

template <class Record, class VersionOf>
std::optional<std::uint64_t> VersionLog<Record, VersionOf>::lowestAfterEpochOf(
    std::uint64_t version) const {
    std::optional<std::uint64_t> lowest;
    for (std::optional<std::size_t> slot = present_.atOrAfter(0); slot;
         slot = present_.atOrAfter(*slot + 1)) {
        const std::uint64_t there = versions_[*slot];
        if (there / slots_ > version / slots_ && (!lowest || there < *lowest))
            lowest = there;
    }
    return lowest;
}

template <class Record, class VersionOf>
void VersionLog<Record, VersionOf>::assertConsistent() const {
    using Brumo::require;
    std::uint64_t seen = 0;
    std::uint64_t lowest = 0;
    for (std::size_t slot = 0; slot < slots_; ++slot) {
        const std::uint64_t version = versions_[slot];
        require(present_.has(slot) == (version != 0), "present");
        require((detail::loaded(checks_[slot]) != 0) == (version != 0), "check");
        if (version == 0)
            continue;
        require(slotOf(version) == slot && version <= highestBound_, "slot of version");
        require(find(version).has_value(), "record");
        lowest = lowest == 0 ? version : std::min(lowest, version);
        ++seen;
    }
    require(seen == count() && lowest == lowest_, "count and lowest");
}

}  // namespace KivShimo
