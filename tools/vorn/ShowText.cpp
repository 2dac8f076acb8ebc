// Words for entries and changes.
#include "tools/vorn/ShowText.h"

#include <fmt/format.h>

namespace Vorn {

using Inspect::Entry;
using Inspect::Table;

ActionNames actionNames(const Inspect::State& state) {
    ActionNames names;
    for (const std::uint16_t unit : state.units(Table::action)) {
        for (const Entry& entry : state.entries(Table::action, unit, [](const auto&) {}))
            names[entry.id.key] = entry.name();
    }
    return names;
}

TextTable entryTable(Table table) {
    if (table == Table::action) {
        return TextTable({{"UNIT", Kind::right},
                          {"KEY"},
                          {"NAME"},
                          {"DOES"},
                          {"RATE", Kind::flexible},
                          {"COUNTER", Kind::right},
                          {"POLICER", Kind::right},
                          {"VERSION", Kind::optional},
                          {"STATE"}});
    }
    return TextTable({{"UNIT", Kind::right},
                      {"KEY", Kind::optional},
                      {"LABEL"},
                      {"PRIO", Kind::right},
                      {"MATCH", Kind::flexible},
                      {"ACTION"},
                      {"VERSION", Kind::optional},
                      {"STATE"}});
}

std::vector<TextTable::Cell> entryRow(const Entry& entry, std::uint64_t acknowledged,
                                      const ActionNames& names) {
    const Json& content = entry.content;
    const std::string_view place = placeOf(entry, acknowledged);
    const TextTable::Cell state{std::string(place),
                                place == "acked" ? Colour::none : Colour::yellow};
    if (entry.id.table == Table::action) {
        return {entry.id.unit,
                entry.id.key,
                stringIn(content, "name"),
                stringIn(content, "disposition"),
                rateText(content),
                numberText(content, "counter"),
                numberText(content, "policer"),
                entry.version,
                state};
    }
    const std::string action = stringIn(content, "action");
    const auto name = names.find(action);
    return {entry.id.unit,
            entry.id.key,
            stringIn(content, "label"),
            numberText(content, "priority"),
            matchText(content),
            name == names.end() || name->second.empty() ? action : name->second,
            entry.version,
            state};
}

Json entryToJson(const Entry& entry, std::uint64_t acknowledged) {
    Json object{{"table", fullName(entry.id.table)},
                {"unit", entry.id.unit},
                {"key", entry.id.key},
                {"version", entry.version},
                {"inDeletion", entry.inDeletion},
                {"acknowledged", entry.version <= acknowledged},
                {"entry", entry.content}};
    if (entry.id.table == Table::action) {
        const auto orNull = [](const std::string& text) {
            return text.empty() ? Json(nullptr) : Json(text);
        };
        object["counterRequest"] = orNull(entry.counterRequest);
        object["policerRequest"] = orNull(entry.policerRequest);
    }
    return object;
}

}  // namespace Vorn
