// Changes told with their content, and tables of the past.
#include "inspect/History.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "inspect/Errors.h"

namespace Inspect {

namespace {

Json flatOf(const Json& content) {
    Json flat = content;
    if (flat.contains("fields")) {
        const Json fields = flat["fields"];
        flat.erase("fields");
        flat.update(fields);
    }
    return flat;
}

std::string valueText(const Json& value) {
    return value.is_null() ? "none" : value.is_string() ? value.get<std::string>() : value.dump();
}

HeldEntries heldIfRuns(System& system, std::uint16_t unit) {
    try {
        return system.hardware.runs() ? heldOn(system.hardware, unit) : HeldEntries();
    } catch (const NotRunningError&) {
        return {};
    } catch (const RefusedError&) {
        return {};  // what hardware holds is told where that is known, and nothing rests on it
    }
}

}  // namespace

std::vector<std::string> changesBetween(const Json& before, const Json& after) {
    const Json was = flatOf(before);
    const Json is = flatOf(after);
    std::vector<std::string> changes;
    const auto add = [&](const std::string& name) {
        changes.push_back(fmt::format("{} {} -> {}", name, valueText(was.value(name, Json())),
                                      valueText(is.value(name, Json()))));
    };
    for (const auto& [name, value] : is.items()) {
        if (was.value(name, Json()) != value)
            add(name);
    }
    for (const auto& [name, value] : was.items()) {
        if (!is.contains(name))
            add(name);
    }
    return changes;
}

ChangeTeller::ChangeTeller(System& system, Table table, bool asksHardware)
    : system_(system), table_(table), asksHardware_(asksHardware) {}

const ChangeTeller::Unit& ChangeTeller::unitOf(std::uint16_t number, const Report& report) {
    auto unit = units_.find(number);
    if (unit == units_.end()) {
        unit =
            units_
                .emplace(number, Unit{[](const std::string&) { return std::nullopt; },
                                      asksHardware_ ? heldIfRuns(system_, number) : HeldEntries()})
                .first;
        reporting(report, [&] { unit->second.values = system_.state.lookup(table_, number); });
    }
    return unit->second;
}

ToldChange ChangeTeller::told(const Change& change, const Report& report) {
    ToldChange told;
    told.change = change;
    if (change.key.empty())
        return told;
    const EntryId id{table_, change.unit, change.key};
    const Unit& unit = unitOf(change.unit, report);
    std::optional<Entry> value;
    reporting(report, [&] { value = unit.values(change.key); });
    if (value && value->version > change.version)
        told.supersededBy = value->version;
    if (value && value->version == change.version && !value->inDeletion)
        told.entry = std::move(value);
    const auto held = unit.held.find(id);
    if (held != unit.held.end() && held->second.version < change.version)
        told.before = held->second;
    if (told.before && told.entry)
        told.differences = changesBetween(told.before->content, told.entry->content);
    return told;
}

void tellChanges(System& system, Table table, std::uint64_t from, std::uint64_t to,
                 const std::function<void(const ToldChange&)>& visit, const Report& report) {
    ChangeTeller teller(system, table, true);
    system.state.changes(
        table, from, to, [&](const Change& change) { visit(teller.told(change, report)); }, report);
}

Json toJson(const ToldChange& told) {
    const Change& change = told.change;
    Json object{{"table", fullName(change.table)},
                {"version", change.version},
                {"unit", change.unit},
                {"operation", operationText(change.operation)},
                {"key", nullptr},
                {"entry", nullptr},
                {"supersededBy", nullptr},
                {"before", nullptr},
                {"differences", told.differences}};
    if (!change.key.empty())
        object["key"] = change.key;
    if (told.entry)
        object["entry"] = told.entry->content;
    if (told.supersededBy)
        object["supersededBy"] = *told.supersededBy;
    if (told.before)
        object["before"] = {{"version", told.before->version}, {"entry", told.before->content}};
    return object;
}

PastTable pastTable(Table table, std::uint64_t at, const std::vector<Entry>& values,
                    const std::vector<Change>& since, const HeldEntries& held,
                    const std::optional<std::set<EntryId>>& thereThen) {
    PastTable past;
    // Keys that were changed since, with whether the first change known says what was there before.
    std::set<EntryId> changed;
    std::optional<std::uint16_t> cleared;
    for (const Change& change : since) {
        if (change.operation == Change::Operation::allRemoved)
            cleared = change.unit;
        else
            changed.insert({table, change.unit, change.key});
    }
    for (const Entry& value : values) {
        if (value.version > at)
            changed.insert(value.id);
        else if (!value.inDeletion && !changed.contains(value.id))
            past.entries.push_back({value.id, value.version, value.content, false});
    }
    if (cleared) {
        for (const auto& [id, entry] : held) {
            if (id.table == table && id.unit == *cleared && entry.version <= at)
                changed.insert(id);
        }
    }
    for (const EntryId& id : changed) {
        const auto found = held.find(id);
        if (thereThen && !thereThen->contains(id))
            continue;
        // Hardware goes through all versions in turn or skips to later ones: what it has of at or
        // before `at` with no record of the key between is what the table had.
        if (found != held.end() && found->second.version <= at)
            past.entries.push_back({id, found->second.version, found->second.content, true});
        else
            past.notKept.push_back(id);
    }
    return past;
}

namespace {

/// One unit's records, split at a version.
struct SplitLog {
    std::vector<Change> since;
    std::set<EntryId> thereThen;  ///< keys that the records up to the version leave written
    std::map<EntryId, std::uint64_t> lastThen;
};

SplitLog splitLog(const State& state, Table table, std::uint16_t unit, std::uint64_t at,
                  std::uint64_t published, const Report& report) {
    SplitLog log;
    state.changes(
        table, 1, published,
        [&](const Change& change) {
            if (change.unit != unit)
                return;
            const EntryId id{table, change.unit, change.key};
            if (change.version > at) {
                log.since.push_back(change);
                return;
            }
            log.lastThen[id] = change.version;
            if (change.operation == Change::Operation::allRemoved)
                log.thereThen.clear();
            else if (change.operation == Change::Operation::written)
                log.thereThen.insert(id);
            else
                log.thereThen.erase(id);
        },
        report);
    return log;
}

}  // namespace

PastTable pastTable(System& system, Table table, std::optional<std::uint16_t> unit,
                    std::uint64_t at, const Report& report) {
    PastTable all;
    bool isLogRead = true;
    std::vector<Damage> told;  // every unit meets the same
    const Report logReport = [&](const Damage& damage) {
        isLogRead = false;
        if (std::ranges::find(told, damage) != told.end())
            return;
        told.push_back(damage);
        report(damage);
    };
    const LogFigures log = system.state.log(table, logReport);
    if (isLogRead && at > log.published) {
        throw QuestionError(fmt::format("table {} has no version {} yet: {} is the newest",
                                        shortName(table), at, log.published));
    }
    all.published = log.published;
    all.keptFrom = log.keptFrom();
    for (const std::uint16_t one : system.state.units(table)) {
        if (unit && *unit != one)
            continue;
        HeldEntries held = heldIfRuns(system, one);
        const SplitLog split = splitLog(system.state, table, one, at, log.published, logReport);
        // Hardware that is behind: the key was changed again before `at`.
        std::erase_if(held, [&](const auto& element) {
            const auto last = split.lastThen.find(element.first);
            return last != split.lastThen.end() && element.second.version < last->second;
        });
        const bool isAllKept = isLogRead && log.oldest == 1 && log.records == log.published;
        PastTable past = pastTable(table, at, system.state.entries(table, one, report), split.since,
                                   held, isAllKept ? std::optional(split.thereThen) : std::nullopt);
        std::ranges::move(past.entries, std::back_inserter(all.entries));
        std::ranges::move(past.notKept, std::back_inserter(all.notKept));
    }
    all.isWhole = isLogRead && log.isThere && at >= all.keptFrom - 1;
    return all;
}

Json toJson(const PastTable& past) {
    Json entries = Json::array();
    for (const PastEntry& entry : past.entries) {
        entries.push_back({{"unit", entry.id.unit},
                           {"key", entry.id.key},
                           {"version", entry.version},
                           {"fromHardware", entry.fromHardware},
                           {"entry", entry.content}});
    }
    Json notKept = Json::array();
    for (const EntryId& id : past.notKept)
        notKept.push_back({{"unit", id.unit}, {"key", id.key}});
    return {{"published", past.published},
            {"keptFrom", past.keptFrom},
            {"whole", past.isWhole},
            {"entries", std::move(entries)},
            {"notKept", std::move(notKept)}};
}

}  // namespace Inspect
