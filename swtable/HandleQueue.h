// A queue of shared objects whose elements are numbered by consecutive 32-bit sequence numbers.
//
// Event thread only. One table owns each queue.
//
// What always holds:
//  1. The first element ever is number 1; a number is never given twice while the queue lives
//     (numbers wrap at 2^32 and are compared as serial numbers).
//  2. Elements leave in the order in which they came.
//  3. Storage is a circular, singly linked chain of segments of a power of two slots each; only
//     the last one is appended to. Without elements, one segment without slots keeps the count.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/brumo/Assert.h"
#include "platform/brumo/Ptr.h"
#include "platform/brumo/Recycled.h"

namespace VornPolicyCpu {

/// Whether number `a` is `b` or comes after it.
constexpr bool serialAtOrAfter(std::uint32_t a, std::uint32_t b) {
    return a - b < 0x7FFFFFFFU;
}

template <class T>
class HandleQueue {
public:
    /// A run of slots; public so that tests can break its rules.
    struct Segment final : Brumo::RefCounted {
        /// `capacity` is a power of two, or 0 for the segment that only keeps the count.
        Segment(std::uint32_t number, std::size_t capacity)
            : firstNumber(number), read(0), fill(0), slots(capacity) {
            if (capacity > 0)
                Brumo::require(std::has_single_bit(capacity), "isPowerOfTwo( i )");
        }
        ~Segment() override { Brumo::require(!linked(), "!linked()"); }

        bool linked() const { return successor != nullptr; }
        bool full() const { return fill == slots.size(); }
        /// The number after this segment's last element.
        std::uint32_t next() const { return firstNumber + fill; }

        Segment* successor = nullptr;
        std::uint32_t firstNumber;
        std::uint32_t read : 14;
        std::uint32_t fill : 14;
        std::vector<Brumo::Ptr<T>, Brumo::RecyclingAllocator<Brumo::Ptr<T>>> slots;
    };

    /// Tests begin at another number, just before the numbers wrap.
    explicit HandleQueue(std::uint32_t firstNumber = kFirstNumber) {
        link(Brumo::make<Segment>(firstNumber, 0U));
    }
    HandleQueue(const HandleQueue&) = delete;
    HandleQueue& operator=(const HandleQueue&) = delete;
    ~HandleQueue() {
        clear();
        unlinkFront();
    }

    bool empty() const { return size_ == 0; }
    std::size_t size() const { return size_; }

    /// Appends and returns the new element's number.
    std::uint32_t enqueue(Brumo::Ptr<T> element) {
        if (back_->full()) {
            const Brumo::Ptr<Segment> before(back_);
            link(Brumo::make<Segment>(back_->next(), capacityFor(size_)));
            if (before->slots.empty())
                unlinkFront();
        }
        back_->slots[back_->fill] = std::move(element);
        ++back_->fill;
        ++size_;
        return back_->next() - 1;
    }

    /// Removes and returns the front element; null when there is none.
    Brumo::Ptr<T> dequeue() {
        if (empty())
            return nullptr;
        Segment& segment = front();
        Brumo::Ptr<T> element = std::move(segment.slots[segment.read]);
        ++segment.read;
        --size_;
        if (segment.read == segment.fill) {
            if (size_ == 0)
                link(Brumo::make<Segment>(segment.next(), 0U));
            unlinkFront();
        }
        return element;
    }

    Brumo::Ptr<T> frontElement() const { return empty() ? nullptr : front().slots[front().read]; }
    Brumo::Ptr<T> backElement() const { return empty() ? nullptr : back_->slots[back_->fill - 1U]; }

    /// The front element's number; the next one to be given when the queue is empty.
    std::uint32_t frontNumber() const { return front().firstNumber + front().read; }

    /// The element of that number; null when it is not in the queue.
    Brumo::Ptr<T> at(std::uint32_t number) const {
        if (!has(number))
            return nullptr;
        const Segment* segment = &front();
        while (serialAtOrAfter(number, segment->next()))
            segment = segment->successor;
        return segment->slots[number - segment->firstNumber];
    }

    /// True exactly for the numbers from the front's to the back's.
    bool has(std::uint32_t number) const {
        if (empty())
            return false;
        return serialAtOrAfter(number, front().firstNumber + front().read) &&
               !serialAtOrAfter(number, back_->next());
    }

    /// Visits the elements from front to back, until `visit` says false; it must not change the
    /// queue.
    template <class Visit>
    void forEachWhile(Visit&& visit) const {
        const std::uint32_t first = frontNumber();
        const Segment* segment = &front();
        for (std::uint32_t i = 0; i < size_; ++i) {
            if (first + i == segment->next())
                segment = segment->successor;
            if (!visit(*segment->slots[first + i - segment->firstNumber]))
                return;
        }
    }

    void clear() {
        while (!empty())
            dequeue();
    }

    /// Slots of each segment from front to back, for tests.
    std::vector<std::size_t> capacities() const {
        std::vector<std::size_t> result;
        const Segment* segment = &front();
        do {
            result.push_back(segment->slots.size());
            segment = segment->successor;
        } while (segment != &front());
        return result;
    }

private:
    static constexpr std::uint32_t kFirstNumber = 1;
    static constexpr std::size_t kSmallest = 4;
    static constexpr std::size_t kLargest = 8192;

    /// The smallest power of two above the number of elements, within bounds.
    static std::size_t capacityFor(std::size_t elements) {
        return std::clamp(std::bit_ceil(elements + 1), kSmallest, kLargest);
    }

    Segment& front() const { return *back_->successor; }

    /// Puts a segment behind the last one; the chain owns it from now on.
    void link(Brumo::Ptr<Segment> segment) {
        Segment* added = segment.detach();
        added->successor = back_ == nullptr ? added : back_->successor;
        if (back_ != nullptr)
            back_->successor = added;
        back_ = added;
    }

    void unlinkFront() {
        const auto gone = Brumo::Ptr<Segment>::adopt(back_->successor);
        if (gone.get() == back_) {
            back_ = nullptr;
        } else {
            back_->successor = gone->successor;
        }
        gone->successor = nullptr;
    }

    Segment* back_ = nullptr;  ///< its successor is the front
    std::size_t size_ = 0;
};

}  // namespace VornPolicyCpu
