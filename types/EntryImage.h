// An entry as plain bytes: its log entry, then its resource keys where it has any.
//
// Plain values: any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

#include "types/Records.h"

namespace VornPolicyCpu {

template <TableTypes T>
struct EntryImage {
    static constexpr std::size_t kKeysSize =
        std::is_empty_v<typename T::ResourceKeys> ? 0 : sizeof(typename T::ResourceKeys);
    using Bytes = std::array<std::byte, sizeof(typename T::LogEntry) + kKeysSize>;

    static Bytes of(const typename T::Entry& entry) {
        Bytes bytes;
        const typename T::LogEntry logEntry = entry.toLogEntry();
        std::memcpy(bytes.data(), &logEntry, sizeof(logEntry));
        const typename T::ResourceKeys keys = entry.resourceKeys();
        if constexpr (kKeysSize != 0)
            std::memcpy(bytes.data() + sizeof(logEntry), &keys, kKeysSize);
        return bytes;
    }

    /// Nothing where the bytes are of another size.
    static std::optional<typename T::Entry> entryOf(std::span<const std::byte> bytes) {
        if (bytes.size() != sizeof(Bytes))
            return std::nullopt;
        typename T::LogEntry logEntry;
        std::memcpy(&logEntry, bytes.data(), sizeof(logEntry));
        typename T::ResourceKeys keys;
        if constexpr (kKeysSize != 0)
            std::memcpy(&keys, bytes.data() + sizeof(logEntry), kKeysSize);
        return T::Entry::from(logEntry, keys);
    }
};

}  // namespace VornPolicyCpu
