// Memory of what comes and goes with every change: blocks that were freed are given out again.
//
// While ThreadControl says that more than one thread runs, all blocks come from the heap and go
// there.
//
// What always holds:
//  1. Blocks are of whole classes of sizes, wherever they come from, so a kept one fits whatever
//     asks for its class.
//  2. No more than kMostKept blocks of a class are kept: what a burst took goes back to the heap.
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
    static constexpr std::uint32_t kMostKept = 4096;

    static void* operator new(std::size_t bytes) {
        const std::size_t number = classOf(bytes);
        if (number >= kClasses) [[unlikely]]
            return ::operator new(bytes);
        SizeClass& blocks = classes_[number];
        if (blocks.first == nullptr || !keeps()) [[unlikely]]
            return ::operator new(number* kStep);
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
    static constexpr std::size_t kStep = 16;  ///< bytes from one class to the next
    static constexpr std::size_t kClasses = 33;

    static std::size_t classOf(std::size_t bytes) { return (bytes + kStep - 1) / kStep; }
    /// Sanitizers know what was freed only where it goes back to the heap.
    static bool keeps() {
#ifdef VORN_SANITIZED
        return false;
#else
        return !ThreadControl::multiThreaded();
#endif
    }

    static std::array<SizeClass, kClasses> classes_;
};

/// The same for the elements of containers.
template <class T>
struct RecyclingAllocator {
    using value_type = T;

    RecyclingAllocator() = default;
    template <class U>
    explicit RecyclingAllocator(const RecyclingAllocator<U>&) {}

    T* allocate(std::size_t count) {
        return static_cast<T*>(Recycled::operator new(count * sizeof(T)));
    }
    void deallocate(T* memory, std::size_t count) noexcept {
        Recycled::operator delete(memory, count * sizeof(T));
    }
    bool operator==(const RecyclingAllocator&) const = default;
};

}  // namespace Brumo
