// Keys from names.
#include "inspect/Find.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Hardware.h"

namespace Inspect {

Table tableNamed(const std::string& name) {
    if (const auto table = tableFromText(name))
        return *table;
    throw QuestionError(fmt::format("'{}' is no table; tables are action, v4 and v6", name));
}

void requireUnit(const State& state, std::uint16_t unit) {
    const auto units = state.units();
    if (std::ranges::find(units, unit) == units.end()) {
        throw QuestionError(
            fmt::format("there is no unit {} here; units are {}", unit, fmt::join(units, ", ")));
    }
}

std::string stagedName(const Json& explained) {
    const Json staged = explained.value("staged", Json());
    const Json entry = staged.is_object() ? staged.value("entry", Json()) : Json();
    if (!entry.is_object())
        return {};
    return nameIn(entry);
}

namespace {

/// Keys of the unit that a change of the agent is about and that may be of that name.
std::set<std::string> stagedNamed(System& system, Table table, std::uint16_t unit,
                                  const std::string& name) {
    std::set<std::string> keys;
    const auto changes =
        system.agent.tryAsk({{"cmd", "changes"}, {"table", fullName(table)}, {"unit", unit}});
    for (const Json& change : changes ? changes->value("changes", Json::array()) : Json::array())
        keys.insert(change.value("key", std::string()));
    std::erase_if(keys, [&](const std::string& key) {
        const auto story = system.agent.tryAsk(
            {{"cmd", "explain"}, {"table", fullName(table)}, {"unit", unit}, {"key", key}});
        return !story || stagedName(*story) != name;
    });
    return keys;
}

/// A value that has rotted has no name any more, but for what hardware has of it.
std::set<std::string> heldNamed(System& system, Table table, std::uint16_t unit,
                                const std::string& name) {
    std::set<std::string> keys;
    if (!system.hardware.runs())
        return keys;
    for (const auto& [id, held] : heldOn(system.hardware, unit)) {
        if (id.table == table && nameIn(held.content) == name)
            keys.insert(id.key);
    }
    return keys;
}

}  // namespace

EntryId find(System& system, Table table, std::uint16_t unit, const std::string& text) {
    if (const auto key = keyText(table, text))
        return {table, unit, *key};
    const std::string name = storedName(table, text);
    std::set<std::string> keys = stagedNamed(system, table, unit, name);
    for (const Entry& entry :
         system.state.entries(table, unit, [](const Damage& /*shown elsewhere*/) {})) {
        if (entry.name() == name)
            keys.insert(entry.id.key);
    }
    if (keys.empty())
        keys = heldNamed(system, table, unit, name);
    if (keys.size() == 1)
        return {table, unit, *keys.begin()};
    if (keys.empty()) {
        throw QuestionError(
            fmt::format("'{}' is neither a key of table {} nor the name of an entry on unit {}",
                        text, shortName(table), unit));
    }
    constexpr std::size_t kShown = 5;
    const std::vector<std::string> shown(
        keys.begin(),
        std::next(keys.begin(), static_cast<std::ptrdiff_t>(std::min(kShown, keys.size()))));
    throw QuestionError(fmt::format("'{}' is the name of {} entries on unit {}: {}{}", text,
                                    keys.size(), unit, fmt::join(shown, ", "),
                                    keys.size() > kShown ? ", …" : ""));
}

}  // namespace Inspect
