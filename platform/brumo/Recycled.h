// Memory of what comes and goes with every change: blocks that were freed are given out again.
//
// REQUIRES: one thread, or ThreadControl says that there are more; then all blocks come from the
// heap and go there.
//
// What always holds:
//  1. Blocks are of whole classes of sizes, wherever they come from, so a kept one fits whatever
//     asks for its class.
//  2. No more than kMostKept blocks of a class are kept, for good; what a burst took beyond that
//     goes back to the heap.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>  // allow: the heap's own functions are declared there

#include "platform/brumo/ThreadControl.h"

namespace Brumo {

/// Base of classes whose objects are made and ended by the thousand.
class Recycled {
public:
    /// Sanitizers know what was freed only where it goes back to the heap.
#ifdef VORN_SANITIZED
    static constexpr bool kKeepsBlocks = false;
#else
    static constexpr bool kKeepsBlocks = true;
#endif
    static constexpr std::uint32_t kMostKept = 4096;
    /// Blocks begin at multiples of it, and are of multiples of it.
    static constexpr std::size_t kStep = 16;

    // The sized delete below is its counterpart; beside an unsized one, the compiler would not take
    // it. NOLINTNEXTLINE(misc-new-delete-overloads)
    static void* operator new(std::size_t bytes) {
        const std::size_t number = classOf(bytes);
        if (number >= kClasses) [[unlikely]]
            return ::operator new(bytes);
        SizeClass& blocks = classes_[number];
        if (!keeps() || blocks.first == nullptr) [[unlikely]] {
            const std::size_t whole = number * kStep;
            return ::operator new(whole);
        }
        Block* const block = blocks.first;
        blocks.first = block->next;
        --blocks.count;
        return block;
    }
    static void operator delete(void* memory, std::size_t bytes) noexcept {
        const std::size_t number = classOf(bytes);
        if (number >= kClasses || !keeps() || classes_[number].count == kMostKept) [[unlikely]]
            return ::operator delete(memory);
        SizeClass& blocks = classes_[number];
        blocks.first = ::new (memory) Block{blocks.first};
        ++blocks.count;
    }

    /// Blocks kept for objects of that size; for tests.
    static std::uint32_t kept(std::size_t bytes) {
        const std::size_t number = classOf(bytes);
        return number < kClasses ? classes_[number].count : 0;
    }

private:
    struct Block {
        Block* next;
    };
    struct SizeClass {
        Block* first = nullptr;
        std::uint32_t count = 0;
    };
    static constexpr std::size_t kLargest = 512;
    static constexpr std::size_t kClasses = kLargest / kStep + 1;

    static std::size_t classOf(std::size_t bytes) {
        return (bytes + kStep - 1) / kStep;
    }
    static bool keeps() {
        return kKeepsBlocks && !ThreadControl::multiThreaded();
    }

    static std::array<SizeClass, kClasses> classes_;
};

/// The same for the elements of containers.
template <class T>
struct RecyclingAllocator {
    static_assert(alignof(T) <= Recycled::kStep);
    using value_type = T;

    RecyclingAllocator() = default;
    template <class U>
    explicit RecyclingAllocator(const RecyclingAllocator<U>&) {}

    T* allocate(std::size_t count) {
        const std::size_t bytes = count * kBytes;
        return static_cast<T*>(Recycled::operator new(bytes));
    }
    void deallocate(T* memory, std::size_t count) noexcept {
        const std::size_t bytes = count * kBytes;
        Recycled::operator delete(memory, bytes);
    }
    bool operator==(const RecyclingAllocator&) const = default;

private:
    /// A container may keep pointers: NOLINTNEXTLINE(bugprone-sizeof-expression)
    static constexpr std::size_t kBytes = sizeof(T);
};

}  // namespace Brumo
