// Request keys of the resource tables, and what a request brings along.
//
// Plain values that lie in shared memory: no padding, every byte defined. A key equal to its
// default value means that no such resource is needed.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <type_traits>

#include <fmt/format.h>

#include "platform/brumo/Layout.h"
#include "platform/brumo/Text.h"
#include "platform/brumo/Unaligned.h"

namespace Asic {

/// Spreads the bits of an 8-byte key over a 32-bit hash (the finaliser of MurmurHash3's 64-bit
/// variant, public domain).
constexpr std::uint32_t hashOf64(std::uint64_t bits, unsigned seed) {
    bits ^= seed;
    bits ^= bits >> 33U;
    bits *= 0xff51afd7ed558ccdULL;
    bits ^= bits >> 33U;
    bits *= 0xc4ceb9fe1a85ec53ULL;
    bits ^= bits >> 33U;
    return static_cast<std::uint32_t>(bits);
}

/// Key of one request to a resource table.
///
///   0        4      6      8
///   | request | unit | rsvd |
template <class Library>
struct IndexRequestKey {
    std::uint32_t requestId = 0;  ///< what the index is for, as the requester numbers it
    std::uint16_t unit = 0;       ///< the chip unit that will use the index
    std::uint16_t reserved = 0;

    auto operator<=>(const IndexRequestKey&) const = default;
    bool isEq(const IndexRequestKey& other) const { return *this == other; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf(
            {offsetof(IndexRequestKey, requestId), offsetof(IndexRequestKey, unit)});
    }
    std::uint32_t hash(unsigned seed) const {
        return hashOf64(std::uint64_t{requestId} << 32U | std::uint64_t{unit} << 16U | reserved,
                        seed);
    }
    std::string toText() const { return fmt::format("{:08x}/{}", requestId, unit); }
};

}  // namespace Asic

namespace VornCountersLib {

struct Library;
using CrpsIndexRequestEntryKey = Asic::IndexRequestKey<Library>;
static_assert(sizeof(CrpsIndexRequestEntryKey) == 8);

}  // namespace VornCountersLib

namespace VornPolicerLib {

struct Library;
using PolicerIndexRequestEntryKey = Asic::IndexRequestKey<Library>;
static_assert(sizeof(PolicerIndexRequestEntryKey) == 8);

/// How a policer counts.
enum class PolicerMode : std::uint16_t { none = 0, packets = 1, bits = 2 };

/// What the requester of a policer wants of it: 32 bytes and a 16-bit value.
///
///   0      8       16         32     34
///   | rate | burst | name[16] | mode |
struct PolicerIndexRequestClientData {
    Brumo::Unaligned<std::uint64_t> rate;   ///< packets or bits a second, as `mode` says
    Brumo::Unaligned<std::uint64_t> burst;  ///< packets or bits
    std::array<char, 16> name{};            ///< for people; zero-padded
    Brumo::Unaligned<PolicerMode> mode;

    bool operator==(const PolicerIndexRequestClientData&) const = default;
    bool isEq(const PolicerIndexRequestClientData& other) const { return *this == other; }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(PolicerIndexRequestClientData, rate),
                                offsetof(PolicerIndexRequestClientData, burst),
                                offsetof(PolicerIndexRequestClientData, name),
                                offsetof(PolicerIndexRequestClientData, mode)});
    }
    std::string toText() const {
        const char* unit = mode.get() == PolicerMode::packets ? "pps"
                           : mode.get() == PolicerMode::bits  ? "bps"
                                                              : "none";
        return fmt::format("{} {} burst {}", rate.get(), unit, burst.get());
    }
};
static_assert(sizeof(PolicerIndexRequestClientData) == 34);
static_assert(std::is_trivially_copyable_v<PolicerIndexRequestClientData>);

}  // namespace VornPolicerLib
