// Memory that is asked for before it is used, so that nobody waits for it on the path of a change.
//
// Any thread. Changes what is waited for, and nothing else.
#pragma once

#include <cstddef>

namespace Brumo {

/// Asks for the cache lines of an object that is about to be read or changed, as its writer's own;
/// waits for nothing.
template <class T>
void prefetch(const T& object) {
    constexpr std::size_t kLineBytes = 64;
    const auto* const bytes = reinterpret_cast<const std::byte*>(&object);
    for (std::size_t at = 0; at < sizeof(T); at += kLineBytes)
        __builtin_prefetch(bytes + at, 1);
    __builtin_prefetch(bytes + sizeof(T) - 1, 1);
    // Without it, g++ 12 takes whatever does no more than this for a function without effect, and
    // drops its calls.
    asm volatile("");
}

}  // namespace Brumo
