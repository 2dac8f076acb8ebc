// A set of slot numbers that finds its next member fast: what a writer knows of the slots in use.
//
// In the writer's own memory, event thread only; rebuilt at each mount.
//
// What always holds:
//  1. A bit of a word is set exactly when that slot is a member; a bit of a summary exactly when
//     its word is not zero. So a search skips 4096 absent slots with one look.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace KivShimo::detail {

class SlotSet {
public:
    explicit SlotSet(std::size_t slots)
        : words_((slots + 63) / 64), summaries_((words_.size() + 63) / 64) {}

    bool has(std::size_t slot) const { return (words_[slot / 64] >> (slot % 64) & 1U) != 0; }
    std::size_t count() const { return count_; }

    void add(std::size_t slot) {
        if (has(slot))
            return;
        words_[slot / 64] |= std::uint64_t{1} << (slot % 64);
        summaries_[slot / 4096] |= std::uint64_t{1} << (slot / 64 % 64);
        ++count_;
    }
    /// Adds the slot, which is no member yet, if it is to be one; without a branch, for slots of
    /// which nobody can foresee it.
    void addNewIf(bool isMember, std::size_t slot) {
        words_[slot / 64] |= std::uint64_t{isMember} << (slot % 64);
        summaries_[slot / 4096] |= std::uint64_t{isMember} << (slot / 64 % 64);
        count_ += isMember ? 1 : 0;
    }
    void remove(std::size_t slot) {
        if (!has(slot))
            return;
        words_[slot / 64] &= ~(std::uint64_t{1} << (slot % 64));
        if (words_[slot / 64] == 0) {
            summaries_[slot / 4096] &= ~(std::uint64_t{1} << (slot / 64 % 64));
        }
        --count_;
    }

    /// The first member at or after the slot.
    std::optional<std::size_t> atOrAfter(std::size_t slot) const {
        std::size_t at = slot / 64;
        if (at >= words_.size())
            return std::nullopt;
        const std::uint64_t rest = words_[at] >> (slot % 64);
        if (rest != 0)
            return slot + static_cast<std::size_t>(std::countr_zero(rest));
        if (++at >= words_.size())
            return std::nullopt;
        std::size_t group = at / 64;
        std::uint64_t summary = summaries_[group] >> (at % 64) << (at % 64);
        while (summary == 0) {
            if (++group >= summaries_.size())
                return std::nullopt;
            summary = summaries_[group];
        }
        at = group * 64 + static_cast<std::size_t>(std::countr_zero(summary));
        return at * 64 + static_cast<std::size_t>(std::countr_zero(words_[at]));
    }

private:
    std::vector<std::uint64_t> words_;
    std::vector<std::uint64_t> summaries_;
    std::size_t count_ = 0;
};

}  // namespace KivShimo::detail
