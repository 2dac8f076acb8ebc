// Why an entry is, or is not, in hardware.
#include "tools/python/Explanation.h"

#include <fmt/format.h>

#include "inspect/ExplainText.h"
#include "inspect/Find.h"
#include "inspect/Text.h"
#include "tools/python/Entries.h"

namespace Python {

namespace {

using Inspect::Explanation;

void addAnswers(py::class_<Explanation>& type) {
    type.def_property_readonly(
            "table", [](const Explanation& story) { return text(shortName(story.id.table)); },
            "\"action\", \"v4\" or \"v6\".")
        .def_property_readonly(
            "unit", [](const Explanation& story) { return story.id.unit; }, "The chip unit.")
        .def_property_readonly(
            "key", [](const Explanation& story) { return text(story.id.key); }, "The key.")
        .def_property_readonly(
            "name", [](const Explanation& story) { return text(story.name); },
            "Name or label; empty where nothing tells it.")
        .def_property_readonly(
            "standing", [](const Explanation& story) { return text(standingText(story.standing)); },
            "Where it stands, in a word: \"inHardware\", \"removed\", \"underWay\", \"waits\", "
            "\"unconfirmed\", \"failed\", \"missing\", \"rotten\", \"cycle\" or \"absent\".")
        .def_property_readonly(
            "verdict", [](const Explanation& story) { return text(Inspect::shown(story.verdict)); },
            "The answer in one line.")
        .def_property_readonly(
            "good", [](const Explanation& story) { return isGood(story.standing); },
            "Whether it is in hardware, or gone from it as wanted.")
        .def_property_readonly(
            "root",
            [](const Explanation& story) {
                return story.root ? py::object(text(*story.root)) : py::none();
            },
            "What all that it waits for waits for; None where it waits for nothing.")
        .def_property_readonly(
            "committed",
            [](const Explanation& story) {
                if (!story.committed)
                    return py::object(py::none());
                const bool isAcknowledged =
                    story.committed->version <= story.acknowledged.value_or(0);
                return entryToPython({*story.committed, isAcknowledged});
            },
            "The committed entry; None where there is none.")
        .def_property_readonly(
            "damages", [](const Explanation& story) { return py::tuple(py::cast(story.damages)); },
            "What could not be read.");
}

}  // namespace

py::object explained(const std::shared_ptr<Attachment>& attachment, Inspect::Table table,
                     std::uint16_t unit, const std::string& key) {
    return py::cast(attachment->asking([&](Inspect::System& system, const Inspect::Report& report) {
        Explanation story = explain(system, find(system, table, unit, key));
        for (const Inspect::Damage& damage : story.damages)
            report(damage);
        return story;
    }));
}

void bindExplanation(py::module_& module) {
    py::class_<Explanation> type(module, "Explanation", plainType(),
                                 R"doc(Why an entry is, or is not, in hardware; see Table.explain.

`print(explanation)` prints what `vorn explain` prints.

>>> story = system.table("v4").explain(1, "ssh")
>>> story.standing, story.good
('inHardware', True)
>>> print(story)
in hardware since version ...
<BLANKLINE>
  entry       v4 unit 1 key ... (ssh)
  staged      nothing
  committed   version ...
              ssh priority 90: proto tcp dport 22, action ...
  log         newest version 8, acknowledged 8
  hardware    holds version ...
)doc");
    addAnswers(type);
    type.def(
            "to_dict", [](const Explanation& story) { return toPython(toJson(story)); },
            "to_dict(self)\n--\n\nAll of it, as the document that `vorn explain --json` prints.")
        .def("__str__", [](const Explanation& story) { return text(storyText(story)); })
        .def("__repr__", [](const Explanation& story) {
            return text(fmt::format("<vorn.Explanation {}: {}>", story.id.toText(),
                                    Inspect::shown(story.verdict)));
        });
}

}  // namespace Python
