// Entries of the three tables.
#include "tools/python/Entries.h"

#include <algorithm>

#include <fmt/format.h>

#include "inspect/Text.h"
#include "tools/python/Rows.h"

namespace Python {

namespace {

using Inspect::Entry;
using Inspect::Json;
using Inspect::Table;

py::object member(const Json& object, std::string_view name) {
    const auto found = object.find(std::string(name));
    return found == object.end() ? py::object(py::none()) : toPython(*found);
}

template <class Row>
Column<Row> contentColumn(const char* name, const char* doc) {
    return {name, [name](const Row& row) { return member(row.entry.content, name); }, doc};
}

template <class Row>
void addPlace(Columns<Row>& columns) {
    columns.push_back({"table", [](const Row& row) { return text(shortName(row.entry.id.table)); },
                       "\"action\", \"v4\" or \"v6\"."});
    columns.push_back(
        {"unit", [](const Row& row) { return py::int_(row.entry.id.unit); }, "The chip unit."});
    columns.push_back({"key", [](const Row& row) { return text(row.entry.id.key); },
                       "The key, as the system writes it."});
    columns.push_back({"name", [](const Row& row) { return text(row.entry.name()); },
                       "The action's name or the match entry's label."});
}

template <class Row>
void addState(Columns<Row>& columns) {
    columns.push_back({"version", [](const Row& row) { return py::int_(row.entry.version); },
                       "Version of the change that wrote it last."});
    columns.push_back({"in_deletion",
                       [](const Row& row) { return py::bool_(row.entry.inDeletion); },
                       "Removed, but hardware may still hold it."});
    columns.push_back({"acknowledged", [](const Row& row) { return py::bool_(row.isAcknowledged); },
                       "Whether hardware had acknowledged the version when the walk began."});
}

Columns<ActionRow> actionColumns() {
    using Row = ActionRow;
    Columns<Row> columns;
    addPlace(columns);
    columns.push_back(contentColumn<Row>("disposition", "\"permit\" or \"drop\"."));
    columns.push_back(contentColumn<Row>("counter", "Index of its counter; None without one."));
    columns.push_back(contentColumn<Row>("policer", "Index of its policer; None without one."));
    columns.push_back(contentColumn<Row>("rate", "In packets or bits a second, as `mode` says."));
    columns.push_back(contentColumn<Row>("burst", "In packets or bits."));
    columns.push_back(contentColumn<Row>("mode", "\"pps\", \"bps\" or \"none\"."));
    columns.push_back({"counter_request",
                       [](const Row& row) { return textOrNone(row.entry.counterRequest); },
                       "Key of its request for a counter; None without one."});
    columns.push_back({"policer_request",
                       [](const Row& row) { return textOrNone(row.entry.policerRequest); },
                       "Key of its request for a policer; None without one."});
    addState(columns);
    return columns;
}

Columns<MatchRow> matchColumns() {
    using Row = MatchRow;
    Columns<Row> columns;
    addPlace(columns);
    columns.push_back(contentColumn<Row>("priority", "The highest is tried first."));
    columns.push_back(contentColumn<Row>("action", "Key of its action."));
    for (const std::string_view field : Inspect::kMatchFields) {
        std::string name(field);
        std::ranges::replace(name, '-', '_');
        columns.push_back({name,
                           [field](const Row& row) {
                               const auto fields = row.entry.content.find("fields");
                               return fields == row.entry.content.end() ? py::object(py::none())
                                                                        : member(*fields, field);
                           },
                           fmt::format("What packets need in {}; None where any will do.", field)});
    }
    addState(columns);
    return columns;
}

/// By table and unit, and within a unit as hardware tries them.
auto orderOf(const EntryRow& row) {
    const Entry& entry = row.entry;
    const bool isAction = entry.id.table == Table::action;
    const auto priority = isAction ? 0 : entry.content.value("priority", std::int64_t{0});
    return std::tuple(static_cast<int>(entry.id.table), entry.id.unit, -priority,
                      isAction ? entry.name() : std::string(), entry.id.key, entry.version,
                      entry.inDeletion);
}

std::string reprOf(const EntryRow& row) {
    const Entry& entry = row.entry;
    return fmt::format("<vorn.{} {} '{}' version {}{}>",
                       entry.id.table == Table::action ? "ActionEntry" : "MatchEntry",
                       entry.id.toText(), Inspect::shown(entry.name()), entry.version,
                       entry.inDeletion ? ", in deletion" : "");
}

void bindBase(py::module_& module) {
    py::class_<EntryRow> type(module, "Entry", plainType(),
                              R"doc(A committed entry of a table: an ActionEntry or a MatchEntry.

A plain value: it stays as it was read. Its columns are attributes and items; `dict(entry)` and
`entry.to_dict()` are all of them. Entries are equal when key, version and content are; they are
ordered by table and unit, and within a unit as hardware tries them.

>>> bgp = system.table("action").find(1, "bgp")
>>> bgp.disposition, bgp["mode"], bgp.rate
('permit', 'bps', 500000)
>>> print(bgp)
action unit 1 key 8ecd8072.0: bgp permit, counter 0, policer 0, 500000 bps, burst 64000
)doc");
    Columns<EntryRow> common;
    addPlace(common);
    addState(common);
    bindAttributes(type, common);
    type.def_property_readonly(
        "content", [](const EntryRow& row) { return toPython(row.entry.content); },
        "The content as control sockets and the command line show it: a dictionary.");
    type.def("__str__", [](const EntryRow& row) {
        return text(Inspect::shown(
            fmt::format("{}: {}", row.entry.id.toText(), Inspect::entryText(row.entry.content))));
    });
    type.def("__repr__", [](const EntryRow& row) { return text(reprOf(row)); });
    bindOrder(type, orderOf, [](const EntryRow& left, const EntryRow& right) {
        return left.entry.content == right.entry.content;
    });
}

template <class Row>
std::vector<std::string> namesOf(const Columns<Row>& columns) {
    std::vector<std::string> names;
    for (const Column<Row>& column : columns)
        names.push_back(column.name);
    return names;
}

std::vector<Inspect::Match> matchesIn(const py::object& match) {
    std::vector<Inspect::Match> matches;
    if (py::isinstance<py::str>(match)) {
        matches.emplace_back(py::cast<std::string>(match));
        return matches;
    }
    for (const py::handle one : match)
        matches.emplace_back(py::cast<std::string>(one));
    return matches;
}

}  // namespace

std::vector<std::string> entryColumns(Table table) {
    return table == Table::action ? namesOf(actionColumns()) : namesOf(matchColumns());
}

py::object entryToPython(EntryRow row) {
    if (row.entry.id.table == Table::action)
        return py::cast(ActionRow{std::move(row)});
    return py::cast(MatchRow{std::move(row)});
}

EntryIterator::EntryIterator(std::shared_ptr<Attachment> attachment, const EntryQuestion& question)
    : attachment_(std::move(attachment)) {
    filter_.table = question.table;
    filter_.unit = question.unit;
    filter_.action = question.action;
    filter_.matches = matchesIn(question.match);
    attachment_->looking([&](const Inspect::State& state, const Inspect::Report& report) {
        filter_ = withActionKeys(filter_, state);
        acknowledged_ = state.acknowledgements(report).of(question.table).value_or(0);
        units_ = state.units(question.table);
        std::ranges::reverse(units_);
        return true;
    });
    if (filter_.unit)
        std::erase_if(units_, [&](std::uint16_t unit) { return unit != *filter_.unit; });
}

std::optional<Entry> EntryIterator::nextWanted(const Inspect::State& state,
                                               const Inspect::Report& report) {
    for (;; walk_ = nullptr) {
        if (!walk_) {
            if (units_.empty())
                return std::nullopt;
            walk_ = state.walk(*filter_.table, units_.back());
            units_.pop_back();
        }
        while (auto entry = walk_(report)) {
            if (filter_.isMet(*entry))
                return entry;
        }
    }
}

py::object EntryIterator::next() {
    auto entry =
        attachment_->looking([&](const Inspect::State& state, const Inspect::Report& report) {
            return nextWanted(state, report);
        });
    if (!entry)
        throw py::stop_iteration();
    const bool isAcknowledged = entry->version <= acknowledged_;
    return entryToPython({std::move(*entry), isAcknowledged});
}

void bindEntries(py::module_& module) {
    bindBase(module);
    py::class_<ActionRow, EntryRow> action(module, "ActionEntry", plainType(),
                                           "What is done with traffic to the processor.");
    bindColumns(action, "ActionEntry", actionColumns());
    py::class_<MatchRow, EntryRow> match(module, "MatchEntry", plainType(),
                                         "Which traffic an action is for: an entry of v4 or v6.");
    bindColumns(match, "MatchEntry", matchColumns());
    py::class_<EntryIterator>(module, "EntryIterator", plainType(),
                              R"doc(Entries one by one, as they are read; see Table.entries.

No list is made: an entry that a script does not keep is gone. Entries come in no order (`sorted`
puts them as hardware tries them); one that is there all the time comes once. What cannot be read is
warned of, see DamageWarning, and the walk goes on behind it.
)doc")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &EntryIterator::next)
        .def("__repr__", [](const EntryIterator& walk) {
            return text(fmt::format("<vorn.EntryIterator of {}>", shortName(walk.table())));
        });
}

}  // namespace Python
