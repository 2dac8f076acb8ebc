// Words of shared memory that verify themselves.
//
// Used by the writer and the readers of one mapping, which may be different processes.
//
// What always holds:
//  1. A VerifiedWord is read as the value stored last, or the one before while a store is under
//     way, or after one that was cut off; zeroed or rotten memory never reads as a value, and what
//     was stored last and has rotted is never passed over for the value before.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "platform/kivshimo/Words.h"

namespace KivShimo::detail {

/// One published number in two cells that take turns. A store writes the cell that holds the older
/// number, so a writer that dies in the middle leaves the newer one whole. The check is 0 while its
/// cell is stored: so a store that was cut off is told from a cell that has rotted. A seed, the
/// same for writer and readers, makes the word one of its file: no other file's verifies in its
/// place.
///
///   0       8        16      24      32       40      48
///   | value | serial | check | value | serial | check |
struct VerifiedWord {
    struct Cell {
        std::uint64_t value;
        std::uint64_t serial;  ///< counts the stores; the higher valid one is the newer
        std::uint64_t check;

        static std::uint64_t checkOf(std::uint64_t value, std::uint64_t serial,
                                     std::uint64_t seed) {
            return mixed(mixed(value, serial), seed) | 1U;
        }
    };
    Cell cells[2];

    struct Reading {
        std::uint64_t value = 0;
        std::uint64_t serial = 0;  ///< of the newer valid cell; 0 when neither is valid
        bool rotten = false;       ///< what was stored last does not verify
    };
    /// What the cells say now.
    Reading reading(std::uint64_t seed) const;
    /// What a reader gets: tries again while the writer overtakes it. Empty means rotten.
    std::optional<std::uint64_t> read(std::uint64_t seed) const;
};
static_assert(sizeof(VerifiedWord) == 48);

/// The one writer's access to a VerifiedWord.
class VerifiedWordWriter {
public:
    /// Takes up what is stored. Where that has rotted, `rotten()` says so, and the value before
    /// counts, or 0 without one: whoever knows better stores it again.
    VerifiedWordWriter(VerifiedWord& place, std::uint64_t seed);

    std::uint64_t value() const { return value_; }
    bool rotten() const { return rotten_; }

    /// All stores before are visible to whoever reads the value with VerifiedWord::read.
    void valueIs(std::uint64_t value) {
        VerifiedWord::Cell& cell = place_->cells[++serial_ & 1U];
        // A rotten cell stays visibly so until the new value is whole: a process that is killed in
        // between must not leave it as a store that was cut off, which the value before outlives.
        if (!clears_) [[likely]]
            word(cell.check).store(0, std::memory_order_relaxed);
        // A reader that sees a word of the new value and then looks at the check again, behind its
        // fence, does not find the old check any more.
        std::atomic_thread_fence(std::memory_order_release);
        word(cell.value).store(value, std::memory_order_relaxed);
        word(cell.serial).store(serial_, std::memory_order_relaxed);
        word(cell.check)
            .store(VerifiedWord::Cell::checkOf(value, serial_, seed_), std::memory_order_release);
        // What has rotted in the other cell must not stand beside a value that is known again.
        if (std::exchange(clears_, false)) [[unlikely]]
            word(place_->cells[(serial_ + 1) & 1U].check).store(0, std::memory_order_release);
        value_ = value;
    }

private:
    VerifiedWord* place_;
    std::uint64_t seed_;
    std::uint64_t value_ = 0;
    std::uint64_t serial_ = 0;
    bool rotten_ = false;
    bool clears_ = false;  ///< the next store takes the other cell away
};

}  // namespace KivShimo::detail
