// A keyed collection of fixed capacity in shared memory, as its one writer sees it.
//
// Event thread of the writing process; a member of a table class. Values are trivially copyable and
// offer `key()`; keys offer `hash(unsigned)`, `isEq` and `<=>`. Readers: MapReader.h.
//
// What always holds:
//  1. A value does not move while its key is in the map.
//  2. Elements are ordered by (hash, key). A walk resumes at a key, whether or not it is still
//     there, so it survives every change in between.
//  3. The writer's own index (keys, chains, free slots) is in its private memory, made from the
//     slots at each mount; what lies in the file for readers is written, and taken up by a mount
//     only where it is what the slots, all of them whole, make of it. So a rotten value can be
//     replaced and erased like any other. Before it is made again at a mount, it tells of values
//     that are gone without a trace in their slots.
//  4. Every value that is returned was verified; a rotten one throws CorruptionError.
//  5. A full map refuses new keys and changes nothing then.
//  6. Each change is all or nothing, also for a process that is killed: a value that replaces
//     another is in a journal while it is stored.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Prefetch.h"
#include "platform/kiv/HashMap2018.h"
#include "platform/kivshimo/Table.h"
#include "platform/kivshimo/detail/MapLayout.h"
#include "platform/kivshimo/detail/SlotSet.h"

namespace KivShimo {

template <class Value>
class Map {
    static_assert(std::is_trivially_copyable_v<Value> && std::is_default_constructible_v<Value>);
    static_assert(sizeof(Value) <= Journal::kValueBytes);

public:
    using Key = std::remove_cvref_t<decltype(std::declval<const Value&>().key())>;

    static CollectionLayout layout(std::string name) {
        return {std::move(name), detail::CollectionKind::map, sizeof(Value),
                layoutFingerprint<Value>()};
    }

    /// Takes up the collection of that name. REQUIRES: the table's type declares it.
    Map(Table& table, std::string_view name);
    Map(const Map&) = delete;
    Map& operator=(const Map&) = delete;

    std::uint64_t capacity() const { return slots_; }
    std::uint64_t count() const { return slots_ - free_.count(); }

    /// False when the key is new and there is no room.
    bool insertOrReplace(const Value& value);

    /// Where a key is or will be, until the next change of the map: found before the value is made,
    /// so that the memory that takes it is there when it comes.
    struct Spot {
        Key key;
        std::uint32_t hash;
        std::uint32_t before;  ///< slot that precedes it in its chain
        std::uint32_t at;      ///< slot that holds it, or stands behind it
    };
    Spot spotOf(const Key& key) const;
    /// Asks for the memory that holds the key, most likely, so that it is there when the key is
    /// read or changed soon; waits for nothing.
    void prefetch(const Key& key) const;
    /// Inserts or replaces the value of the spot's key, for a caller in whose own journal it is
    /// until this has returned. False when the key is new and there is no room.
    bool journaledIs(const Spot& spot, const Summed<Value>& value);
    /// False when the key was not there.
    bool erase(const Key& key);
    /// Where an element is, or the end. Holds until the map changes; later it may still be given as
    /// a guess of where the element's key is, to any map.
    class Position {
    public:
        Position() = default;
        explicit operator bool() const { return slot_ != detail::Link::kNone; }

    private:
        friend class Map;
        explicit Position(std::uint32_t slot) : slot_(slot) {}

        std::uint32_t slot_ = detail::Link::kNone;
    };

    bool has(const Key& key) const { return static_cast<bool>(positionOf(key)); }
    /// Throws CorruptionError.
    std::optional<Value> find(const Key& key) const { return valueAt(positionOf(key)); }
    /// Where a key is; the end when it is not there.
    Position positionOf(const Key& key) const;

    Position begin() const { return Position(headOf(usedBuckets_.atOrAfter(0))); }
    /// The first element at or after the key. Where the guess is right, nothing is looked up.
    Position atOrAfter(const Key& key, Position guess = {}) const;
    /// The first element after the key.
    Position after(const Key& key, Position guess = {}) const;
    /// The next element. REQUIRES: as `keyAt`.
    Position after(Position position) const;
    /// REQUIRES: the map was not changed since the position was found, which is not the end.
    const Key& keyAt(Position position) const { return nodes_[position.slot_].key; }
    /// What `use` makes of the value; it is not called when the value is rotten. Throws
    /// CorruptionError. REQUIRES: as `keyAt`.
    template <class Use>
    auto valueAt(Position position, const Use& use) const;
    /// The value; nothing at the end. Throws CorruptionError. REQUIRES: as `after`.
    std::optional<Value> valueAt(Position position) const {
        if (!position)
            return std::nullopt;
        return valueAt(position, [](const Value& value) { return std::optional<Value>(value); });
    }

    /// Walks: the first element; the first at or after a key; the first after a key. Each throws
    /// CorruptionError when the element that comes is rotten; the key walks below do not.
    std::optional<Value> first() const { return valueAt(begin()); }
    std::optional<Value> lowerBound(const Key& key) const { return valueAt(atOrAfter(key)); }
    std::optional<Value> next(const Key& key) const { return valueAt(after(key)); }
    std::optional<Key> firstKey() const { return keyOf(begin()); }
    std::optional<Key> lowerBoundKey(const Key& key) const { return keyOf(atOrAfter(key)); }
    std::optional<Key> nextKey(const Key& key) const { return keyOf(after(key)); }

    /// Calls `visit(value)` for each element in order; `visit` may change the map.
    template <class Visit>
    void forEach(Visit&& visit) const {
        Key key{};
        for (Position at = begin(); at; at = after(key, at)) {
            key = keyAt(at);
            visit(*valueAt(at));
        }
    }

    /// Calls `visit(position)` for each element whose value is marked, which it is when it has a
    /// byte other than 0 at `Value::markAt()`, as it stands there: nothing is verified, nor is
    /// there an order. `visit` may erase the element. Where no value was marked since the mount,
    /// nothing is looked at.
    template <class Visit>
    void forEachMarked(Visit&& visit) const {
        static_assert(requires { Value::markAt(); });
        for (std::uint32_t slot = 0; mayHaveMarks_ && slot < slots_; ++slot) {
            if (isMarked(slotAt(slot).value) && !free_.has(slot))
                visit(Position(slot));
        }
    }

    /// Checks everything that always holds once torn values are settled (Table::tornSettled), in
    /// memory and in the file; ends the process otherwise.
    void assertConsistent() const;

private:
    using Slot = detail::MapSlot<Value>;
    static_assert(sizeof(Slot) == detail::mapSlotBytes(sizeof(Value)));

    static bool isMarked(const std::uint64_t* words) {
        if constexpr (requires { Value::markAt(); })
            return reinterpret_cast<const std::byte*>(words)[Value::markAt()] != std::byte{0};
        return false;
    }

    struct Node {
        std::uint32_t hash = 0;
        std::uint32_t next = detail::Link::kNone;
        Key key{};
    };

    std::size_t bucketOf(std::uint32_t hash) const {
        return bits_ == 0 ? 0 : hash >> (32U - bits_);
    }
    Slot& slotAt(std::uint32_t slot) const { return slotArea_[slot]; }
    /// Slot before which the key belongs in its chain, and the one that precedes it.
    struct Place {
        std::uint32_t before;
        std::uint32_t at;
    };
    Place placeOf(const Kiv::KeyOrder<Key>& wanted) const;
    void prefetchSlot(std::uint32_t slot) const {
        if (slot != detail::Link::kNone)
            Brumo::prefetch(slotAt(slot));
    }
    /// Asks for the node that a slot's leads to, if there are both.
    void prefetchNext(std::uint32_t slot) const {
        if (slot >= slots_)
            return;
        const std::uint32_t next = nodes_[slot].next;
        Brumo::prefetch(nodes_[next < slots_ ? next : slot]);
    }
    void prefetchAhead(std::size_t from, std::size_t to) const;
    bool isTaken(const Spot& spot) const {
        return matches(spot.at, Kiv::KeyOrder<Key>(spot.hash, spot.key));
    }
    bool matches(std::uint32_t slot, const Kiv::KeyOrder<Key>& wanted) const {
        return slot != detail::Link::kNone && nodes_[slot].hash == wanted.hash &&
               nodes_[slot].key.isEq(wanted.key);
    }
    std::uint32_t headOf(std::optional<std::size_t> bucket) const {
        return bucket ? heads_[*bucket] : detail::Link::kNone;
    }
    std::optional<Key> keyOf(Position position) const {
        return position ? std::optional<Key>(keyAt(position)) : std::nullopt;
    }

    bool insertNew(const Spot& spot, const Summed<Value>& value);
    void store(std::uint32_t slot, const Summed<Value>& value);
    void setFree(std::uint32_t slot);
    void linkIs(std::uint32_t before, std::size_t bucket, std::uint32_t target);
    void publishHead(std::size_t bucket);
    void publishLink(std::uint32_t slot);
    /// Readers that found nothing look again when the sequence has moved meanwhile.
    void structureChanges();
    void structureChanged();
    void publishStructure(std::uint32_t sequence, std::memory_order order);

    // Mount
    void finishPending(Table& table);
    bool takeUpStructure(Table& table);
    void forgetIndex();
    bool takeUpWhole();
    bool takeUpWholeSlot(std::uint32_t slot);
    bool takeUpWholeHeads();
    bool takeUpWholeIndex();
    void checkIndex(Table& table) const;
    void rebuild(Table& table);
    bool takeUp(Table& table, std::uint32_t slot);
    void keepTorn(Table& table, std::uint32_t slot);
    bool isTorn(std::uint32_t slot) const {
        return (detail::loaded(slotAt(slot).sequence) & detail::kMidStore) != 0;
    }
    void chainUp(std::vector<std::uint32_t>& taken);

    std::string file_;
    std::string name_;
    JournalWriter* journal_;  ///< of the table
    std::size_t number_;      ///< of the collection
    std::uint64_t slots_;
    std::uint64_t seed_;
    unsigned bits_;
    std::uint64_t* headArea_;   ///< in the file
    Slot* slotArea_;            ///< in the file
    std::uint64_t* structure_;  ///< in the file

    // The writer's own, made at each mount
    std::vector<Node> nodes_;
    std::vector<std::uint32_t> heads_;
    detail::SlotSet usedBuckets_;
    detail::SlotSet free_;
    std::uint32_t structureSequence_ = 0;
    bool mayHaveMarks_ = false;  ///< a value was marked when it was taken up or stored
};

}  // namespace KivShimo

#include "platform/kivshimo/detail/MapWriting.h"
