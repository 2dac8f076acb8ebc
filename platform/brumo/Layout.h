// A number for how a record lies in memory, so that two programs can tell whether they mean the
// same bytes.
//
// A record says where its fields lie with `static constexpr std::uint64_t layout()`, made by
// layoutOf(); a field that is a record says the same of itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace Brumo {

/// One number made of several, in their order (FNV-1a over words).
constexpr std::uint64_t layoutOf(std::initializer_list<std::uint64_t> numbers) {
    std::uint64_t result = 0xCBF29CE484222325U;
    for (const std::uint64_t number : numbers)
        result = (result ^ number) * 0x100000001B3U;
    return result;
}

/// What T says of itself; its size and alignment where it says nothing.
template <class T>
constexpr std::uint64_t layoutOf() {
    if constexpr (requires { T::layout(); }) {
        return layoutOf({sizeof(T), alignof(T), T::layout()});
    } else {
        return layoutOf({sizeof(T), alignof(T)});
    }
}

}  // namespace Brumo
