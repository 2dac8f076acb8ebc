// Changes as rows, and the iterator that waits for more.
#include "tools/python/Log.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Follow.h"
#include "inspect/Text.h"
#include "tools/python/Rows.h"

namespace Python {

namespace {

using Inspect::Change;
using Inspect::Report;
using Inspect::ToldChange;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// So soon is Ctrl-C heard.
constexpr Seconds kLongestSleep{0.05};

class ChangeIterator {
public:
    ChangeIterator(std::shared_ptr<Attachment> attachment, const LogQuestion& question)
        : attachment_(std::move(attachment)),
          system_(attachment_->system()),
          question_(question),
          teller_(*system_, question.table, question.comparesHardware) {
        if (question.follows) {
            follower_.emplace(system_->state, question.table, question.from);
        } else {
            walk_ = system_->state.walkChanges(question.table, question.from.value_or(1),
                                               question.to.value_or(UINT64_MAX));
        }
        if (question.timeout_s)
            deadline_ = Clock::now() +
                        std::chrono::duration_cast<Clock::duration>(Seconds(*question.timeout_s));
    }

    /// Throws py::stop_iteration after the last.
    ToldChange next() {
        const std::optional<Change> change = wantedChange();
        if (!change)
            throw py::stop_iteration();
        const auto tell = [&](const auto& /*the teller has it*/, const Report& report) {
            return teller_.told(*change, report);
        };
        return question_.comparesHardware ? attachment_->asking(tell) : attachment_->looking(tell);
    }

private:
    /// Lost changes are of any unit.
    bool isWanted(const Change& change) const {
        return !question_.unit || change.operation == Change::Operation::lost ||
               change.unit == *question_.unit;
    }

    std::optional<Change> wantedChange() {
        for (;;) {
            std::optional<Change> change = question_.follows ? followed() : walked();
            if (!change || isWanted(*change))
                return change;
        }
    }

    std::optional<Change> walked() {
        return attachment_->looking(
            [&](const Inspect::State&, const Report& report) { return walk_(report); });
    }

    /// What is published by the deadline is told also after it.
    std::optional<Change> followed() {
        for (;;) {
            const bool isLate = deadline_ && Clock::now() >= *deadline_;
            std::optional<Change> change = inSight();
            const std::uint64_t last = question_.to.value_or(UINT64_MAX);
            if (change)
                return change->version > last ? std::nullopt : change;
            if (isLast_ || follower_->newest() >= last)
                return std::nullopt;
            isLast_ = isLate;
            const bool isNew =
                attachment_->looking([&](const Inspect::State&, const Report& report) {
                    return follower_->look(report);
                });
            if (!isNew && !isLast_)
                sleep();
        }
    }

    std::optional<Change> inSight() {
        return attachment_->looking(
            [&](const Inspect::State&, const Report& report) { return follower_->next(report); });
    }

    /// For the time between two looks, and not beyond the deadline.
    void sleep() const {
        auto until = Clock::now() +
                     std::chrono::duration_cast<Clock::duration>(Seconds(question_.interval_s));
        if (deadline_)
            until = std::min(until, *deadline_);
        do {
            {
                const py::gil_scoped_release released;
                const auto slice =
                    Clock::now() + std::chrono::duration_cast<Clock::duration>(kLongestSleep);
                std::this_thread::sleep_until(std::min(until, slice));
            }
            if (PyErr_CheckSignals() != 0)
                throw py::error_already_set();
        } while (Clock::now() < until);
    }

    std::shared_ptr<Attachment> attachment_;
    std::shared_ptr<Inspect::System> system_;
    LogQuestion question_;
    Inspect::ChangeTeller teller_;
    Inspect::State::Walk<Change> walk_;
    std::optional<Inspect::LogFollower> follower_;
    std::optional<Clock::time_point> deadline_;
    bool isLast_ = false;  ///< the deadline is over: what is in sight is told, and no more
};

bool hasPlace(const Change& change) {
    return change.operation != Change::Operation::lost;
}

Columns<ToldChange> changeColumns() {
    using Row = ToldChange;
    return {
        {"table", [](const Row& row) { return text(shortName(row.change.table)); },
         "\"action\", \"v4\" or \"v6\"."},
        {"version", [](const Row& row) { return py::int_(row.change.version); },
         "Version of the table that the change made."},
        {"unit",
         [](const Row& row) {
             return hasPlace(row.change) ? py::object(py::int_(row.change.unit)) : py::none();
         },
         "The chip unit; None where that is lost."},
        {"operation", [](const Row& row) { return text(operationText(row.change.operation)); },
         "\"write\", \"remove\", \"removeAll\", \"unknown\", or \"lost\": published, and neither a "
         "record nor a value tells any more what it did."},
        {"key", [](const Row& row) { return textOrNone(row.change.key); },
         "The key; None where all were removed, and where that is lost."},
        {"name",
         [](const Row& row) {
             return row.entry ? py::object(text(row.entry->name())) : py::none();
         },
         "Name or label of what it wrote, while that is there."},
        {"superseded_by", [](const Row& row) { return orNone(row.supersededBy); },
         "Version of the change that wrote the key later; None where there was none."},
        {"what", [](const Row& row) { return text(Inspect::shown(Inspect::toldText(row))); },
         "What it did, as `vorn log` says it."}};
}

std::string changeLine(const ToldChange& told) {
    const Change& change = told.change;
    std::string line = fmt::format("{} version {} {}", shortName(change.table), change.version,
                                   operationText(change.operation));
    if (hasPlace(change))
        line += fmt::format(" unit {}", change.unit);
    if (!change.key.empty())
        line += " key " + change.key;
    return line;
}

void bindChange(py::module_& module) {
    py::class_<ToldChange> type(module, "Change", plainType(),
                                R"doc(One change of a table; see Table.log.

A plain value; its columns are attributes and items. Changes are ordered by table and version.
)doc");
    bindColumns(type, "Change", changeColumns());
    type.def_property_readonly(
        "entry",
        [](const ToldChange& told) {
            return told.entry ? toPython(told.entry->content) : py::object(py::none());
        },
        "Content of what it wrote; None where a later change replaced it, or it wrote nothing.");
    type.def_property_readonly(
        "before",
        [](const ToldChange& told) {
            return told.before ? toPython(told.before->content) : py::object(py::none());
        },
        "Content that hardware still held of the key; None unless Table.log had compare=True.");
    type.def_property_readonly(
        "differences",
        [](const ToldChange& told) {
            py::list list;
            for (const std::string& one : told.differences)
                list.append(text(one));
            return list;
        },
        "To `before`, such as \"priority 10 -> 20\".");
    bindOrder(
        type,
        [](const ToldChange& told) {
            return std::tuple(static_cast<int>(told.change.table), told.change.version);
        },
        [](const ToldChange& left, const ToldChange& right) {
            return toJson(left) == toJson(right);
        });
    type.def("__str__", [](const ToldChange& told) {
        const std::string what = Inspect::toldText(told);
        return text(Inspect::shown(changeLine(told) + (what.empty() ? "" : ": " + what)));
    });
    type.def("__repr__", [](const ToldChange& told) {
        return text(fmt::format("<vorn.Change {}>", changeLine(told)));
    });
}

void requireTimes(const LogQuestion& question) {
    const double timeout_s = question.timeout_s.value_or(0);
    if (!std::isfinite(timeout_s) || timeout_s < 0 || timeout_s > 1e9)
        throw Inspect::QuestionError("timeout: expected seconds, 0 or more; None for no end");
    if (!std::isfinite(question.interval_s) || question.interval_s <= 0 ||
        question.interval_s > 1e9) {
        throw Inspect::QuestionError("interval: expected seconds, more than 0");
    }
    if (question.follows && question.comparesHardware)
        throw Inspect::QuestionError("compare: what is followed is not compared with hardware");
}

}  // namespace

py::object logIterator(const std::shared_ptr<Attachment>& attachment, const LogQuestion& question) {
    requireTimes(question);
    return py::cast(std::make_unique<ChangeIterator>(attachment, question));
}

void bindLog(py::module_& module) {
    bindChange(module);
    py::class_<ChangeIterator>(module, "ChangeIterator", plainType(),
                               "Changes one by one; see Table.log.")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &ChangeIterator::next)
        .def("__repr__", [](const ChangeIterator&) { return "<vorn.ChangeIterator>"; });
}

}  // namespace Python
