// A set of keys in the order of keyed collections, for little memory: no node and no link a key.
//
// Event thread only. Keys are plain values that offer `hash(unsigned seed)`, `isEq` and
// `operator<=>`; the set is as fast as their hashes are spread.
//
// What always holds:
//  1. Keys are iterated by (hash, key), like the elements of a HashMap2018.
//  2. A walk goes on behind a key (after), whether or not that is still there. So it may be
//     interrupted by any change.
//  3. Keys stand in the slots in their order, each at its home or behind it, and every slot from
//     the home to the key is taken. Homes divide the hashes evenly, so they rise with the order.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/brumo/Assert.h"
#include "platform/kiv/HashMap2018.h"

namespace Kiv {

template <class Key>
class KeySet {
    static_assert(std::is_trivially_copyable_v<Key>);

public:
    KeySet() = default;
    KeySet(const KeySet&) = delete;
    KeySet& operator=(const KeySet&) = delete;

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    bool contains(const Key& key) const { return holds(placeOf(KeyOrder<Key>(key)), key); }

    /// False when the key was there already.
    bool insert(const Key& key) {
        const KeyOrder<Key> wanted(key);
        std::size_t at = placeOf(wanted);
        if (holds(at, key))
            return false;
        if ((size_ + 1) * 4 > homes_ * 3) {
            grow();
            at = placeOf(wanted);
        }
        std::size_t free = at;
        while (taken_[free])
            ++free;
        if (free == slots_.size())
            addSlot();
        std::copy_backward(&slots_[at], &slots_[free], &slots_[free] + 1);
        slots_[at] = key;
        taken_[free] = true;
        ++size_;
        return true;
    }

    /// True when the key was there.
    bool erase(const Key& key) {
        std::size_t at = placeOf(KeyOrder<Key>(key));
        if (!holds(at, key))
            return false;
        // What stands behind its home moves up, up to the next gap.
        for (; taken_[at + 1] && homeOf(slots_[at + 1].hash(0)) <= at; ++at)
            slots_[at] = slots_[at + 1];
        taken_[at] = false;
        --size_;
        return true;
    }

    void clear() {
        homes_ = kFewestHomes;
        slots_ = std::vector<Key>(kFewestHomes);
        taken_ = std::vector<std::uint8_t>(kFewestHomes + 1);
        size_ = 0;
    }

    /// Where a walk stands: at a key, which may have gone since.
    struct Step {
        Key key{};
        std::size_t guess = 0;  ///< where the key was: looked up again only when it is not there
    };
    /// First key in the set's order.
    std::optional<Step> first() const { return stepFrom(0); }
    /// First key after that of `step`.
    std::optional<Step> after(const Step& step) const {
        const bool isThere = step.guess < slots_.size() && holds(step.guess, step.key);
        const std::size_t at = isThere ? step.guess : placeOf(KeyOrder<Key>(step.key));
        return stepFrom(holds(at, step.key) ? at + 1 : at);
    }
    std::optional<Step> after(const Key& key) const { return after(Step{key, slots_.size()}); }

    /// Calls `visit(key)` for each key, in order. `visit` must not change the set.
    template <class Visit>
    void forEach(Visit&& visit) const {
        for (std::size_t at = 0; at < slots_.size(); ++at) {
            if (taken_[at])
                visit(slots_[at]);
        }
    }

    /// Ends the process unless what always holds does.
    void assertConsistent() const {
        std::size_t seen = 0;
        const Key* before = nullptr;
        for (std::size_t at = 0; at < slots_.size(); ++at) {
            if (!taken_[at])
                continue;
            const KeyOrder<Key> here(slots_[at]);
            Brumo::require(before == nullptr || KeyOrder<Key>(*before) < here, "sorted");
            Brumo::require(homeOf(here.hash) <= at, "at its home or behind it");
            for (std::size_t slot = homeOf(here.hash); slot < at; ++slot)
                Brumo::require(taken_[slot] != 0, "no gap between the home and the key");
            before = &slots_[at];
            ++seen;
        }
        Brumo::require(seen == size_, "size");
        Brumo::require(taken_.size() == slots_.size() + 1 && !taken_.back(), "the end is free");
    }

private:
    static constexpr std::size_t kFewestHomes = 4;

    std::size_t homeOf(std::uint32_t hash) const {
        return static_cast<std::size_t>(std::uint64_t{hash} * homes_ >> 32U);
    }
    bool holds(std::size_t at, const Key& key) const { return taken_[at] && slots_[at].isEq(key); }
    /// Where the key is or belongs.
    std::size_t placeOf(const KeyOrder<Key>& wanted) const {
        std::size_t at = homeOf(wanted.hash);
        while (taken_[at] && KeyOrder<Key>(slots_[at]) < wanted)
            ++at;
        return at;
    }
    std::optional<Step> stepFrom(std::size_t at) const {
        while (at < slots_.size() && !taken_[at])
            ++at;
        return at < slots_.size() ? std::optional<Step>({slots_[at], at}) : std::nullopt;
    }
    /// A few more are added at once, and not as many again: hardly any are needed.
    void addSlot() {
        constexpr std::size_t kFew = 8;
        if (slots_.size() == slots_.capacity())
            slots_.reserve(slots_.size() + kFew);
        slots_.emplace_back();
        taken_.push_back(false);
    }

    void grow() {
        const std::vector<Key> keys = std::exchange(slots_, std::vector<Key>(homes_ * 2));
        const std::vector<std::uint8_t> held =
            std::exchange(taken_, std::vector<std::uint8_t>(homes_ * 2 + 1));
        homes_ *= 2;
        std::size_t next = 0;  // keys come in their order
        for (std::size_t at = 0; at < keys.size(); ++at) {
            if (!held[at])
                continue;
            next = std::max(next, homeOf(keys[at].hash(0)));
            if (next == slots_.size())
                addSlot();
            slots_[next] = keys[at];
            taken_[next++] = true;
        }
    }

    std::size_t homes_ = kFewestHomes;
    /// One a home, and what stands behind the last of them.
    std::vector<Key> slots_ = std::vector<Key>(kFewestHomes);
    /// By slot, and one more that never is, at which every search ends.
    std::vector<std::uint8_t> taken_ = std::vector<std::uint8_t>(kFewestHomes + 1);
    std::size_t size_ = 0;
};

}  // namespace Kiv
