#include "recording/Names.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <utility>

#include <fmt/format.h>

#include "process/KeyText.h"
#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Recording {

namespace {

using VornPolicyCpu::MatchKey;
using VornPolicyCpu::PolicyCpuTcamActionEntryKey;
using VornPolicyCpu::PolicyCpuTcamActionTypes;
using VornPolicyCpu::PolicyCpuV4TcamEntryTypes;
using VornPolicyCpu::PolicyCpuV6TcamEntryTypes;

constexpr std::uint32_t kCounters = 0x2C080501;
constexpr std::uint32_t kPolicers = 0x2C080502;

constexpr std::array<std::pair<std::uint32_t, std::string_view>, 5> kTables{
    {{PolicyCpuTcamActionTypes::kTableId.whole(), "action"},
     {PolicyCpuV4TcamEntryTypes::kTableId.whole(), "v4"},
     {PolicyCpuV6TcamEntryTypes::kTableId.whole(), "v6"},
     {kCounters, "counter"},
     {kPolicers, "policer"}}};

/// By Asic::EntryState.
constexpr std::array<std::string_view, 7> kStates{"created",  "written", "undefined", "exhausted",
                                                  "complete", "failed",  "lost"};

constexpr std::array<std::string_view, 3> kChanges{"write", "remove", "remove-all"};
constexpr std::array<std::string_view, 4> kResourceOperations{"move", "fail", "restore", "sweep"};

/// Calls `use.operator()<Key>()` with the type of the table's keys; nothing for an unknown table.
template <class Use>
auto withKey(std::uint32_t table, Use&& use)
    -> std::optional<decltype(use.template operator()<MatchKey>())> {
    const std::string name = tableName(table);
    if (name == "action")
        return use.template operator()<PolicyCpuTcamActionEntryKey>();
    if (name == "v4" || name == "v6")
        return use.template operator()<MatchKey>();
    if (name == "counter" || name == "policer")
        return use.template operator()<VornCountersLib::CrpsIndexRequestEntryKey>();
    return std::nullopt;
}

std::optional<std::uint64_t> numberOf(std::string_view text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, 16);
    if (error != std::errc{} || rest != end)
        return std::nullopt;
    return number;
}

}  // namespace

std::string tableName(std::uint32_t table) {
    for (const auto& [id, name] : kTables) {
        if (id == table)
            return std::string(name);
    }
    return fmt::format("{:08x}", table);
}

std::optional<std::uint32_t> tableOfName(std::string_view name) {
    for (const auto& [id, known] : kTables) {
        if (known == name)
            return id;
    }
    const auto number = name.size() == 8 ? numberOf(name) : std::nullopt;
    return number ? std::optional(static_cast<std::uint32_t>(*number)) : std::nullopt;
}

/// What the table's own text does not hold, as of bytes that are always zero, is kept all the same.
std::string keyName(std::uint32_t table, std::uint64_t key) {
    const auto text =
        withKey(table, [key]<class Key>() { return std::bit_cast<Key>(key).toText(); });
    if (text && keyOfName(table, *text) == key)
        return *text;
    return fmt::format("0x{:016x}", key);
}

std::optional<std::uint64_t> keyOfName(std::uint32_t table, std::string_view text) {
    if (text.starts_with("0x"))
        return numberOf(text.substr(2));
    const auto key = withKey(table, [text]<class Key>() -> std::optional<std::uint64_t> {
        const auto read = Process::keyFromText<Key>(text);
        return read ? std::optional(std::bit_cast<std::uint64_t>(*read)) : std::nullopt;
    });
    return key.value_or(std::nullopt);
}

std::string_view stateName(std::uint8_t state) {
    return state < kStates.size() ? kStates.at(state) : kStates.at(2);
}

std::optional<std::uint8_t> stateOfName(std::string_view name) {
    const auto* const found = std::ranges::find(kStates, name);
    if (found == kStates.end())
        return std::nullopt;
    return static_cast<std::uint8_t>(found - kStates.begin());
}

std::string_view operationName(Change::Operation operation) {
    return kChanges.at(static_cast<std::size_t>(operation));
}

std::string_view operationName(ResourceOperation::Operation operation) {
    return kResourceOperations.at(static_cast<std::size_t>(operation));
}

}  // namespace Recording
