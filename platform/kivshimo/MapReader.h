// A keyed collection of shared memory as others see it: other processes, and tools.
//
// Any process, one thread an object. Works beside a live writer and on what a dead one left.
//
// What always holds:
//  1. Nothing is ever written; a writer is never held up.
//  2. Every value returned is whole and verified. A rotten one throws CorruptionError; one that the
//     writer is storing is tried again for a bounded time, then BusyError is thrown.
//  3. "Not there" is said only after the index was seen unchanged during the look-up.
//  4. The order is the writer's: (hash, key); a walk resumes at a key.
//  5. A writer may replace the file; the reader then sees the old one and stale() says so.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/kiv/HashMap2018.h"
#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/ReadPatience.h"
#include "platform/kivshimo/Table.h"
#include "platform/kivshimo/detail/MapLayout.h"
#include "platform/kivshimo/detail/MappedFile.h"

namespace KivShimo {

template <class Value>
class MapReader {
public:
    using Key = std::remove_cvref_t<decltype(std::declval<const Value&>().key())>;

    /// Opens a table file (see Paths.h) of that type. Throws MountError.
    MapReader(const std::string& file, std::string_view typeName, std::string_view collection)
        : mapping_(detail::ReaderFile::open(file, typeName,
                                            {{std::string(collection), detail::CollectionKind::map,
                                              sizeof(Value), layoutFingerprint<Value>(), 0}})),
          number_(mapping_.collectionNumber(collection)),
          name_(collection),
          slots_(mapping_.header().collection[number_].slots),
          seed_(mapping_.seed(number_)),
          bits_(static_cast<unsigned>(std::countr_zero(detail::mapBuckets(slots_)))) {}

    const std::string& file() const { return mapping_.file(); }
    std::uint64_t identity() const { return mapping_.identity(); }
    std::uint64_t capacity() const { return slots_; }
    /// The file was replaced or is gone: open it again.
    bool stale() const { return mapping_.stale(); }
    /// The number published last. Throws CorruptionError.
    std::uint64_t scratchpad() const;
    bool wiped() const { return mapping_.wiped(); }

    std::optional<Value> find(const Key& key) const;
    std::optional<Value> first() const { return fromBucket(0, nullptr, false); }
    /// The first element at or after the key.
    std::optional<Value> lowerBound(const Key& key) const { return from(key, true); }
    /// The first element after the key.
    std::optional<Value> next(const Key& key) const { return from(key, false); }
    template <class Visit>
    void forEach(Visit&& visit) const {
        for (std::optional<Value> value = first(); value; value = next(value->key())) {
            visit(*value);
        }
    }
    /// Calls `visit(value)` for each element, in no order, and `report(error)`, a CorruptionError,
    /// for each slot that does not verify; goes on behind it. Follows no links. An element that is
    /// there all the time is visited once. Throws BusyError.
    template <class Visit, class Report>
    void visitSlots(Visit&& visit, Report&& report) const {
        std::uint64_t slot = 0;
        while (const std::optional<Value> value = nextInSlots(slot, report))
            visit(*value);
    }
    /// One step of such a walk: the first element in a slot at or after `slot`, which becomes the
    /// slot behind it; empty after the last. Where it throws BusyError, `slot` is the busy one.
    template <class Report>
    std::optional<Value> nextInSlots(std::uint64_t& slot, Report&& report) const {
        while (slot < slots_) {
            const Reading reading = settled(slot);
            const std::uint64_t at = slot++;
            if (reading.state == SlotState::whole)
                return reading.value;
            if (reading.state == SlotState::rotten)
                report(CorruptionError(file(), name_, at, "value does not verify"));
        }
        return std::nullopt;
    }
    /// Elements there are, counted slot by slot.
    std::uint64_t count() const;

    /// What is wrong with a slot; for tools that check a whole file.
    enum class SlotState { free, whole, busy, rotten };
    SlotState slotState(std::uint64_t slot) const { return read(slot).state; }

private:
    using Slot = detail::MapSlot<Value>;
    struct Reading {
        SlotState state;
        Value value;
    };
    /// What a walk over one chain has come to.
    enum class Outcome { found, absent, again, rotten, badLink, unmadeHead, emptySlot };
    struct Walk {
        Outcome outcome;
        std::uint64_t slot = 0;
        Value value{};
    };

    const std::uint64_t* heads() const {
        return reinterpret_cast<const std::uint64_t*>(mapping_.area(number_));
    }
    const Slot& slotAt(std::uint64_t slot) const {
        return reinterpret_cast<const Slot*>(heads() + detail::mapBuckets(slots_))[slot];
    }
    std::size_t bucketOf(std::uint32_t hash) const { return hash >> (32U - bits_); }
    const std::uint64_t& structure() const { return mapping_.dynamic().structure[number_]; }

    /// One try, bounded waiting for the writer left to the caller. When that has come to its end, a
    /// slot that is still said to be stored is judged by what is in it.
    Reading read(std::uint64_t slot, bool isLastTry = false) const;
    /// Tries until the slot is not busy, or patience ends. Throws BusyError.
    Reading settled(std::uint64_t slot) const;
    /// `wanted` null: the chain's first element. Otherwise the first at, or at or after, or after.
    enum class Which { at, atOrAfter, after };
    Walk walk(std::size_t bucket, const Kiv::KeyOrder<Key>* wanted, Which which,
              bool isLastTry) const;
    /// Whether the links were not being changed. Throws CorruptionError.
    bool isAtRest(std::uint64_t structure) const;
    [[noreturn]] void throwRotten(const Walk& walk) const;
    /// Walks until the result is certain.
    std::optional<Value> certain(std::size_t bucket, const Kiv::KeyOrder<Key>* wanted,
                                 Which which) const;
    std::optional<Value> fromBucket(std::size_t bucket, const Kiv::KeyOrder<Key>* wanted,
                                    bool orAt) const;
    std::optional<Value> from(const Key& key, bool orAt) const {
        const Kiv::KeyOrder<Key> wanted(key);
        return fromBucket(bucketOf(wanted.hash), &wanted, orAt);
    }

    detail::ReaderFile mapping_;
    std::size_t number_;
    std::string name_;
    std::uint64_t slots_;
    std::uint64_t seed_;
    unsigned bits_;
};

}  // namespace KivShimo

#include "platform/kivshimo/detail/MapReading.h"
