// Changes of a recording, put together of their events.
#include "tools/python/RecordedChanges.h"

#include <unordered_map>

#include <fmt/format.h>

#include "recording/Names.h"
#include "tools/python/Rows.h"

namespace Python {

namespace {

/// Takes events in their order.
class Changes {
public:
    void take(const Recording::Event& event, std::chrono::nanoseconds time) {
        if (Recording::is<Recording::Start>(event)) {
            run_.look(event);
            places_.clear();  // numbers begin anew
        } else if (const auto* const change = std::get_if<Recording::Change>(&event)) {
            stage(*change, time);
        } else if (const auto* const own = std::get_if<Recording::OwnChange>(&event)) {
            RecordedChange& made = add(own->number, own->table, "own");
            made.key = own->key;
        } else if (const auto* const state = std::get_if<Recording::State>(&event)) {
            const auto place = places_.find(state->number);
            if (place != places_.end())
                advance(changes_[place->second], *state, time);
        }
    }
    std::vector<RecordedChange> all() && { return std::move(changes_); }

private:
    RecordedChange& add(std::uint64_t number, std::uint32_t table, std::string_view operation) {
        places_[number] = changes_.size();
        RecordedChange& change = changes_.emplace_back();
        change.run = run_;
        change.number = number;
        change.table = table;
        change.operation = operation;
        return change;
    }

    void stage(const Recording::Change& change, std::chrono::nanoseconds time) {
        RecordedChange& made = add(change.number, change.table, operationName(change.operation));
        made.unit = change.unit;
        if (change.operation != Recording::Change::Operation::removeAll)
            made.key = Recording::keyName(change.table, change.key);
        made.staged = time;
    }

    static void advance(RecordedChange& change, const Recording::State& state,
                        std::chrono::nanoseconds time) {
        const std::string_view name = Recording::stateName(state.state);
        change.state = state.state;
        if (state.version != 0)
            change.version = state.version;
        if (name == "written") {
            change.committed = change.committed.value_or(time);
        } else if (name != "created" && !change.answered) {
            change.answered = time;
            change.isAcknowledged = name == "complete";
        }
    }

    std::vector<RecordedChange> changes_;
    std::unordered_map<std::uint64_t, std::size_t> places_;  ///< by number, of this process
    RecordedRun run_;
};

py::object secondsOrNone(const RecordedChange::Time& time) {
    return time ? secondsOf(*time) : py::none();
}

py::object latency(const RecordedChange::Time& from, const RecordedChange::Time& to) {
    return from && to ? secondsOf(*to - *from) : py::none();
}

Columns<RecordedChange> timeColumns() {
    using Row = RecordedChange;
    return {{"wall_time",
             [](const Row& row) {
                 const auto& told = row.staged ? row.staged : row.committed;
                 return told ? row.run.wallTime(*told) : py::none();
             },
             "When it was staged, an \"own\" one committed, as a datetime of UTC; None where the "
             "start has no time."},
            {"staged", [](const Row& row) { return secondsOrNone(row.staged); },
             "Seconds since the process began; None of an \"own\" one, which is told of when it is "
             "committed."},
            {"committed", [](const Row& row) { return secondsOrNone(row.committed); },
             "When it was in its table's log; None where it never was."},
            {"answered", [](const Row& row) { return secondsOrNone(row.answered); },
             "When whoever made it was answered: acknowledged, or failed; None where it waits."},
            {"commit_latency", [](const Row& row) { return latency(row.staged, row.committed); },
             "Seconds from staged to committed."},
            {"acknowledgement_latency",
             [](const Row& row) {
                 return row.isAcknowledged ? latency(row.committed, row.answered) : py::none();
             },
             "Seconds from committed to acknowledged; None where hardware has not acknowledged "
             "it."}};
}

Columns<RecordedChange> recordedChangeColumns() {
    using Row = RecordedChange;
    Columns<Row> columns{
        {"run", [](const Row& row) { return py::int_(row.run.number); },
         "Which process of the recording, from 1."},
        {"number", [](const Row& row) { return py::int_(row.number); },
         "Its number, which counts from 1 in each process."},
        {"table", [](const Row& row) { return text(Recording::tableName(row.table)); },
         "\"action\", \"v4\" or \"v6\"."},
        {"unit", [](const Row& row) { return orNone(row.unit); },
         "The chip unit; None of an \"own\" one."},
        {"key", [](const Row& row) { return textOrNone(row.key); },
         "The key; None where all were removed."},
        {"operation", [](const Row& row) { return text(row.operation); },
         "\"write\", \"remove\", \"remove-all\", or \"own\": the table itself looked at an entry "
         "whose index it was told of, as at a start or when one moves; where that changed nothing, "
         "it stays \"written\" with the version that the entry had."},
        {"state", [](const Row& row) { return text(Recording::stateName(row.state)); },
         "The last that is recorded: \"created\" (staged), \"written\" (committed), \"complete\" "
         "(acknowledged), \"failed\", \"exhausted\" or \"lost\"."},
        {"version",
         [](const Row& row) {
             return row.version == 0 ? py::object(py::none()) : py::int_(row.version);
         },
         "Version of the table that it made; None before it is committed."}};
    for (Column<Row>& column : timeColumns())
        columns.push_back(std::move(column));
    return columns;
}

std::string recordedChangeLine(const RecordedChange& change) {
    std::string line = fmt::format("run {} #{} {} {}", change.run.number, change.number,
                                   Recording::tableName(change.table), change.operation);
    if (change.unit)
        line += fmt::format(" unit {}", *change.unit);
    if (!change.key.empty())
        line += " key " + change.key;
    line += fmt::format(": {}", Recording::stateName(change.state));
    return change.version == 0 ? line : line + fmt::format(", version {}", change.version);
}

}  // namespace

std::vector<RecordedChange> recordedChanges(const Recording::Contents& contents) {
    Changes changes;
    for (const Recording::Recorded& recorded : contents.events())
        changes.take(Recording::decode(recorded.bytes), recorded.time);
    return std::move(changes).all();
}

void bindRecordedChange(py::module_& module) {
    py::class_<RecordedChange> type(module, "RecordedChange", plainType(),
                                    R"doc(A change of a recording; see Recording.changes.

A plain value; its columns are attributes and items. Changes are ordered by process and number.
)doc");
    bindColumns(type, "RecordedChange", recordedChangeColumns());
    bindOrder(
        type,
        [](const RecordedChange& change) { return std::tuple(change.run.number, change.number); },
        [](const RecordedChange& left, const RecordedChange& right) {
            const auto all = [](const RecordedChange& change) {
                return std::tuple(change.run.start_ns, change.table, change.unit, change.key,
                                  change.operation, change.state, change.version, change.staged,
                                  change.committed, change.answered);
            };
            return all(left) == all(right);
        });
    type.def("__str__",
             [](const RecordedChange& change) { return text(recordedChangeLine(change)); });
    type.def("__repr__", [](const RecordedChange& change) {
        return text(fmt::format("<vorn.RecordedChange {}>", recordedChangeLine(change)));
    });
}

}  // namespace Python
