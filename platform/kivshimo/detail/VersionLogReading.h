// The readers' side of a change log: the bodies of VersionLogReader's functions.
//
// Included by VersionLogReader.h only.
//
// What always holds:
//  1. A record is taken only if its check was the same before and after it was read.
#pragma once

#include "platform/kivshimo/VersionLogReader.h"
#include "platform/kivshimo/detail/MapLayout.h"

namespace KivShimo {

template <class Record, class VersionOf>
std::uint64_t VersionLogReader<Record, VersionOf>::scratchpad() const {
    const std::optional<std::uint64_t> value =
        mapping_.dynamic().scratchpad.read(mapping_.wordSeed());
    if (!value)
        throw CorruptionError(file(), "scratchpad", 0, "does not verify");
    return *value;
}

template <class Record, class VersionOf>
std::optional<Record> VersionLogReader<Record, VersionOf>::read(std::size_t slot) const {
    for (unsigned attempt = 0; attempt < kTries; ++attempt) {
        const std::uint64_t check = detail::word(checks_[slot]).load(std::memory_order_acquire);
        if (check == 0)
            return std::nullopt;
        const auto words = Words<Record>::loadFrom(records_ + slot * kWords);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (detail::loaded(checks_[slot]) != check)
            continue;
        const Record record = words.value();
        const std::uint64_t version = VersionOf()(record);
        if (words.checksum(detail::slotSeed(seed_, slot)) != check || version == 0 ||
            slotOf(version) != slot) {
            throw CorruptionError(file(), name_, slot, "record does not verify");
        }
        return record;
    }
    throw BusyError(file(), name_, slot);
}

template <class Record, class VersionOf>
std::optional<Record> VersionLogReader<Record, VersionOf>::find(std::uint64_t version) const {
    std::optional<Record> record = read(slotOf(version));
    if (record && VersionOf()(*record) != version)
        return std::nullopt;
    return record;
}

template <class Record, class VersionOf>
std::optional<Record> VersionLogReader<Record, VersionOf>::next(std::uint64_t version,
                                                                std::uint64_t upTo) const {
    if (upTo <= version)
        return std::nullopt;
    // A record of another round than the one passing by is remembered: without any of this round,
    // the lowest of them comes next.
    std::optional<Record> elsewhere;
    const std::uint64_t steps = upTo - version < slots_ ? upTo - version : slots_;
    for (std::uint64_t step = 1; step <= steps; ++step) {
        const std::uint64_t expected = version + step;
        if (detail::loaded(checks_[slotOf(expected)]) == 0)
            continue;
        std::optional<Record> record = read(slotOf(expected));
        if (!record)
            continue;
        const std::uint64_t found = VersionOf()(*record);
        if (found == expected)
            return record;
        if (found > version && found <= upTo && (!elsewhere || found < VersionOf()(*elsewhere))) {
            elsewhere = record;
        }
    }
    return elsewhere;
}

template <class Record, class VersionOf>
std::uint64_t VersionLogReader<Record, VersionOf>::count() const {
    std::uint64_t result = 0;
    for (std::size_t slot = 0; slot < slots_; ++slot) {
        if (detail::loaded(checks_[slot]) != 0)
            ++result;
    }
    return result;
}

}  // namespace KivShimo
