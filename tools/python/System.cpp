// The attached state directory.
#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Find.h"
#include "tools/python/Resources.h"
#include "tools/python/Tables.h"

namespace Python {

namespace {

using Inspect::Json;

using Holder = std::shared_ptr<Attachment>;

Holder attach(const py::object& path) {
    std::string root;
    if (path.is_none()) {
        const char* const named = std::getenv("VORN_STATE_DIR");
        root = named == nullptr ? "" : named;
    } else {
        root = py::cast<std::filesystem::path>(path).string();
    }
    if (root.empty())
        throw Inspect::QuestionError("which state directory? Give a path or set VORN_STATE_DIR");
    return std::make_shared<Attachment>(root);
}

struct Runs {
    bool agent = false;
    bool hardware = false;
};
Runs whoRuns(const Holder& self) {
    return self->asking([](Inspect::System& system, const Inspect::Report&) {
        return Runs{system.agent.runs(), system.hardware.runs()};
    });
}

py::object staged(const Holder& self, const std::optional<std::string>& table,
                  const py::object& unit) {
    Json request{{"cmd", "changes"}};
    if (table)
        request["table"] = fullName(Inspect::tableNamed(*table));
    if (const auto number = unitIn(self->system()->state, unit))
        request["unit"] = *number;
    const Json answer = self->asking(
        [&](Inspect::System& system, const Inspect::Report&) { return system.agent.ask(request); });
    return toPython(answer.value("changes", Json::array()));
}

py::object resources(const Holder& self, const std::optional<std::string>& name) {
    static_cast<void>(self->system());
    if (!name)
        return resourceIterator(self, {Inspect::kPools.rbegin(), Inspect::kPools.rend()});
    const auto pool = Inspect::poolFromText(*name);
    if (!pool)
        throw Inspect::QuestionError(
            fmt::format("'{}' is no pool; expected counter or policer", *name));
    return resourceIterator(self, {*pool});
}

using SystemClass = py::class_<Attachment, Holder>;

void addIdentity(SystemClass& type) {
    type.def_property_readonly(
            "path", [](const Attachment& self) { return text(self.root()); },
            "The state directory.")
        .def_property_readonly(
            "closed", [](const Attachment& self) { return !self.isOpen(); },
            "Whether it was closed; then everything but this, `path` and `damages` raises "
            "QuestionError.")
        .def_property_readonly(
            "agent_runs", [](const Holder& self) { return whoRuns(self).agent; },
            "Whether an agent is there now, and serves its socket.")
        .def_property_readonly(
            "hardware_runs", [](const Holder& self) { return whoRuns(self).hardware; },
            "Whether a hardware side is there now, and serves its socket.")
        .def_property_readonly(
            "source", [](const Holder& self) { return whoRuns(self).agent ? "agent" : "files"; },
            "Who says what is told: \"agent\" beside one that runs, else \"files\".")
        .def_property_readonly(
            "units",
            [](const Holder& self) { return py::tuple(py::cast(self->system()->state.units())); },
            "Chip units that have tables.")
        .def_property_readonly(
            "damages", [](const Attachment& self) { return py::tuple(py::cast(self.damages())); },
            "All that could not be read since the directory was attached, each once; each was "
            "warned of with DamageWarning when it was met.")
        .def("__repr__", [](const Attachment& self) {
            return text(
                fmt::format("<vorn.System {}{}>", self.root(), self.isOpen() ? "" : ", closed"));
        });
}

void addUse(SystemClass& type) {
    type.def(
            "close", [](Attachment& self) { self.close(); },
            "close(self)\n--\n\nLets go of the directory. What was read stays.")
        .def("__enter__",
             [](const Holder& self) {
                 static_cast<void>(self->system());
                 return self;
             })
        .def("__exit__", [](Attachment& self, const py::args&) { self.close(); });
}

void addContents(SystemClass& type) {
    type.def_property_readonly(
            "tables",
            [](const Holder& self) {
                static_cast<void>(self->system());
                py::list tables;
                for (const Inspect::Table table : Inspect::kTables)
                    tables.append(tableToPython(self, table));
                return py::tuple(tables);
            },
            "The three tables: action, v4, v6.")
        .def(
            "table",
            [](const Holder& self, const std::string& name) {
                static_cast<void>(self->system());
                return tableToPython(self, Inspect::tableNamed(name));
            },
            py::arg("name"), R"doc(table(self, name)
--

A table by its name, in short or in full.

>>> system.table("v4") == system.table("PolicyCpuV4TcamEntry")
True
)doc")
        .def(
            "acknowledgements",
            [](const Holder& self) {
                return self->looking(
                    [](const Inspect::State& state, const Inspect::Report& report) {
                        return state.acknowledgements(report);
                    });
            },
            "acknowledgements(self)\n--\n\nWhat hardware has acknowledged, as Acknowledgements.")
        .def("resources", &resources, py::arg("pool") = py::none(), R"doc(resources(self, pool=None)
--

Indexes that are not free, one by one and in no order: of "counter", "policer" or both.

>>> [(r.index, r.returning) for r in sorted(system.resources("policer"))]
[(0, False), (1, False)]
)doc")
        .def("staged", &staged, py::arg("table") = py::none(), py::arg("unit") = py::none(),
             R"doc(staged(self, table=None, unit=None)
--

Changes that the agent has under way, oldest first: a list of dictionaries, as it tells them. It
tells the oldest where there are very many. Raises NotRunningError without an agent.

>>> system.staged("v4")
[]
)doc");
}

}  // namespace

void bindSystem(py::module_& module) {
    SystemClass type(module, "System", plainType(),
                     R"doc(A state directory, attached for reading; see attach().

Nothing is written, and neither process is held up. May be used by several threads.
)doc");
    addIdentity(type);
    addUse(type);
    addContents(type);
    module.def("attach", &attach, py::arg("path") = py::none(), R"doc(attach(path=None)
--

Attaches a state directory for reading: beside a live agent, or what a dead one left. Without a
path, the one that VORN_STATE_DIR names. Raises StateDirectoryError where it holds no tables.

>>> with vorn.attach(system.path) as own:
...     print(own.source, own.units)
agent (1, 2)
>>> own.closed
True
)doc");
}

}  // namespace Python
