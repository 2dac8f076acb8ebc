// A value stored at any address: how fields lie in packed records without packed attributes, whose
// members could not be referred to safely.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <type_traits>

namespace Brumo {

/// A T of alignment 1 and the same bytes; converts to and from T. Plain value.
template <class T>
class Unaligned {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    constexpr Unaligned() : Unaligned(T{}) {}
    // Implicit both ways: it stands for a T.
    constexpr Unaligned(const T& value)
        : bytes_(std::bit_cast<std::array<std::byte, sizeof(T)>>(value)) {}
    constexpr operator T() const { return get(); }
    constexpr T get() const { return std::bit_cast<T>(bytes_); }

    friend bool operator==(const Unaligned& a, const Unaligned& b) { return a.get() == b.get(); }

private:
    std::array<std::byte, sizeof(T)> bytes_;
};

}  // namespace Brumo
