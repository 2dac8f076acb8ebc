// The shared-memory records of every table: one committed value a key, one record a change.
//
// Plain values, written by the agent and read by the hardware side and by tools, so their layout is
// pinned. A table's own header gives the key, the log entry and the resource keys.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/format.h>

#include "platform/asic/Versions.h"
#include "platform/brumo/Layout.h"
#include "platform/brumo/Text.h"
#include "platform/kivshimo/Words.h"

namespace VornPolicyCpu {

/// What a change record says was done.
enum class LogOperation : std::uint8_t {
    entryWritten = 0,
    entryDeleted = 1,
    allDeleted = 2,  ///< all entries of the unit
};

/// The first member of every log entry.
struct LogEntryHead {
    std::uint32_t revision = 1;
    std::uint32_t origin = 0xFFFFFFFF;  ///< 0xFFFFFFFF: no origin; the match tables leave it 0

    bool operator==(const LogEntryHead&) const = default;
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({offsetof(LogEntryHead, revision), offsetof(LogEntryHead, origin)});
    }
};
static_assert(sizeof(LogEntryHead) == 8);

/// One change in a table's change log. Every key is 8 bytes.
///
///   0         8      16    24     28     30    31    32
///   | version | head | key | word | unit | op  | pad |
template <class Key>
struct LogShimoEntry {
    Asic::LogVersion version;       ///< the record's key
    LogEntryHead head;              ///< of the log entry; the default for a table delete
    Key key;                        ///< of the entry; zero for a table delete
    std::uint32_t word = 0xFFFFFF;  ///< of the log entry; the default for a table delete
    Asic::UnitId unitId;
    LogOperation operation = LogOperation::entryWritten;
    std::uint8_t padding = 0;

    /// As it lies in memory, each word put together in registers: see detail::justStored for what a
    /// copy of a record that was just made would cost.
    std::array<std::uint64_t, 4> words() const {
        return {version.value, head.revision | std::uint64_t{head.origin} << 32U,
                std::bit_cast<std::uint64_t>(key),
                word | std::uint64_t{unitId.value} << 32U |
                    static_cast<std::uint64_t>(operation) << 48U | std::uint64_t{padding} << 56U};
    }
    bool operator==(const LogShimoEntry&) const = default;
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf({Brumo::layoutOf<Key>(), Brumo::layoutOf<LogEntryHead>(),
                                offsetof(LogShimoEntry, version), offsetof(LogShimoEntry, head),
                                offsetof(LogShimoEntry, key), offsetof(LogShimoEntry, word),
                                offsetof(LogShimoEntry, unitId),
                                offsetof(LogShimoEntry, operation)});
    }
    std::string toText() const {
        return fmt::format("version {} key {} unit {} operation {}", version, key, unitId,
                           static_cast<unsigned>(operation));
    }
};

/// The committed value of one key on one unit.
template <class Key, class LogEntry, class ResourceKeys>
struct ConfigShimoEntry {
    Key entryKey;
    LogEntry logEntry;
    ResourceKeys rsrcKeys;
    Asic::LogVersion version;  ///< of the change that last wrote the key; 0 in the default value
    bool inDeletion = false;   ///< deleted, but the hardware side may still hold it

    const Key& key() const { return entryKey; }
    /// As KivShimo::Map::forEachMarked asks for it.
    static constexpr std::size_t markAt() { return offsetof(ConfigShimoEntry, inDeletion); }
    /// A live value as it lies in memory, put together from its parts for the same reason.
    static KivShimo::Words<ConfigShimoEntry> wordsOf(const LogEntry& logEntry,
                                                     const ResourceKeys& rsrcKeys,
                                                     Asic::LogVersion version) {
        KivShimo::Words<ConfigShimoEntry> words;
        words.template put<offsetof(ConfigShimoEntry, entryKey)>(Key(logEntry.key));
        words.template put<offsetof(ConfigShimoEntry, logEntry)>(logEntry);
        if constexpr (!std::is_empty_v<ResourceKeys>)
            words.template put<offsetof(ConfigShimoEntry, rsrcKeys)>(rsrcKeys);
        words.template put<offsetof(ConfigShimoEntry, version)>(version);
        return words;
    }
    static constexpr std::uint64_t layout() {
        return Brumo::layoutOf(
            {Brumo::layoutOf<Key>(), Brumo::layoutOf<LogEntry>(), Brumo::layoutOf<ResourceKeys>(),
             offsetof(ConfigShimoEntry, entryKey), offsetof(ConfigShimoEntry, logEntry),
             offsetof(ConfigShimoEntry, rsrcKeys), offsetof(ConfigShimoEntry, version),
             offsetof(ConfigShimoEntry, inDeletion)});
    }
};

/// Copies text into a fixed field, cut to its size and padded with zeros.
template <std::size_t Size>
std::array<char, Size> fixedText(std::string_view text) {
    std::array<char, Size> field{};
    std::memcpy(field.data(), text.data(), text.size() < Size ? text.size() : Size);
    return field;
}

/// The text in a fixed field, up to its first zero.
template <std::size_t Size>
std::string textOf(const std::array<char, Size>& field) {
    return {field.data(), strnlen(field.data(), Size)};
}

/// What a table's type library offers: an 8-byte key, the entry as feature code writes it, the log
/// entry as shared memory holds it, and the keys of the resources that the entry needs.
template <class T>
concept TableTypes = requires(const typename T::Entry& entry, const typename T::LogEntry& logEntry,
                              const typename T::ResourceKeys& rsrcKeys, const typename T::Key& key,
                              typename T::Entry& written) {
    requires sizeof(typename T::Key) == 8;
    requires std::is_trivially_copyable_v<typename T::Key>;
    { logEntry.head } -> std::convertible_to<LogEntryHead>;
    { logEntry.key } -> std::convertible_to<typename T::Key>;
    { logEntry.word() } -> std::convertible_to<std::uint32_t>;
    { entry.key } -> std::convertible_to<typename T::Key>;
    requires Brumo::Printable<typename T::Key> && Brumo::Printable<typename T::Entry>;
    requires Brumo::Printable<typename T::LogEntry> && Brumo::Printable<typename T::ResourceKeys>;
    requires std::is_trivially_copyable_v<typename T::LogEntry>;
    requires std::is_trivially_copyable_v<typename T::ResourceKeys>;
    { key.hash(0U) } -> std::same_as<std::uint32_t>;
    { key.isEq(key) } -> std::same_as<bool>;
    requires std::three_way_comparable<typename T::Key>;
    { entry.isEq(entry) } -> std::same_as<bool>;
    { logEntry.isEq(logEntry) } -> std::same_as<bool>;
    { rsrcKeys.isEq(rsrcKeys) } -> std::same_as<bool>;
    { entry.toLogEntry() } -> std::same_as<typename T::LogEntry>;
    { entry.resourceKeys() } -> std::same_as<typename T::ResourceKeys>;
    { T::Entry::from(logEntry, rsrcKeys) } -> std::same_as<typename T::Entry>;
    written.logEntryIs(logEntry, rsrcKeys);
    { T::kName } -> std::convertible_to<std::string_view>;
    { T::kTableId } -> std::convertible_to<Asic::SwTableId>;
};

/// Resource keys of a table whose entries need no resources.
struct NoResourceKeys {
    bool operator==(const NoResourceKeys&) const = default;
    bool isEq(const NoResourceKeys&) const { return true; }
    std::string toText() const { return "none"; }
};

}  // namespace VornPolicyCpu
