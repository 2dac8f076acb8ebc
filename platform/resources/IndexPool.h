// The indexes of one resource table and where each of them is.
//
// Event thread only.
//
// What always holds:
//  1. Each index is free, used or returning.
//  2. Every operation takes constant time; nothing is allocated after construction.
//  3. Free indexes are handed out in the order in which they became free, so that an index rests
//     for as long as possible before it is used again.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace Asic {

class IndexPool {
public:
    enum class Place : std::uint8_t { free, used, returning };

    /// All indexes below `size` are free, but none is handed out before restored() was called.
    explicit IndexPool(std::uint32_t size);

    /// Puts an index where the process before had it. REQUIRES: it is free; restored() was not
    /// called.
    void restore(std::uint32_t index, Place place);
    /// Makes what is left after restoring available.
    void restored();

    /// Nothing when none is free.
    std::optional<std::uint32_t> take();
    /// REQUIRES: used.
    void startReturn(std::uint32_t index);
    /// REQUIRES: returning.
    void revive(std::uint32_t index);
    /// REQUIRES: used or returning.
    void giveBack(std::uint32_t index);

    Place place(std::uint32_t index) const { return places_[index]; }
    std::uint32_t size() const { return static_cast<std::uint32_t>(places_.size()); }
    std::uint32_t used() const { return used_; }
    std::uint32_t returning() const { return returning_; }
    std::uint32_t free() const { return size() - used_ - returning_; }

    /// Ends the process unless the figures and the free indexes agree with the places.
    void assertConsistent() const;

private:
    void moveTo(std::uint32_t index, Place place);
    void queue(std::uint32_t index);

    std::vector<Place> places_;
    std::vector<std::uint32_t> ring_;  ///< free indexes: free() of them from head_ on
    std::uint32_t head_ = 0;
    std::uint32_t queued_ = 0;
    std::uint32_t used_ = 0;
    std::uint32_t returning_ = 0;
};

}  // namespace Asic
