// The tables by name.
#include "inspect/Tables.h"

#include <algorithm>
#include <cctype>

#include <fmt/format.h>

#include "platform/asic/Versions.h"
#include "process/KeyText.h"

namespace Inspect {

namespace {

struct TableNames {
    std::string_view shortName;
    std::array<std::string_view, 2> others;
};
constexpr std::array<TableNames, kTables.size()> kTableNames{
    {{"action", {"actions", "act"}}, {"v4", {"ipv4", "4"}}, {"v6", {"ipv6", "6"}}}};

struct AnnouncedName {
    std::uint32_t id;
    std::string_view name;
};
/// Tables that are announced and have no change log.
constexpr std::array<AnnouncedName, 2> kResourceTables{
    {{0x2C080501, "counters"}, {0x2C080502, "policers"}}};

bool sameText(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, [](unsigned char a, unsigned char b) {
        return std::tolower(a) == std::tolower(b);
    });
}

}  // namespace

std::string_view fullName(Table table) {
    return withTypes(table, []<class Types>() { return Types::kName; });
}

std::string_view shortName(Table table) {
    return kTableNames.at(static_cast<std::size_t>(table)).shortName;
}

std::uint32_t tableId(Table table) {
    return withTypes(table, []<class Types>() { return Types::kTableId.whole(); });
}

std::optional<Table> tableFromText(std::string_view text) {
    for (const Table table : kTables) {
        const TableNames& names = kTableNames.at(static_cast<std::size_t>(table));
        const auto isText = [&](std::string_view name) { return sameText(name, text); };
        if (isText(fullName(table)) || isText(names.shortName) ||
            std::ranges::any_of(names.others, isText)) {
            return table;
        }
    }
    return std::nullopt;
}

std::string nameOfTableId(std::uint32_t id) {
    for (const Table table : kTables) {
        if (tableId(table) == id)
            return std::string(shortName(table));
    }
    const auto found = std::ranges::find(kResourceTables, id, &AnnouncedName::id);
    return found != kResourceTables.end() ? std::string(found->name) : Asic::SwTableId(id).toText();
}

std::string_view nameOf(Pool pool) {
    return pool == Pool::counter ? "counter" : "policer";
}

std::optional<Pool> poolFromText(std::string_view text) {
    for (const Pool pool : kPools) {
        if (sameText(text, nameOf(pool)) || sameText(text, std::string(nameOf(pool)) + "s"))
            return pool;
    }
    return std::nullopt;
}

std::string EntryId::toText() const {
    return fmt::format("{} unit {} key {}", shortName(table), unit, key);
}

std::optional<std::string> keyText(Table table, std::string_view text) {
    return withTypes(table, [&]<class Types>() -> std::optional<std::string> {
        const auto key = Process::keyFromText<typename Types::Key>(text);
        return key ? std::optional(key->toText()) : std::nullopt;
    });
}

std::string storedName(Table table, std::string_view name) {
    return withTypes(table, [&]<class Types>() {
        using Stored = typename Types::LogEntry;
        if constexpr (requires(Stored stored) { stored.label; })
            return std::string(name.substr(0, std::tuple_size_v<decltype(Stored::label)>));
        else
            return std::string(name.substr(0, std::tuple_size_v<decltype(Stored::name)>));
    });
}

}  // namespace Inspect
