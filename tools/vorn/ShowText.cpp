// Words for entries and changes.
#include "tools/vorn/ShowText.h"

#include <fmt/format.h>

namespace Vorn {

using Inspect::Entry;
using Inspect::Table;

std::string stringIn(const Json& object, const std::string& name) {
    const auto member = object.find(name);
    return member != object.end() && member->is_string() ? member->get<std::string>()
                                                         : std::string();
}

std::string numberText(const Json& object, const std::string& name) {
    const auto member = object.find(name);
    if (member == object.end() || member->is_null())
        return "-";
    return member->is_number_float() ? fmt::format("{:.2f}", member->get<double>())
                                     : member->dump();
}

std::string matchText(const Json& content) {
    std::string text;
    const Json fields = content.value("fields", Json::object());
    for (const auto& [name, value] : fields.items()) {
        text += fmt::format("{}{} {}", text.empty() ? "" : " ", name, value.get<std::string>());
    }
    return text.empty() ? "any" : text;
}

std::string rateText(const Json& content) {
    const std::string mode = stringIn(content, "mode");
    if (mode.empty() || mode == "none")
        return {};
    return fmt::format("{} {}, burst {}", numberText(content, "rate"), mode,
                       numberText(content, "burst"));
}

std::string entryText(const Json& content) {
    if (content.contains("disposition")) {
        const std::string rate = rateText(content);
        return fmt::format("{} {}, counter {}, policer {}{}", stringIn(content, "name"),
                           stringIn(content, "disposition"), numberText(content, "counter"),
                           numberText(content, "policer"), rate.empty() ? "" : ", " + rate);
    }
    return fmt::format("{} priority {}: {}, action {}", stringIn(content, "label"),
                       numberText(content, "priority"), matchText(content),
                       stringIn(content, "action"));
}

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

std::string_view placeOf(const Entry& entry, std::uint64_t acknowledged) {
    if (entry.inDeletion)
        return "removing";
    return entry.version > acknowledged ? "under way" : "acked";
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

std::string changeText(const Json& change) {
    const auto table = Inspect::tableFromText(stringIn(change, "table"));
    const std::string key = stringIn(change, "key");
    return fmt::format("{} {} unit {}{}", stringIn(change, "operation"),
                       table ? shortName(*table) : stringIn(change, "table"),
                       numberText(change, "unit"), key.empty() ? "" : " key " + key);
}

}  // namespace Vorn
