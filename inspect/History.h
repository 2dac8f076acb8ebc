// What was done to the tables: change records with what they wrote, and a table as it was.
//
// One thread. A change log keeps what hardware has not acknowledged; of older changes it tells only
// what is still there.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "inspect/Hardware.h"
#include "inspect/Processes.h"

namespace Inspect {

/// A change with what is known of its content.
struct ToldChange {
    Change change;
    std::optional<Entry> entry;  ///< what it wrote, while no later change replaced it
    std::optional<std::uint64_t> supersededBy;  ///< version of the value that replaced it
    std::optional<Held> before;                 ///< what hardware still holds of the key
    std::vector<std::string> differences;       ///< to `before`, "priority 10 -> 20"
};

/// Tells changes of one table with their content; keeps open what it has looked into.
class ChangeTeller {
public:
    /// `asksHardware`: what hardware holds of each unit is asked for once, where it runs. `system`
    /// has to stay.
    ChangeTeller(System& system, Table table, bool asksHardware);

    ToldChange told(const Change& change, const Report& report);

private:
    struct Unit {
        State::Lookup values;
        HeldEntries held;
    };
    const Unit& unitOf(std::uint16_t number, const Report& report);

    System& system_;
    Table table_;
    bool asksHardware_;
    std::map<std::uint16_t, Unit> units_;
};

/// Versions of a table, the lowest first.
void tellChanges(System& system, Table table, std::uint64_t from, std::uint64_t to,
                 const std::function<void(const ToldChange&)>& visit, const Report& report);
Json toJson(const ToldChange& told);

/// "priority 10 -> 20" for each member in which entries differ.
std::vector<std::string> changesBetween(const Json& before, const Json& after);

struct PastEntry {
    EntryId id;
    std::uint64_t version = 0;
    Json content;
    bool fromHardware = false;  ///< the value was replaced since; hardware still has it
};
struct PastTable {
    std::vector<PastEntry> entries;
    std::vector<EntryId> notKept;  ///< changed since, and what they were is not kept any more
    std::uint64_t keptFrom = 0;    ///< below it, records may be gone
    std::uint64_t published = 0;
    /// Whether every change since is known; else keys that are gone since are not listed.
    bool isWhole = false;
};

/// A table of one unit as of version `at`, from its values, the changes since (of that unit), and
/// what hardware holds. `thereThen`: the keys that it had, where all records say so.
PastTable pastTable(Table table, std::uint64_t at, const std::vector<Entry>& values,
                    const std::vector<Change>& since, const HeldEntries& held,
                    const std::optional<std::set<EntryId>>& thereThen = std::nullopt);
/// Of all units, or one. Throws QuestionError where the table has no such version yet.
PastTable pastTable(System& system, Table table, std::optional<std::uint16_t> unit,
                    std::uint64_t at, const Report& report);
Json toJson(const PastTable& past);

}  // namespace Inspect
