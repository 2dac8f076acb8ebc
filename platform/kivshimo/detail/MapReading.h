// The readers' side of a keyed collection: the bodies of MapReader's functions.
//
// Included by MapReader.h only.
//
// What always holds:
//  1. No number from the file is used before it is checked: links are decoded with their own check,
//     targets compared with the number of slots, walks bounded by it.
//  2. A found value is certain by itself (it verifies and has the key). Everything else is certain
//     only if the structure sequence was even and the same before and after the walk.
#pragma once

#include "platform/kivshimo/MapReader.h"

namespace KivShimo {

template <class Value>
std::uint64_t MapReader<Value>::scratchpad() const {
    const std::optional<std::uint64_t> value =
        mapping_.dynamic().scratchpad.read(mapping_.wordSeed());
    if (!value)
        throw CorruptionError(file(), "scratchpad", 0, "does not verify");
    return *value;
}

template <class Value>
typename MapReader<Value>::Reading MapReader<Value>::read(std::uint64_t slot,
                                                          bool isLastTry) const {
    const Slot& place = slotAt(slot);
    const std::uint64_t before = detail::word(place.sequence).load(std::memory_order_acquire);
    const auto words = Words<Value>::loadFrom(place.value);
    const std::uint64_t checksum = detail::loaded(place.checksum);
    // A load above that saw a later store makes the load below see its odd sequence, or a later
    // one.
    std::atomic_thread_fence(std::memory_order_acquire);
    const std::uint64_t after = detail::loaded(place.sequence);
    const bool isMidStore = (before & detail::kMidStore) != 0;
    if (before != after || (isMidStore && !isLastTry))
        return {SlotState::busy, {}};
    const bool holdsValue = (before & detail::kHoldsValue) != 0;
    if (checksum == 0 && !holdsValue)
        return {SlotState::free, {}};
    const bool verifies =
        checksum != 0 && words.checksum(detail::slotSeed(seed_, slot)) == checksum;
    // An odd sequence that stays may have rotted: the value was never touched. A writer that was
    // killed leaves one too, before its first store or after its last one.
    if (verifies && (holdsValue || isMidStore))
        return {SlotState::whole, words.value()};
    return {isMidStore ? SlotState::busy : SlotState::rotten, {}};
}

template <class Value>
typename MapReader<Value>::Reading MapReader<Value>::settled(std::uint64_t slot) const {
    ReadPatience patience;
    for (bool isLastTry = false;; isLastTry = !patience.lasts()) {
        const Reading reading = read(slot, isLastTry);
        if (reading.state != SlotState::busy)
            return reading;
        if (isLastTry)
            throw BusyError(file(), name_, slot);
    }
}

template <class Value>
typename MapReader<Value>::Walk MapReader<Value>::walk(std::size_t bucket,
                                                       const Kiv::KeyOrder<Key>* wanted,
                                                       Which which, bool isLastTry) const {
    const std::uint64_t head = detail::word(heads()[bucket]).load(std::memory_order_acquire);
    if (head == 0)
        return {Outcome::unmadeHead, bucket};
    std::optional<std::uint32_t> at =
        detail::Link::decoded(head, detail::Link::headPlace(seed_, bucket));
    std::optional<std::uint64_t> rotten;
    std::uint64_t place = bucket;
    for (std::uint64_t steps = 0;; ++steps) {
        if (!at || (*at != detail::Link::kNone && *at >= slots_) || steps > slots_) {
            return {Outcome::badLink, place};
        }
        if (*at == detail::Link::kNone)
            break;
        place = *at;
        Reading reading = read(place, isLastTry);
        if (reading.state == SlotState::free)
            return {Outcome::emptySlot, place};
        if (reading.state == SlotState::busy)
            return {Outcome::again, place};
        if (reading.state == SlotState::rotten) {
            // Where it belongs in a walk is not known any more; a look-up of another key goes on.
            rotten = rotten.value_or(place);
            if (which != Which::at)
                break;
        } else {
            const Key key = reading.value.key();
            const Kiv::KeyOrder<Key> order(key);
            // A walk that left its chain would come by again.
            if (bucketOf(order.hash) != bucket)
                return {Outcome::badLink, place};
            if (wanted == nullptr)
                return {Outcome::found, place, reading.value};
            if (order.hash == wanted->hash && key.isEq(wanted->key)) {
                if (which != Which::after)
                    return {Outcome::found, place, reading.value};
            } else if (*wanted < order) {
                if (which == Which::at)
                    break;
                return {Outcome::found, place, reading.value};
            }
        }
        at = detail::Link::decoded(detail::word(slotAt(place).link).load(std::memory_order_acquire),
                                   detail::Link::slotPlace(seed_, place));
    }
    if (rotten)
        return {Outcome::rotten, *rotten};
    return {Outcome::absent, place};
}

/// No change that is complete leaves a link to an empty slot.
template <class Value>
void MapReader<Value>::throwRotten(const Walk& walk) const {
    std::string_view what = "link does not verify";
    if (walk.outcome == Outcome::rotten)
        what = "value does not verify";
    if (walk.outcome == Outcome::emptySlot)
        what = "value is gone";
    throw CorruptionError(file(), name_, walk.slot, what);
}

template <class Value>
std::optional<Value> MapReader<Value>::certain(std::size_t bucket, const Kiv::KeyOrder<Key>* wanted,
                                               Which which) const {
    ReadPatience patience;
    for (bool isLastTry = false;; isLastTry = !patience.lasts()) {
        const std::uint64_t before = detail::word(structure()).load(std::memory_order_acquire);
        const Walk result = walk(bucket, wanted, which, isLastTry);
        if (result.outcome == Outcome::found && which == Which::at)
            return result.value;
        std::atomic_thread_fence(std::memory_order_acquire);
        const bool isSettled = isAtRest(before) && detail::loaded(structure()) == before &&
                               result.outcome != Outcome::again;
        if (isSettled && result.outcome == Outcome::found)
            return result.value;
        // A file whose links were never made holds nothing yet.
        const bool isUnmade = result.outcome == Outcome::unmadeHead && before == 0;
        if (isSettled && (result.outcome == Outcome::absent || isUnmade))
            return std::nullopt;
        if (isSettled)
            throwRotten(result);
        if (isLastTry)
            throw BusyError(file(), name_, result.slot);
    }
}

template <class Value>
bool MapReader<Value>::isAtRest(std::uint64_t structure) const {
    const auto sequence = detail::Structure::decoded(structure, seed_);
    if (!sequence)
        throw CorruptionError(file(), name_, 0, "sequence of the links does not verify");
    return (*sequence & 1U) == 0;
}

template <class Value>
std::optional<Value> MapReader<Value>::find(const Key& key) const {
    const Kiv::KeyOrder<Key> wanted(key);
    return certain(bucketOf(wanted.hash), &wanted, Which::at);
}

template <class Value>
std::optional<Value> MapReader<Value>::fromBucket(std::size_t bucket,
                                                  const Kiv::KeyOrder<Key>* wanted,
                                                  bool orAt) const {
    const std::uint64_t buckets = detail::mapBuckets(slots_);
    for (; bucket < buckets; ++bucket, wanted = nullptr) {
        // An empty chain is one word and needs no second look.
        const std::uint64_t head = detail::word(heads()[bucket]).load(std::memory_order_acquire);
        const std::optional<std::uint32_t> target =
            detail::Link::decoded(head, detail::Link::headPlace(seed_, bucket));
        if (target == detail::Link::kNone)
            continue;
        std::optional<Value> found =
            certain(bucket, wanted, orAt ? Which::atOrAfter : Which::after);
        if (found)
            return found;
    }
    return std::nullopt;
}

template <class Value>
std::uint64_t MapReader<Value>::count() const {
    std::uint64_t result = 0;
    for (std::uint64_t slot = 0; slot < slots_; ++slot) {
        if ((detail::loaded(slotAt(slot).sequence) & detail::kHoldsValue) != 0)
            ++result;
    }
    return result;
}

}  // namespace KivShimo
