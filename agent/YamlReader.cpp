#include "agent/YamlReader.h"

#include <algorithm>

#include <fmt/format.h>

namespace Agent {

namespace {

/// Text from a file as it may stand in a message: no control characters, not too long.
std::string quotable(std::string_view text) {
    constexpr std::size_t kLimit = 60;
    std::string quoted(text.substr(0, kLimit));
    std::replace_if(
        quoted.begin(), quoted.end(), [](char c) { return c >= 0 && c < ' '; }, '?');
    return text.size() > kLimit ? quoted + "..." : quoted;
}

}  // namespace

Position positionOf(const YAML::Node& node) {
    const YAML::Mark mark = node.Mark();
    if (mark.is_null())
        return {};
    return {mark.line + 1, mark.column + 1};
}

std::optional<Text> scalarOf(const YAML::Node& node, const Position& at, std::string_view expected,
                             PolicyErrors& errors) {
    if (!node.IsScalar()) {
        errors.add(at, fmt::format("expected {} instead of {}", expected,
                                   node.IsSequence() ? "a list"
                                   : node.IsMap()    ? "a mapping"
                                                     : "nothing"));
        return std::nullopt;
    }
    return Text{node.Scalar(), at};
}

void reportValue(PolicyErrors& errors, const Text& value, std::string_view expected) {
    errors.add(value.at,
               fmt::format("expected {} instead of '{}'", expected, quotable(value.text)));
}

Position MapReader::Field::at() const {
    const Position own = node.IsNull() ? Position{} : positionOf(node);
    return own.line == 0 ? keyAt : own;
}

MapReader::MapReader(const YAML::Node& node, const Position& at, std::string_view what,
                     PolicyErrors& errors)
    : at_(at), what_(what), errors_(errors), isMap_(node.IsMap()) {
    if (!isMap_) {
        errors_.add(at_, fmt::format("expected {} as a mapping", what_));
        return;
    }
    for (const auto& pair : node) {
        const Position keyAt = positionOf(pair.first);
        const auto key = scalarOf(pair.first, keyAt, "a key", errors_);
        if (!key)
            continue;
        const auto same = std::find_if(entries_.begin(), entries_.end(),
                                       [&](const Entry& entry) { return entry.key == key->text; });
        if (same == entries_.end()) {
            entries_.push_back({key->text, {pair.second, keyAt}});
        } else {
            errors_.add(keyAt, fmt::format("expected '{}' once, it is in line {} already",
                                           quotable(key->text), same->field.keyAt.line));
        }
    }
}

std::optional<MapReader::Field> MapReader::take(const std::string& key) {
    if (std::find(known_.begin(), known_.end(), key) == known_.end())
        known_.push_back(key);
    for (Entry& entry : entries_) {
        if (entry.key != key)
            continue;
        entry.taken = true;
        return entry.field;
    }
    return std::nullopt;
}

std::optional<Text> MapReader::takeScalar(const std::string& key, std::string_view expected) {
    const auto field = take(key);
    return field ? scalarOf(field->node, field->at(), expected, errors_) : std::nullopt;
}

std::optional<Text> MapReader::takeRequired(const std::string& key, std::string_view expected) {
    const auto field = take(key);
    if (!field) {
        if (isMap_)
            errors_.add(at_, fmt::format("expected '{}' ({}) in {}", key, expected, what_));
        return std::nullopt;
    }
    return scalarOf(field->node, field->at(), expected, errors_);
}

void MapReader::finish() {
    for (const Entry& entry : entries_) {
        if (entry.taken)
            continue;
        errors_.add(entry.field.keyAt,
                    fmt::format("expected one of {} in {} instead of '{}'", fmt::join(known_, ", "),
                                what_, quotable(entry.key)));
    }
}

void Variables::read(const MapReader::Field& field, PolicyErrors& errors) {
    if (!field.node.IsMap()) {
        errors.add(field.at(), "expected variables as a mapping");
        return;
    }
    for (const auto& pair : field.node) {
        const Position keyAt = positionOf(pair.first);
        const auto name = scalarOf(pair.first, keyAt, "a variable's name", errors);
        if (!name)
            continue;
        const MapReader::Field value{pair.second, keyAt};
        List list = expand(value.node, value.at(), "a value or a list of values", errors);
        if (!lists_.try_emplace(name->text, std::move(list)).second)
            errors.add(keyAt, fmt::format("expected '{}' once", quotable(name->text)));
    }
}

Variables::List Variables::expand(const YAML::Node& node, const Position& at,
                                  std::string_view expected, PolicyErrors& errors) const {
    List list;
    const auto add = [&](const YAML::Node& item, const Position& itemAt) {
        const auto value = scalarOf(item, itemAt, expected, errors);
        if (!value)
            return;
        if (!value->text.starts_with('$')) {
            list.values.push_back(*value);
            return;
        }
        const auto found = lists_.find(value->text.substr(1));
        if (found == lists_.end()) {
            reportValue(errors, *value, "a variable that is defined above");
            return;
        }
        const List& named = found->second;
        list.listed = list.listed || named.listed;
        list.values.insert(list.values.end(), named.values.begin(), named.values.end());
    };
    if (!node.IsSequence()) {
        add(node, at);
        return list;
    }
    list.listed = true;
    if (node.size() == 0)
        errors.add(at, fmt::format("expected {} at least once in the list", expected));
    for (const YAML::Node& item : node) {
        const Position itemAt = positionOf(item);
        add(item, itemAt.line == 0 ? at : itemAt);
    }
    return list;
}

}  // namespace Agent
