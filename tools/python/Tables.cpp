// Tables: entries, figures, log, and the story of an entry.
#include "tools/python/Tables.h"

#include <algorithm>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Text.h"
#include "tools/python/Entries.h"
#include "tools/python/Explanation.h"
#include "tools/python/Log.h"
#include "tools/python/Rows.h"

namespace Python {

namespace {

using Inspect::State;
using Inspect::Table;

struct PyTable {
    std::shared_ptr<Attachment> attachment;
    Table table;

    std::optional<std::uint16_t> unit(const py::object& number) const {
        return unitIn(attachment->system()->state, number);
    }
    std::uint16_t oneUnit(const py::object& number) const {
        if (const auto found = unit(number))
            return *found;
        throw Inspect::QuestionError("which unit?");
    }
    std::vector<std::uint16_t> units() const { return attachment->system()->state.units(table); }
};

/// What is counted of a table.
struct Figures {
    Inspect::LogFigures log;
    State::Count count;
    std::optional<std::uint64_t> acknowledged;
};

State::Count countOf(const State& state, Table table, const Inspect::Report& report) {
    State::Count all;
    for (const std::uint16_t unit : state.units(table)) {
        const auto some = state.count(table, unit, report);
        all.live += some.live;
        all.inDeletion += some.inDeletion;
    }
    return all;
}

Figures figuresOf(const PyTable& self) {
    return self.attachment->looking([&](const State& state, const Inspect::Report& report) {
        return Figures{state.log(self.table, report), countOf(state, self.table, report),
                       state.acknowledgements(report).of(self.table)};
    });
}

void bindFigures(py::module_& module) {
    using Row = Figures;
    const auto behind = [](const Row& row) {
        const std::uint64_t acknowledged = row.acknowledged.value_or(0);
        return row.log.published - std::min(row.log.published, acknowledged);
    };
    const Columns<Row> columns{
        {"table", [](const Row& row) { return text(shortName(row.log.table)); },
         "\"action\", \"v4\" or \"v6\"."},
        {"entries", [](const Row& row) { return py::int_(row.count.live); },
         "Live entries of all units."},
        {"in_deletion", [](const Row& row) { return py::int_(row.count.inDeletion); },
         "Removed, but hardware may still hold them."},
        {"published", [](const Row& row) { return py::int_(row.log.published); },
         "The newest version."},
        {"acknowledged", [](const Row& row) { return orNone(row.acknowledged); },
         "The version that hardware has all of; None where it has none."},
        {"behind", [behind](const Row& row) { return py::int_(behind(row)); },
         "Versions between the two."},
        {"records", [](const Row& row) { return py::int_(row.log.records); },
         "Records that the log holds."},
        {"capacity", [](const Row& row) { return py::int_(row.log.capacity); },
         "Records that it has room for."},
        {"oldest_record", [](const Row& row) { return orNone(row.log.oldest); },
         "Version of the oldest record; None where there is none."}};
    py::class_<Row> type(module, "Figures", plainType(),
                         "What is counted of a table; see Table.figures.");
    bindColumns(type, "Figures", columns);
    const auto line = [behind](const Row& row) {
        return fmt::format("{}: {} entries, version {}, {} behind", shortName(row.log.table),
                           row.count.live, row.log.published, behind(row));
    };
    type.def("__str__", [line](const Row& row) { return text(line(row)); });
    type.def("__repr__",
             [line](const Row& row) { return text(fmt::format("<vorn.Figures {}>", line(row))); });
}

py::object findEntry(const PyTable& self, const py::object& unit, const std::string& key) {
    const std::uint16_t number = self.oneUnit(unit);
    const auto wanted = Inspect::keyText(self.table, key);
    struct Found {
        std::optional<Inspect::Entry> entry;
        std::uint64_t acknowledged = 0;
    };
    const Found found =
        self.attachment->looking([&](const State& state, const Inspect::Report& report) {
            Found one{{}, state.acknowledgements(report).of(self.table).value_or(0)};
            if (wanted) {
                one.entry = state.entry({self.table, number, *wanted});
                return one;
            }
            const State::Walk<Inspect::Entry> walk = state.walk(self.table, number);
            const std::string name = storedName(self.table, key);
            while (auto entry = walk(report)) {
                if (entry->name() != name)
                    continue;
                if (one.entry) {
                    throw Inspect::QuestionError(fmt::format(
                        "'{}' is the name of more than one entry of unit {}", key, number));
                }
                one.entry = std::move(entry);
            }
            return one;
        });
    if (!found.entry)
        return py::none();
    return entryToPython({*found.entry, found.entry->version <= found.acknowledged});
}

std::vector<std::string> listing(const PyTable& self, const py::object& unit) {
    const auto wanted = self.unit(unit);
    return self.attachment->looking([&](const State& state, const Inspect::Report& report) {
        std::vector<std::string> lines;
        for (const std::uint16_t one : state.units(self.table)) {
            if (!wanted || *wanted == one)
                std::ranges::move(state.listing(self.table, one, report),
                                  std::back_inserter(lines));
        }
        return lines;
    });
}

py::object logOf(const PyTable& self, const py::object& unit, std::optional<std::uint64_t> since,
                 std::optional<std::uint64_t> from, std::optional<std::uint64_t> to, bool follow,
                 std::optional<double> timeout, double interval, bool compare) {
    if (since && from)
        throw Inspect::QuestionError("since and from_ are two words for one thing: give one");
    if (since)
        from = *since + 1;
    return logIterator(self.attachment,
                       {self.table, self.unit(unit), from, to, follow, timeout, interval, compare});
}

void addIdentity(py::class_<PyTable>& type) {
    type.def_property_readonly(
            "name", [](const PyTable& self) { return text(shortName(self.table)); },
            "\"action\", \"v4\" or \"v6\".")
        .def_property_readonly(
            "full_name", [](const PyTable& self) { return text(fullName(self.table)); },
            "As the processes name it: \"PolicyCpuV4TcamEntry\".")
        .def_property_readonly(
            "id", [](const PyTable& self) { return tableId(self.table); }, "The table's number.")
        .def_property_readonly(
            "units", [](const PyTable& self) { return py::tuple(py::cast(self.units())); },
            "Chip units that have a part of it.")
        .def_property_readonly(
            "columns",
            [](const PyTable& self) { return py::tuple(py::cast(entryColumns(self.table))); },
            "Names of the columns of its entries.")
        .def(
            "__eq__",
            [](const PyTable& self, const PyTable& other) {
                return self.table == other.table &&
                       self.attachment->root() == other.attachment->root();
            },
            py::is_operator(), py::arg("other"))
        .def("__hash__",
             [](const PyTable& self) {
                 return py::hash(py::make_tuple(self.attachment->root(), tableId(self.table)));
             })
        .def("__str__",
             [](const PyTable& self) {
                 return text(
                     fmt::format("table {} of {}", shortName(self.table), self.attachment->root()));
             })
        .def("__repr__", [](const PyTable& self) {
            return text(fmt::format("<vorn.Table {} of {}>", shortName(self.table),
                                    self.attachment->root()));
        });
}

void addEntries(py::class_<PyTable>& type) {
    type.def(
            "entries",
            [](const PyTable& self, const py::object& unit, const py::object& match,
               const std::string& action) {
                return std::make_unique<EntryIterator>(
                    self.attachment, EntryQuestion{self.table, self.unit(unit), match, action});
            },
            py::arg("unit") = py::none(), py::kw_only(), py::arg("match") = py::tuple(),
            py::arg("action") = "",
            R"doc(entries(self, unit=None, *, match=(), action='')
--

Committed entries one by one, of all units or one; see EntryIterator.

`match` has the conditions of `vorn show entries --match`, one or several: "dport=179",
"src=192.0.2.0/24", "label=bgp*". `action` is the key or name of the action that match entries have.

>>> [entry.name for entry in sorted(system.table("v4").entries(1, match="dport=22"))]
['ssh']
)doc")
        .def("__iter__",
             [](const PyTable& self) {
                 return std::make_unique<EntryIterator>(
                     self.attachment, EntryQuestion{self.table, {}, py::tuple(), {}});
             })
        .def("__len__",
             [](const PyTable& self) {
                 return self.attachment->looking(
                     [&](const State& state, const Inspect::Report& report) {
                         const auto count = countOf(state, self.table, report);
                         return count.live + count.inDeletion;
                     });
             })
        .def("find", &findEntry, py::arg("unit"), py::arg("key"), R"doc(find(self, unit, key)
--

The committed entry of that key, name or label; None where there is none. Raises QuestionError where
several have the name, and DamageError where the key's entry cannot be read.

>>> system.table("v4").find(1, "ssh").priority
90
)doc")
        .def("getTableEntries_py", &listing, py::arg("unit") = py::none(),
             R"doc(getTableEntries_py(self, unit=None)
--

The table's inspection listing: the text of each committed entry, in the order of the listing that
the table itself gives within the agent.

Staged entries are in the agent's memory only and not listed here: explain() tells of one,
System.staged() of all that are on their way.

>>> for line in system.table("v4").getTableEntries_py(1):
...     print(line)
key ... rest priority 1 action ...
key ... ssh priority 90 action ...
key ... bgp priority 100 action ...
key ... bgp priority 100 action ...
)doc");
}

void addQuestions(py::class_<PyTable>& type) {
    type.def("figures", &figuresOf, R"doc(figures(self)
--

What is counted of the table, all at one time.

>>> print(system.table("v4").figures())
v4: 8 entries, version 8, 0 behind
)doc")
        .def(
            "explain",
            [](const PyTable& self, const py::object& unit, const std::string& key) {
                return explained(self.attachment, self.table, self.oneUnit(unit), key);
            },
            py::arg("unit"), py::arg("key"), R"doc(explain(self, unit, key)
--

Why an entry is, or is not, in hardware: an Explanation. `key` is its key, or its name or label
where that is unique. Asks the agent and the hardware side where they run.
)doc")
        .def("log", &logOf, py::arg("unit") = py::none(), py::kw_only(),
             py::arg("since") = py::none(), py::arg("from_") = py::none(),
             py::arg("to") = py::none(), py::arg("follow") = false, py::arg("timeout") = py::none(),
             py::arg("interval") = 0.05, py::arg("compare") = false,
             R"doc(log(self, unit=None, *, since=None, from_=None, to=None, follow=False,
    timeout=None, interval=0.05, compare=False)
--

Changes one by one, the lowest version first: those that the log keeps.

`from_` and `to` are versions, both included; `since=v` is `from_=v + 1`. The log keeps a record
until hardware has acknowledged the change. `compare=True` asks the hardware side what it still
holds: Change.before, Change.differences.

`follow=True` goes on with what is published later. It looks each `interval` seconds, and ends
`timeout` seconds after it was called (None: never), or behind version `to`. Other threads run
meanwhile; Ctrl-C ends it. From its first version on (`from_`, `since`, or the oldest that is kept)
it tells every version once: where hardware was faster than the look, by the value that the change
wrote, and as operation "lost" where that was replaced as well; these are told for every unit.

>>> v4 = system.table("v4")
>>> v4.log()
<vorn.ChangeIterator>
>>> for change in v4.log(since=6, follow=True, timeout=0):
...     print(change.version, change.operation, change.name)
7 write ...
8 write ...
)doc");
}

}  // namespace

py::object tableToPython(const std::shared_ptr<Attachment>& attachment, Table table) {
    return py::cast(PyTable{attachment, table});
}

void bindTables(py::module_& module) {
    bindFigures(module);
    py::class_<PyTable> type(module, "Table", plainType(),
                             R"doc(One of the three tables of a System, with all units.

Iterating over it gives its committed entries, `len` counts them, and a frame can be made of it:

>>> v4 = system.table("v4")
>>> len(v4), v4.units
(8, (1, 2))
>>> pandas.DataFrame(v4)[["unit", "name", "priority", "proto", "dport"]].query("name == 'ssh'")
   unit name  priority proto dport
...
)doc");
    addIdentity(type);
    addEntries(type);
    addQuestions(type);
}

}  // namespace Python
