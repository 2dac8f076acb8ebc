// An entry as plain bytes: its log entry, then its resource keys where it has any.
//
// Plain values: any thread.
#pragma once

#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

#include "types/Records.h"

namespace VornPolicyCpu {

template <TableTypes T>
class EntryImage {
public:
    static constexpr std::size_t kKeysSize =
        std::is_empty_v<typename T::ResourceKeys> ? 0 : sizeof(typename T::ResourceKeys);
    static constexpr std::size_t kSize = sizeof(typename T::LogEntry) + kKeysSize;

    explicit EntryImage(const typename T::Entry& entry) : parts_(partsOf(entry)) {}

    std::span<const std::byte> bytes() const { return std::as_bytes(std::span(&parts_, 1)); }

    /// Nothing where the bytes are of another size.
    static std::optional<typename T::Entry> entryOf(std::span<const std::byte> bytes) {
        if (bytes.size() != kSize)
            return std::nullopt;
        typename T::LogEntry logEntry;
        std::memcpy(&logEntry, bytes.data(), sizeof(logEntry));
        typename T::ResourceKeys keys;
        if constexpr (kKeysSize != 0)
            std::memcpy(&keys, bytes.data() + sizeof(logEntry), kKeysSize);
        return T::Entry::from(logEntry, keys);
    }

private:
    struct LogEntryAlone {
        typename T::LogEntry logEntry;
    };
    struct LogEntryAndKeys {
        typename T::LogEntry logEntry;
        typename T::ResourceKeys keys;
    };
    using Parts = std::conditional_t<kKeysSize == 0, LogEntryAlone, LogEntryAndKeys>;
    static_assert(sizeof(Parts) == kSize);

    static Parts partsOf(const typename T::Entry& entry) {
        if constexpr (kKeysSize == 0) {
            return {entry.toLogEntry()};
        } else {
            return {entry.toLogEntry(), entry.resourceKeys()};
        }
    }

    Parts parts_;
};

}  // namespace VornPolicyCpu
