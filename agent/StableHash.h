// Numbers derived from names, the same in every process and every release: keys of table entries
// and resource requests are made of them, so that a restarted agent finds its own entries again.
#pragma once

#include <cstdint>
#include <string_view>

#include "types/MatchFields.h"

namespace Agent {

/// FNV-1a over the bytes, then a finaliser that spreads every bit over all others.
constexpr std::uint64_t stableHash64(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3ULL;
    }
    hash ^= hash >> 33U;
    hash *= 0xff51afd7ed558ccdULL;
    hash ^= hash >> 33U;
    hash *= 0xc4ceb9fe1a85ec53ULL;
    hash ^= hash >> 33U;
    return hash;
}

/// Never 0, which stands for "none" in request keys.
constexpr std::uint32_t stableHash32(std::string_view text) {
    const auto hash = static_cast<std::uint32_t>(stableHash64(text) >> 32U);
    return hash == 0 ? 1 : hash;
}

constexpr std::uint32_t actionIdOf(std::string_view name) {
    return stableHash32(name);
}

/// From an entry's full name, expansion included.
constexpr VornPolicyCpu::MatchKey matchKeyOf(std::string_view fullName) {
    const std::uint64_t hash = stableHash64(fullName);
    return {static_cast<std::uint32_t>(hash >> 32U), static_cast<std::uint32_t>(hash)};
}

/// An 8-byte key as one number, for look-ups.
constexpr std::uint64_t packed(const VornPolicyCpu::MatchKey& key) {
    return std::uint64_t{key.rule} << 32U | key.term;
}
constexpr std::uint64_t packed(const VornPolicyCpu::PolicyCpuTcamActionEntryKey& key) {
    return std::uint64_t{key.id} << 8U | key.sub;
}

}  // namespace Agent
