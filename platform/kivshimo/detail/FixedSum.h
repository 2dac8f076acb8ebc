// The checksum of bytes whose number the compiler knows, where the call would cost as much.
#pragma once

#include <cstddef>
#include <cstdint>

#define XXH_INLINE_ALL  // allow: how its header is asked for bodies
#include <xxhash.h>

namespace KivShimo::detail {

/// As checksumOf(bytes, kBytes, 0).
template <std::size_t kBytes>
std::uint64_t fixedSum(const void* bytes) {
    const std::uint64_t sum = XXH3_64bits(bytes, kBytes);
    return sum != 0 ? sum : 1;
}

}  // namespace KivShimo::detail
