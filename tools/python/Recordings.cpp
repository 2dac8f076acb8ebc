// A recording, its events as rows, and the walk over them.
#include "tools/python/Recordings.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <system_error>

#include <datetime.h>
#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Text.h"
#include "recording/EntryText.h"
#include "recording/Names.h"
#include "recording/Text.h"
#include "tools/python/Errors.h"
#include "tools/python/RecordedChanges.h"
#include "tools/python/Rows.h"

namespace Python {

namespace {

struct HeldRecording {
    std::string path;
    Recording::Contents contents;
};
using RecordingHolder = std::shared_ptr<HeldRecording>;

/// An event; its texts and bytes lie in the recording.
struct RecordedEvent {
    std::shared_ptr<const HeldRecording> recording;
    std::size_t place = 0;  ///< in the recording
    RecordedRun run;
    Recording::Event event;

    const Recording::Recorded& recorded() const { return recording->contents.events()[place]; }
};

class RecordedEventIterator {
public:
    explicit RecordedEventIterator(std::shared_ptr<const HeldRecording> recording)
        : recording_(std::move(recording)) {}

    RecordedEvent next() {
        if (place_ == recording_->contents.events().size())
            throw py::stop_iteration();
        const Recording::Event event =
            Recording::decode(recording_->contents.events()[place_].bytes);
        run_.look(event);
        return {recording_, place_++, run_, event};
    }

private:
    std::shared_ptr<const HeldRecording> recording_;
    std::size_t place_ = 0;
    RecordedRun run_;
};

/// By the place of an event's kind; those of operations are named after these.
constexpr std::array<std::string_view, 13> kEventKinds{
    "start", "file", "mounted", "",       "turn",     "look", "",
    "end",   "own",  "state",   "answer", "resource", "note"};
static_assert(kEventKinds.size() == std::variant_size_v<Recording::Event>);

struct KindOf {
    template <class Kind>
    std::string_view operator()(const Kind& /*event*/) const {
        return kEventKinds.at(Recording::Event(std::in_place_type<Kind>).index());
    }
    std::string_view operator()(const Recording::Change& change) const {
        return operationName(change.operation);
    }
    std::string_view operator()(const Recording::ResourceOperation& made) const {
        return operationName(made.operation);
    }
    std::string_view operator()(const Recording::Handler& handler) const {
        return handler.runs ? "answer" : "answered";
    }
};

struct NumberOf {
    py::object operator()(const auto& event) const {
        if constexpr (requires { event.number; })
            return py::int_(event.number);
        else
            return py::none();
    }
};

struct TableOf {
    py::object operator()(const auto& event) const {
        if constexpr (requires { event.table; })
            return text(Recording::tableName(event.table));
        else
            return py::none();
    }
};

struct KeyOf {
    py::object operator()(const auto& event) const {
        if constexpr (requires { event.table + event.key; })
            return text(Recording::keyName(event.table, event.key));
        else
            return py::none();
    }
    py::object operator()(const Recording::Change& change) const {
        if (change.operation == Recording::Change::Operation::removeAll)
            return py::none();
        return text(Recording::keyName(change.table, change.key));
    }
    py::object operator()(const Recording::ResourceOperation& made) const {
        if (made.operation == Recording::ResourceOperation::Operation::sweep)
            return py::none();
        return text(Recording::keyName(made.table, made.key));
    }
    py::object operator()(const Recording::OwnChange& own) const { return textOrNone(own.key); }
};

struct StateOf {
    py::object operator()(const auto& event) const {
        if constexpr (requires { event.state; })
            return text(Recording::stateName(event.state));
        else
            return py::none();
    }
};

/// Without its last end of a line.
std::string lineOf(const Recording::Event& event) {
    std::string line = Recording::textOf(event);
    line.pop_back();
    return line;
}

/// What the line of the event has as NAME=VALUE or as a word of its own.
py::dict fieldsOf(const Recording::Event& event) {
    constexpr std::array<std::string_view, 4> kAlone{"on-own-files", "handler", "pause", "moved"};
    py::dict fields;
    if (const auto* const file = std::get_if<Recording::File>(&event)) {
        fields["path"] = text(file->path);
        fields["size"] = text(std::to_string(file->size));
        return fields;
    }
    if (const auto* const note = std::get_if<Recording::Note>(&event)) {
        fields["text"] = text(note->text);
        return fields;
    }
    for (const Recording::Word& word : Recording::wordsOf(lineOf(event))) {
        if (word.hasValue)
            fields[text(word.name)] = text(word.value);
        else if (std::ranges::find(kAlone, word.name) != kAlone.end())
            fields[text(word.name)] = true;
    }
    return fields;
}

Columns<RecordedEvent> recordedEventColumns() {
    using Row = RecordedEvent;
    return {{"event", [](const Row& row) { return py::int_(row.place + 1); },
             "Its place in the recording, from 1."},
            {"run", [](const Row& row) { return py::int_(row.run.number); },
             "Which process of the recording, from 1; 0 before the first start."},
            {"time", [](const Row& row) { return secondsOf(row.recorded().time); },
             "Seconds since the process began."},
            {"wall_time", [](const Row& row) { return row.run.wallTime(row.recorded().time); },
             "The same as a datetime of UTC; None where the start has no time."},
            {"kind", [](const Row& row) { return text(std::visit(KindOf(), row.event)); },
             "\"start\", \"file\", \"mounted\", \"write\", \"remove\", \"remove-all\", \"turn\", "
             "\"look\", \"move\", \"fail\", \"restore\", \"sweep\", \"end\", \"own\", \"state\", "
             "\"answer\", \"answered\", \"resource\" or \"note\"."},
            {"number", [](const Row& row) { return std::visit(NumberOf(), row.event); },
             "Of the change that it is about, from 1 in each process."},
            {"table", [](const Row& row) { return std::visit(TableOf(), row.event); },
             "\"action\", \"v4\", \"v6\", \"counter\" or \"policer\"."},
            {"unit",
             [](const Row& row) {
                 const auto* const change = std::get_if<Recording::Change>(&row.event);
                 return change == nullptr ? py::object(py::none()) : py::int_(change->unit);
             },
             "The chip unit of a change."},
            {"key", [](const Row& row) { return std::visit(KeyOf(), row.event); },
             "The key, as its table writes it."},
            {"state", [](const Row& row) { return std::visit(StateOf(), row.event); },
             "The new state of a change or of a request for an index: \"created\", \"written\", "
             "\"exhausted\", \"complete\", \"failed\" or \"lost\"."},
            {"version",
             [](const Row& row) {
                 const auto* const state = std::get_if<Recording::State>(&row.event);
                 return state == nullptr || state->version == 0 ? py::object(py::none())
                                                                : py::int_(state->version);
             },
             "Of a change's table, once it is committed."}};
}

void bindRecordedEvent(py::module_& module) {
    using Row = RecordedEvent;
    py::class_<Row> type(module, "RecordedEvent", plainType(),
                         R"doc(What an agent has recorded at one time; see Recording.

A plain value; its columns are attributes and items, and None where the kind of event has no such
thing. `str(event)` is its line in Recording.text(). Events are ordered as they were recorded.

>>> event = next(event for event in vorn.Recording("agent.rec") if event.kind == "write")
>>> print(event)
write #1 action 1 ... name=bgp ...
>>> event.number, event.table, event.unit, event.fields["name"], event.fields["handler"]
(1, 'action', 1, 'bgp', True)
)doc");
    bindColumns(type, "RecordedEvent", recordedEventColumns());
    type.def_property_readonly(
        "fields", [](const Row& row) { return fieldsOf(row.event); },
        "What more its line has, as texts: {\"name\": \"bgp\", \"rate\": \"500000\"}; True for a "
        "word without a value.");
    bindOrder(
        type, [](const Row& row) { return std::tuple(row.run.number, row.place); },
        [](const Row& left, const Row& right) {
            return left.run.start_ns == right.run.start_ns &&
                   left.recorded().time == right.recorded().time &&
                   Recording::sameBytes(left.recorded().bytes, right.recorded().bytes);
        });
    type.def("__str__", [](const Row& row) { return text(lineOf(row.event)); });
    type.def("__repr__", [](const Row& row) {
        const std::string line = lineOf(row.event);
        return text(fmt::format("<vorn.RecordedEvent {}: {}>", row.place + 1,
                                Inspect::shown(line.substr(0, line.find('\n')))));
    });
    py::class_<RecordedEventIterator>(module, "RecordedEventIterator", plainType(),
                                      "Events one by one; see Recording.")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &RecordedEventIterator::next)
        .def("__repr__",
             [](const RecordedEventIterator&) { return "<vorn.RecordedEventIterator>"; });
}

Recording::Contents contentsOf(const std::string& path) {
    try {
        const py::gil_scoped_release released;
        return Recording::Contents::ofFile(path);
    } catch (const std::system_error& error) {
        raiseFileError(error, path);
    } catch (const Recording::FormatError& error) {
        std::string reason = error.what();
        if (reason.starts_with(path + ": "))
            reason.erase(0, path.size() + 2);
        throw Inspect::QuestionError(
            Inspect::shown(fmt::format("{}: no recording, nor the text of one: {}", path, reason)));
    }
}

RecordingHolder readRecording(const std::filesystem::path& path) {
    auto held =
        std::make_shared<HeldRecording>(HeldRecording{path.string(), contentsOf(path.string())});
    if (!held->contents.damage().empty()) {
        warnOf({Inspect::Damage::Kind::rotten,
                fmt::format("{}: {}", held->path, held->contents.damage())});
    }
    return held;
}

using RecordingClass = py::class_<HeldRecording, RecordingHolder>;

void addRecordingContents(RecordingClass& type) {
    type.def("__len__", [](const HeldRecording& self) { return self.contents.events().size(); })
        .def("__iter__",
             [](const RecordingHolder& self) {
                 return std::make_unique<RecordedEventIterator>(self);
             })
        .def(
            "text",
            [](const HeldRecording& self) { return text(Recording::textOf(self.contents)); },
            R"doc(text(self)
--

All of it as the text that `vorn replay --text` prints, and which is a recording too.

>>> for line in vorn.Recording("agent.rec").text().splitlines()[-2:]:
...     print(line)
@ ...
end
)doc")
        .def(
            "changes",
            [](const HeldRecording& self) {
                const auto changes = [&] {
                    const py::gil_scoped_release released;
                    return recordedChanges(self.contents);
                }();
                return py::cast(changes);
            },
            R"doc(changes(self)
--

What became of each change, as a list of RecordedChange: when it was staged, committed (in its
table's log) and answered (acknowledged by hardware, or failed), and how long each took. Numbers of
changes begin anew with each process: `run` and `number` name one.

>>> changes = vorn.Recording("agent.rec").changes()
>>> print(changes[0])
run 1 #1 action write unit 1 key ...: complete, version 1
>>> changes[0].staged <= changes[0].committed <= changes[0].answered
True
>>> frame = pandas.DataFrame(changes)
>>> frame.groupby("run").number.max().to_dict()
{1: ..., 2: ...}
)doc");
}

}  // namespace

py::object secondsOf(std::chrono::nanoseconds time) {
    return py::float_(std::chrono::duration<double>(time).count());
}

/// Once a row, so made without a call into the interpreter.
py::object RecordedRun::wallTime(std::chrono::nanoseconds time) const {
    namespace chrono = std::chrono;
    if (start_ns == 0)
        return py::none();
    if (PyDateTimeAPI == nullptr)
        PyDateTime_IMPORT;
    constexpr std::uint64_t kNanoseconds = 1000;
    const auto rest = time + chrono::nanoseconds(start_ns % kNanoseconds);
    const chrono::sys_time<chrono::microseconds> at(chrono::microseconds(start_ns / kNanoseconds) +
                                                    chrono::floor<chrono::microseconds>(rest));
    const auto day = chrono::floor<chrono::days>(at);
    const chrono::year_month_day date(day);
    const chrono::hh_mm_ss clock(at - day);
    const auto whole = [](auto count) { return static_cast<int>(count); };
    PyObject* const made = PyDateTimeAPI->DateTime_FromDateAndTime(
        whole(date.year()), whole(static_cast<unsigned>(date.month())),
        whole(static_cast<unsigned>(date.day())), whole(clock.hours().count()),
        whole(clock.minutes().count()), whole(clock.seconds().count()),
        whole(clock.subseconds().count()), PyDateTime_TimeZone_UTC, PyDateTimeAPI->DateTimeType);
    if (made == nullptr)
        throw py::error_already_set();
    return py::reinterpret_steal<py::object>(made);
}

void bindRecordings(py::module_& module) {
    bindRecordedEvent(module);
    bindRecordedChange(module);
    RecordingClass type(module, "Recording", plainType(),
                        R"doc(Recording(path)
--

What an agent has recorded of itself (`vorn-agent --record FILE`), or the text of that.

The file is read at once, also while an agent writes it; `len` counts the events up to then.
Iterating makes a RecordedEvent of one after the other. May be used by several threads.

Raises FileError where the file cannot be read, QuestionError where it is no recording. Where a part
does not verify, warns with DamageWarning, and has what stands before it; see `damage`.

>>> recording = vorn.Recording("agent.rec")
>>> len(recording), recording.damage
(..., None)
>>> [event.kind for event in recording if event.kind in ("start", "mounted", "end")]
['start', 'mounted', 'start', 'mounted', 'end']
)doc");
    type.def(py::init(&readRecording), py::arg("path"))
        .def_property_readonly(
            "path", [](const HeldRecording& self) { return text(self.path); }, "The file.")
        .def_property_readonly(
            "damage", [](const HeldRecording& self) { return textOrNone(self.contents.damage()); },
            "Where and why it could not be read on; None where all could.")
        .def("__repr__", [](const HeldRecording& self) {
            return text(fmt::format("<vorn.Recording {}, {} events{}>", self.path,
                                    self.contents.events().size(),
                                    self.contents.damage().empty() ? "" : ", damaged"));
        });
    addRecordingContents(type);
}

}  // namespace Python
