// The tables by the names that people type, and the step from a name to a table's types.
//
// Plain values: any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Inspect {

enum class Table : std::uint8_t { action, v4, v6 };
inline constexpr std::array kTables{Table::action, Table::v4, Table::v6};

/// As the processes name it: "PolicyCpuV4TcamEntry".
std::string_view fullName(Table table);
/// "action", "v4", "v6".
std::string_view shortName(Table table);
std::uint32_t tableId(Table table);
/// From either name, in any case; "actions", "ipv4" and "ipv6" as well.
std::optional<Table> tableFromText(std::string_view text);
/// The name of any table that is announced, the resource tables included; the number where there is
/// none.
std::string nameOfTableId(std::uint32_t id);

/// Calls `use.operator()<Types>()` with the types of the table.
template <class Use>
decltype(auto) withTypes(Table table, Use&& use) {
    switch (table) {
        case Table::action:
            return use.template operator()<VornPolicyCpu::PolicyCpuTcamActionTypes>();
        case Table::v4:
            return use.template operator()<VornPolicyCpu::PolicyCpuV4TcamEntryTypes>();
        case Table::v6:
            break;
    }
    return use.template operator()<VornPolicyCpu::PolicyCpuV6TcamEntryTypes>();
}

/// A pool of indexes.
enum class Pool : std::uint8_t { counter, policer };
inline constexpr std::array kPools{Pool::counter, Pool::policer};
std::string_view nameOf(Pool pool);
/// "counter" or "policer", also with an s.
std::optional<Pool> poolFromText(std::string_view text);

/// What the table has room for of an action's name or a match entry's label.
std::string storedName(Table table, std::string_view name);

/// One key of one unit of one table.
struct EntryId {
    Table table = Table::action;
    std::uint16_t unit = 0;
    std::string key;  ///< as the key's toText() makes it

    auto operator<=>(const EntryId&) const = default;
    /// "v4 unit 1 key 0000002a.00000001".
    std::string toText() const;
};

/// The key as toText() makes it, leading zeros added; nothing where the text is no key of the
/// table.
std::optional<std::string> keyText(Table table, std::string_view text);

}  // namespace Inspect
