// The writer's side of a keyed collection: the bodies of Map's functions.
//
// Included by Map.h only.
//
// What always holds:
//  1. A new value is stored whole before a link leads to it; a value is unlinked before its slot is
//     set free. So every prefix of the stores is a map.
//  2. A slot's sequence is odd before the first and even after the last store into it.
#pragma once

#include "platform/kivshimo/Map.h"

namespace KivShimo {

template <class Value>
Map<Value>::Map(Table& table, std::string_view name)
    : file_(table.file()),
      name_(name),
      journal_(&table.journal()),
      number_(table.mapping().collectionNumber(name)),
      slots_(0),
      seed_(0),
      bits_(0),
      headArea_(nullptr),
      slotArea_(nullptr),
      structure_(nullptr),
      usedBuckets_(0),
      free_(0) {
    detail::WriterFile& mapping = table.mapping();
    const detail::CollectionHeader& header = mapping.header().collection[number_];
    slots_ = header.slots;
    seed_ = mapping.seed(number_);
    const std::uint64_t buckets = detail::mapBuckets(slots_);
    bits_ = static_cast<unsigned>(std::countr_zero(buckets));
    headArea_ = reinterpret_cast<std::uint64_t*>(mapping.writableArea(number_));
    slotArea_ = reinterpret_cast<Slot*>(headArea_ + buckets);
    structure_ = &mapping.dynamicHeader().structure[number_];
    nodes_.resize(slots_);
    heads_.resize(buckets);
    finishPending(table);
    const bool wereLinked = takeUpStructure(table);
    if (wereLinked && takeUpWhole())
        return;
    if (wereLinked)
        checkIndex(table);
    rebuild(table);
}

/// A value that was replacing another when the process before was killed is stored again.
template <class Value>
void Map<Value>::finishPending(Table& table) {
    const std::optional<PendingChange> pending = journal_->pending();
    if (!pending || pending->operation != kStoreValue || pending->unit != number_)
        return;
    const std::optional<Value> value = pending->template value<Value>();
    if (value && pending->version < slots_) {
        store(static_cast<std::uint32_t>(pending->version), {Words(*value)});
    } else {
        table.doCorruptionDetected(
            CorruptionError(file_, "journal", 0, "value of no slot dropped").what());
    }
    journal_->done();
}

template <class Value>
bool Map<Value>::insertOrReplace(const Value& value) {
    const Spot spot = spotOf(value.key());
    const Summed<Value> summed{Words(value)};
    if (!isTaken(spot))
        return insertNew(spot, summed);
    journal_->begin(kStoreValue, number_, spot.at);
    journal_->valueIs(summed);
    journal_->seal();
    store(spot.at, summed);
    journal_->done();
    return true;
}

template <class Value>
auto Map<Value>::spotOf(const Key& key) const -> Spot {
    const Kiv::KeyOrder<Key> wanted(key);
    // In two of three cases the key is the first of its chain: its slot comes while the key is
    // looked at.
    const std::uint32_t first = heads_[bucketOf(wanted.hash)];
    prefetchSlot(first);
    const Place place = placeOf(wanted);
    if (place.at != first)
        prefetchSlot(place.at);
    return {key, wanted.hash, place.before, place.at};
}

template <class Value>
bool Map<Value>::journaledIs(const Spot& spot, const Summed<Value>& value) {
    if (!isTaken(spot))
        return insertNew(spot, value);
    store(spot.at, value);
    return true;
}

/// In two of three cases the key is the first of its chain.
template <class Value>
void Map<Value>::prefetch(const Key& key) const {
    const std::uint32_t first = heads_[bucketOf(key.hash(0))];
    if (first == detail::Link::kNone)
        return;
    Brumo::prefetch(nodes_[first]);
    prefetchSlot(first);
}

/// Needs no journal: until its checksum is stored, the last of the value, the slot counts as free.
template <class Value>
bool Map<Value>::insertNew(const Spot& spot, const Summed<Value>& value) {
    const std::optional<std::size_t> room = free_.atOrAfter(0);
    if (!room)
        return false;
    const auto slot = static_cast<std::uint32_t>(*room);
    free_.remove(slot);
    nodes_[slot] = {spot.hash, spot.at, spot.key};
    structureChanges();
    store(slot, value);
    publishLink(slot);
    linkIs(spot.before, bucketOf(spot.hash), slot);
    structureChanged();
    return true;
}

template <class Value>
bool Map<Value>::erase(const Key& key) {
    const Kiv::KeyOrder<Key> wanted(key);
    const Place place = placeOf(wanted);
    if (!matches(place.at, wanted))
        return false;
    structureChanges();
    linkIs(place.before, bucketOf(wanted.hash), nodes_[place.at].next);
    setFree(place.at);
    structureChanged();
    free_.add(place.at);
    return true;
}

template <class Value>
typename Map<Value>::Place Map<Value>::placeOf(const Kiv::KeyOrder<Key>& wanted) const {
    Place place{detail::Link::kNone, heads_[bucketOf(wanted.hash)]};
    while (place.at != detail::Link::kNone &&
           Kiv::KeyOrder<Key>(nodes_[place.at].hash, nodes_[place.at].key) < wanted) {
        place = {place.at, nodes_[place.at].next};
    }
    return place;
}

/// Most chains begin with the key that is looked for, so its value comes while its node is looked
/// at.
template <class Value>
auto Map<Value>::positionOf(const Key& key) const -> Position {
    const std::uint32_t hash = key.hash(0);
    std::uint32_t slot = heads_[bucketOf(hash)];
    if (slot == detail::Link::kNone)
        return Position();
    prefetchSlot(slot);
    const Kiv::KeyOrder<Key> wanted(hash, key);
    while (!matches(slot, wanted)) {
        if (slot == detail::Link::kNone ||
            wanted < Kiv::KeyOrder<Key>(nodes_[slot].hash, nodes_[slot].key))
            return Position();
        slot = nodes_[slot].next;
    }
    return Position(slot);
}

template <class Value>
auto Map<Value>::atOrAfter(const Key& key, Position guess) const -> Position {
    // Keys are in the map once: a slot in use that has the key is where it is, whatever has changed
    // since the guess.
    if (guess.slot_ < slots_ && nodes_[guess.slot_].key.isEq(key) && !free_.has(guess.slot_))
        return guess;
    const Kiv::KeyOrder<Key> wanted(key);
    const std::uint32_t slot = placeOf(wanted).at;
    if (slot != detail::Link::kNone)
        return Position(slot);
    return Position(headOf(usedBuckets_.atOrAfter(bucketOf(wanted.hash) + 1)));
}

template <class Value>
auto Map<Value>::after(const Key& key, Position guess) const -> Position {
    const Position at = atOrAfter(key, guess);
    return at && keyAt(at).isEq(key) ? after(at) : at;
}

template <class Value>
auto Map<Value>::after(Position position) const -> Position {
    const Node& node = nodes_[position.slot_];
    if (node.next != detail::Link::kNone)
        return Position(node.next);
    const std::size_t bucket = bucketOf(node.hash);
    const std::optional<std::size_t> next = usedBuckets_.atOrAfter(bucket + 1);
    if (next)
        prefetchAhead(bucket, *next);
    return Position(headOf(next));
}

/// Fetches what a walk comes to soon when it goes from one bucket to another: first the nodes, then
/// the slots of their chains, while the values before are verified.
template <class Value>
void Map<Value>::prefetchAhead(std::size_t from, std::size_t to) const {
    constexpr std::size_t kNodesAhead = 16;
    constexpr std::size_t kSlotsAhead = 8;
    const std::size_t end = std::min(to + kNodesAhead, heads_.size() - 1);
    // By the steps before, unless this one goes far.
    const std::size_t fetchedUpTo = std::max(from, to - std::min(to, kNodesAhead)) + kNodesAhead;
    for (std::size_t bucket = fetchedUpTo + 1; bucket <= end; ++bucket) {
        const std::uint32_t far = heads_[bucket];
        if (far != detail::Link::kNone)
            Brumo::prefetch(nodes_[far]);
        // Its nodes were asked for when it was as far away as that one.
        for (std::uint32_t near = heads_[bucket - (kNodesAhead - kSlotsAhead)];
             near != detail::Link::kNone; near = nodes_[near].next) {
            prefetchSlot(near);
        }
    }
}

template <class Value>
template <class Use>
auto Map<Value>::valueAt(Position position, const Use& use) const {
    const std::uint32_t slot = position.slot_;
    const Slot& stored = slotAt(slot);
    const detail::Copy<Value> copy(stored.value);
    if (detail::placedSum(copy.sum(), detail::slotSeed(seed_, slot)) !=
        detail::loaded(stored.checksum)) [[unlikely]]
        throw CorruptionError(file_, name_, slot, "value does not verify");
    if (!copy.value().key().isEq(nodes_[slot].key)) [[unlikely]]
        throw CorruptionError(file_, name_, slot, "value has another key");
    return use(copy.value());
}

template <class Value>
void Map<Value>::store(std::uint32_t slot, const Summed<Value>& value) {
    Slot& place = slotAt(slot);
    const std::uint64_t checksum = detail::placedSum(value.sum, detail::slotSeed(seed_, slot));
    const std::uint64_t before = detail::loaded(place.sequence) & ~detail::kMidStore;
    mayHaveMarks_ |= isMarked(value.words.words);
    detail::word(place.sequence).store(before | detail::kMidStore, std::memory_order_relaxed);
    // No store below is seen before the odd sequence by a reader whose fence stands after its
    // loads.
    std::atomic_thread_fence(std::memory_order_release);
    value.words.storeTo(place.value);
    // The value is whole before the checksum that vouches for it.
    detail::word(place.checksum).store(checksum, std::memory_order_release);
    detail::word(place.sequence)
        .store((before | detail::kHoldsValue) + detail::kSequenceStep, std::memory_order_release);
}

template <class Value>
void Map<Value>::setFree(std::uint32_t slot) {
    Slot& place = slotAt(slot);
    const std::uint64_t before = detail::loaded(place.sequence) & ~detail::kMidStore;
    detail::word(place.sequence).store(before | detail::kMidStore, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    detail::word(place.checksum).store(0, std::memory_order_relaxed);
    detail::word(place.sequence)
        .store((before & ~detail::kHoldsValue) + detail::kSequenceStep, std::memory_order_release);
}

template <class Value>
void Map<Value>::linkIs(std::uint32_t before, std::size_t bucket, std::uint32_t target) {
    if (before != detail::Link::kNone) {
        nodes_[before].next = target;
        publishLink(before);
        return;
    }
    heads_[bucket] = target;
    if (target == detail::Link::kNone) {
        usedBuckets_.remove(bucket);
    } else {
        usedBuckets_.add(bucket);
    }
    publishHead(bucket);
}

template <class Value>
void Map<Value>::publishHead(std::size_t bucket) {
    detail::word(headArea_[bucket])
        .store(detail::Link::encoded(heads_[bucket], detail::Link::headPlace(seed_, bucket)),
               std::memory_order_release);
}

template <class Value>
void Map<Value>::publishLink(std::uint32_t slot) {
    detail::word(slotAt(slot).link)
        .store(detail::Link::encoded(nodes_[slot].next, detail::Link::slotPlace(seed_, slot)),
               std::memory_order_release);
}

template <class Value>
void Map<Value>::structureChanges() {
    publishStructure(structureSequence_ | 1U, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
}

template <class Value>
void Map<Value>::structureChanged() {
    publishStructure((structureSequence_ | 1U) + 1, std::memory_order_release);
}

template <class Value>
void Map<Value>::publishStructure(std::uint32_t sequence, std::memory_order order) {
    structureSequence_ = sequence;
    detail::word(*structure_).store(detail::Structure::encoded(sequence, seed_), order);
}

/// What a mount makes of a slot. A killed writer leaves an odd sequence; what verifies in spite of
/// it is the value before or the new one, whole, and is kept.
///
///   checksum   sequence says   verifies   verdict
///   0          free            -          free
///   0          odd             -          free: a removal, or a first store, was cut off
///   0          value           -          rotten: freed, counted
///   other      any             yes        kept; the sequence is put right
///   other      odd             no         torn: kept until it is known whether a journal has it
///   other      even            no         rotten: freed, counted
template <class Value>
bool Map<Value>::takeUp(Table& table, std::uint32_t slot) {
    Slot& place = slotAt(slot);
    const std::uint64_t sequence = detail::loaded(place.sequence);
    const std::uint64_t checksum = detail::loaded(place.checksum);
    const bool odd = (sequence & detail::kMidStore) != 0;
    const bool holdsValue = (sequence & detail::kHoldsValue) != 0;
    if (checksum == 0 && !odd && !holdsValue)
        return false;
    if (checksum != 0) {
        const auto words = Words<Value>::loadFrom(place.value);
        if (words.checksum(detail::slotSeed(seed_, slot)) == checksum) {
            if (odd || !holdsValue) {
                detail::word(place.sequence)
                    .store(((sequence & ~detail::kMidStore) | detail::kHoldsValue) +
                               detail::kSequenceStep,
                           std::memory_order_release);
            }
            const Key key = words.value().key();
            nodes_[slot] = {key.hash(0), detail::Link::kNone, key};
            mayHaveMarks_ |= isMarked(words.words);
            return true;
        }
    }
    if (odd && checksum != 0) {
        keepTorn(table, slot);
        return true;
    }
    setFree(slot);
    if (!odd) {
        table.doCorruptionDetected(
            CorruptionError(file_, name_, slot, "rotten value dropped").what());
    }
    return false;
}

/// Only a value that replaces another is torn, so its key is whole. Readers wait where it stands,
/// and find neither an absent key nor another value before it is stored again.
template <class Value>
void Map<Value>::keepTorn(Table& table, std::uint32_t slot) {
    const Key key = Words<Value>::loadFrom(slotAt(slot).value).value().key();
    nodes_[slot] = {key.hash(0), detail::Link::kNone, key};
    table.tornDetected({CorruptionError(file_, name_, slot, "torn value dropped").what(),
                        [this, slot, key] {
                            if (positionOf(key).slot_ == slot)
                                erase(key);
                        }},
                       tornKeyOf(key));
}

/// Returns whether the links were left whole. They were not where a first mount was cut off, which
/// has not made them yet; nor where a change or a later mount was, which may have emptied slots
/// before they were followed; and it is not known where the sequence cannot be read: its next value
/// is none then that a reader may have seen.
template <class Value>
bool Map<Value>::takeUpStructure(Table& table) {
    if (const auto sequence = detail::Structure::decoded(detail::loaded(*structure_), seed_)) {
        structureSequence_ = *sequence;
        return structureSequence_ >= 2 && (structureSequence_ & 1U) == 0;
    }
    structureSequence_ = std::random_device()();
    table.doCorruptionDetected(
        CorruptionError(file_, name_, 0, "sequence of the links does not verify").what());
    return false;
}

template <class Value>
void Map<Value>::forgetIndex() {
    heads_.assign(heads_.size(), detail::Link::kNone);
    usedBuckets_ = detail::SlotSet(heads_.size());
    free_ = detail::SlotSet(slots_);
}

/// Takes up what was left whole, as most files are: each slot is free or has a value that verifies,
/// and what readers follow leads to every value, in the map's order. Then nothing is stored. False
/// when anything is otherwise: it is for checkIndex and rebuild to say what, from the start.
template <class Value>
bool Map<Value>::takeUpWhole() {
    forgetIndex();
    for (std::uint32_t slot = 0; slot < slots_; ++slot) {
        if (!takeUpWholeSlot(slot))
            return false;
    }
    return takeUpWholeIndex();
}

/// The link is kept in the node, to be followed by takeUpWholeIndex.
template <class Value>
bool Map<Value>::takeUpWholeSlot(std::uint32_t slot) {
    const Slot& place = slotAt(slot);
    const std::uint64_t state = detail::loaded(place.sequence) & (detail::kSequenceStep - 1);
    const std::uint64_t checksum = detail::loaded(place.checksum);
    if (state == 0 && checksum == 0) {
        free_.add(slot);
        return true;
    }
    const auto next =
        detail::Link::decoded(detail::loaded(place.link), detail::Link::slotPlace(seed_, slot));
    const detail::Copy<Value> copy(place.value);
    if (state != detail::kHoldsValue || !next ||
        detail::placedSum(copy.sum(), detail::slotSeed(seed_, slot)) != checksum)
        return false;
    const Key key = copy.value().key();
    nodes_[slot] = {key.hash(0), *next, key};
    mayHaveMarks_ |= isMarked(place.value);
    return true;
}

template <class Value>
bool Map<Value>::takeUpWholeHeads() {
    using detail::Link;
    for (std::size_t bucket = 0; bucket < heads_.size(); ++bucket) {
        const auto head =
            Link::decoded(detail::loaded(headArea_[bucket]), Link::headPlace(seed_, bucket));
        if (!head)
            return false;
        heads_[bucket] = *head;
        usedBuckets_.addNewIf(*head != Link::kNone, bucket);
    }
    return true;
}

/// Links that ascend, and stay among the hashes of a bucket, lead in no circle. So the chains have
/// all values, in order, when each value is either the head of its bucket or led to by a link, and
/// there are no other heads. That is looked at slot by slot, as they lie: along a chain, each look
/// would wait for the one before. What differs from slot to slot is worked out, and not branched
/// on, as half of the branches would be foreseen wrongly.
template <class Value>
bool Map<Value>::takeUpWholeIndex() {
    if (!takeUpWholeHeads())
        return false;
    // One more, for what the last of each chain leads to.
    std::vector<std::uint8_t> linked(slots_ + 1);
    for (std::uint32_t slot = 0; slot < slots_; ++slot) {
        constexpr std::uint32_t kAhead = 16;
        prefetchNext(slot + kAhead);
        const Node& node = nodes_[slot];
        if (node.next + 1 > slots_)  // for none, that is 0
            return false;
        const bool isLast = node.next == detail::Link::kNone;
        const Node& next = nodes_[isLast ? slot : node.next];
        const bool ascends = isLast | (node.hash < next.hash);
        if (!ascends && !(Kiv::KeyOrder<Key>(node.hash, node.key) <
                          Kiv::KeyOrder<Key>(next.hash, next.key))) [[unlikely]]
            return false;
        if (bucketOf(node.hash) != bucketOf(next.hash)) [[unlikely]]
            return false;
        linked[isLast ? slots_ : node.next] = 1;
    }
    std::uint64_t heads = 0;
    for (std::uint32_t slot = 0; slot < slots_; ++slot) {
        const bool isHead = heads_[bucketOf(nodes_[slot].hash)] == slot;
        if ((isHead != (linked[slot] != 0)) == free_.has(slot))
            return false;
        heads += isHead ? 1 : 0;
    }
    return heads == usedBuckets_.count();
}

/// What readers follow leads to every value. So it tells of slots that are empty and should not be,
/// as after a page was lost. REQUIRES: the links were left whole.
template <class Value>
void Map<Value>::checkIndex(Table& table) const {
    using detail::Link;
    bool linksVerify = true;
    const auto report = [&](std::uint64_t slot, std::string_view what) {
        table.doCorruptionDetected(CorruptionError(file_, name_, slot, what).what());
    };
    for (std::size_t bucket = 0; bucket < heads_.size(); ++bucket) {
        std::uint64_t place = bucket;
        auto at = Link::decoded(detail::loaded(headArea_[bucket]), Link::headPlace(seed_, bucket));
        for (std::uint64_t steps = 0; at != Link::kNone; ++steps) {
            if (!at || *at >= slots_ || steps > slots_) {
                if (std::exchange(linksVerify, false))
                    report(place, "link does not verify, all are made again");
                break;
            }
            place = *at;
            const Slot& slot = slotAt(*at);
            if (detail::loaded(slot.checksum) == 0 && (detail::loaded(slot.sequence) & 3U) == 0) {
                report(place, "value is gone");
                break;
            }
            at = Link::decoded(detail::loaded(slot.link), Link::slotPlace(seed_, place));
        }
    }
}

template <class Value>
void Map<Value>::rebuild(Table& table) {
    forgetIndex();
    std::vector<std::uint32_t> taken;
    structureChanges();
    for (std::uint32_t slot = 0; slot < slots_; ++slot) {
        if (takeUp(table, slot)) {
            taken.push_back(slot);
        } else {
            free_.add(slot);
        }
    }
    std::sort(taken.begin(), taken.end(), [this](std::uint32_t a, std::uint32_t b) {
        const Kiv::KeyOrder<Key> first(nodes_[a].hash, nodes_[a].key);
        const Kiv::KeyOrder<Key> second(nodes_[b].hash, nodes_[b].key);
        return first < second || (!(second < first) && isTorn(a) < isTorn(b));
    });
    // Two slots of one key cannot come from any sequence of stores; the first, which is whole if
    // one of them is, is kept.
    const auto last =
        std::unique(taken.begin(), taken.end(), [&](std::uint32_t a, std::uint32_t b) {
            if (!nodes_[a].key.isEq(nodes_[b].key))
                return false;
            setFree(b);
            free_.add(b);
            table.doCorruptionDetected(
                CorruptionError(file_, name_, b, "second value of a key dropped").what());
            return true;
        });
    taken.erase(last, taken.end());
    chainUp(taken);
    structureChanged();
}

/// Links the slots, which come in the map's order, and publishes every head.
template <class Value>
void Map<Value>::chainUp(std::vector<std::uint32_t>& taken) {
    for (auto slot = taken.rbegin(); slot != taken.rend(); ++slot) {
        const std::size_t bucket = bucketOf(nodes_[*slot].hash);
        nodes_[*slot].next = heads_[bucket];
        heads_[bucket] = *slot;
        usedBuckets_.add(bucket);
        publishLink(*slot);
    }
    for (std::size_t bucket = 0; bucket < heads_.size(); ++bucket)
        publishHead(bucket);
}

template <class Value>
void Map<Value>::assertConsistent() const {
    using Brumo::require;
    std::uint64_t seen = 0;
    const Node* before = nullptr;
    for (std::size_t bucket = 0; bucket < heads_.size(); ++bucket) {
        require(usedBuckets_.has(bucket) == (heads_[bucket] != detail::Link::kNone), "used bucket");
        require(detail::Link::decoded(detail::loaded(headArea_[bucket]),
                                      detail::Link::headPlace(seed_, bucket)) == heads_[bucket],
                "published head");
        for (std::uint32_t slot = heads_[bucket]; slot != detail::Link::kNone;
             slot = nodes_[slot].next) {
            const Node& node = nodes_[slot];
            require(bucketOf(node.hash) == bucket && node.hash == node.key.hash(0), "bucket");
            require(before == nullptr || Kiv::KeyOrder<Key>(before->hash, before->key) <
                                             Kiv::KeyOrder<Key>(node.hash, node.key),
                    "sorted");
            require(detail::Link::decoded(detail::loaded(slotAt(slot).link),
                                          detail::Link::slotPlace(seed_, slot)) == node.next,
                    "published link");
            const std::uint64_t sequence = detail::loaded(slotAt(slot).sequence);
            require((sequence & 3U) == detail::kHoldsValue && !free_.has(slot), "slot in use");
            require(valueAt(Position(slot)).has_value(), "value");
            before = &node;
            ++seen;
        }
    }
    require(seen == count(), "count");
    require(
        (structureSequence_ & 1U) == 0 &&
            detail::loaded(*structure_) == detail::Structure::encoded(structureSequence_, seed_),
        "structure sequence");
    for (std::size_t slot = 0; slot < slots_; ++slot) {
        if (!free_.has(slot))
            continue;
        const Slot& place = slotArea_[slot];
        require(detail::loaded(place.checksum) == 0 && (detail::loaded(place.sequence) & 3U) == 0,
                "free slot");
    }
}

}  // namespace KivShimo
