// Acknowledgements and indexes.
#include <fmt/format.h>

#include "tools/python/Resources.h"
#include "tools/python/Rows.h"

namespace Python {

namespace {

using Inspect::Acknowledgement;
using Inspect::Acknowledgements;
using Inspect::Pool;
using Inspect::ResourceRow;

/// One record a call: one pool after the other.
class ResourceIterator {
public:
    ResourceIterator(std::shared_ptr<Attachment> attachment, std::vector<Pool> pools)
        : attachment_(std::move(attachment)), pools_(std::move(pools)) {}

    ResourceRow next() {
        auto row =
            attachment_->looking([&](const Inspect::State& state,
                                     const Inspect::Report& report) -> std::optional<ResourceRow> {
                for (;; walk_ = nullptr) {
                    if (!walk_) {
                        if (pools_.empty())
                            return std::nullopt;
                        walk_ = state.walkResources(pools_.back());
                        pools_.pop_back();
                    }
                    if (auto found = walk_(report))
                        return found;
                }
            });
        if (!row)
            throw py::stop_iteration();
        return std::move(*row);
    }

private:
    std::shared_ptr<Attachment> attachment_;
    std::vector<Pool> pools_;  ///< that are still to come, the next one last
    Inspect::State::Walk<ResourceRow> walk_;
};

void bindResource(py::module_& module) {
    using Row = ResourceRow;
    const Columns<Row> columns{
        {"pool", [](const Row& row) { return text(nameOf(row.pool)); },
         "\"counter\" or \"policer\"."},
        {"index", [](const Row& row) { return py::int_(row.index); }, "The index in hardware."},
        {"request", [](const Row& row) { return text(row.request); },
         "Key of the request that has it, such as \"0000002a/1\"; see "
         "ActionEntry.counter_request."},
        {"returning", [](const Row& row) { return py::bool_(row.isReturning); },
         "Given up, and free once hardware uses it no more."},
        {"version", [](const Row& row) { return py::int_(row.version); },
         "Version that hardware has to acknowledge before it is free; 0 for none."},
        {"user_table",
         [](const Row& row) {
             return row.userTable == 0 ? py::object(py::none())
                                       : text(Inspect::nameOfTableId(row.userTable));
         },
         "Table whose version that is."}};
    py::class_<Row> type(module, "Resource", plainType(), "An index that is not free: its record.");
    bindColumns(type, "Resource", columns);
    bindOrder(
        type,
        [](const Row& row) {
            return std::tuple(static_cast<int>(row.pool), row.index, row.request, row.isReturning,
                              row.version, row.userTable);
        },
        [](const Row&, const Row&) { return true; });
    const auto line = [](const Row& row) {
        return fmt::format("{} {} of request {}{}", nameOf(row.pool), row.index, row.request,
                           row.isReturning ? ", returning" : "");
    };
    type.def("__str__", [line](const Row& row) { return text(line(row)); });
    type.def("__repr__",
             [line](const Row& row) { return text(fmt::format("<vorn.Resource {}>", line(row))); });
    py::class_<ResourceIterator>(module, "ResourceIterator", plainType(),
                                 "Indexes one by one; see System.resources.")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &ResourceIterator::next)
        .def("__repr__", [](const ResourceIterator&) { return "<vorn.ResourceIterator>"; });
}

void bindAcknowledgement(py::module_& module) {
    using Row = Acknowledgement;
    const Columns<Row> columns{
        {"table", [](const Row& row) { return text(Inspect::nameOfTableId(row.tableId)); },
         "\"action\", \"v4\", \"v6\", \"counters\" or \"policers\"."},
        {"id", [](const Row& row) { return py::int_(row.tableId); }, "The table's number."},
        {"version", [](const Row& row) { return py::int_(row.version); },
         "The newest version that hardware has all of."}};
    py::class_<Row> type(module, "Acknowledgement", plainType(),
                         "What hardware has acknowledged of a table.");
    bindColumns(type, "Acknowledgement", columns);
    bindOrder(
        type, [](const Row& row) { return std::tuple(row.tableId, row.version); },
        [](const Row&, const Row&) { return true; });
    const auto line = [](const Row& row) {
        return fmt::format("{} version {}", Inspect::nameOfTableId(row.tableId), row.version);
    };
    type.def("__str__", [line](const Row& row) { return text(line(row)); });
    type.def("__repr__", [line](const Row& row) {
        return text(fmt::format("<vorn.Acknowledgement {}>", line(row)));
    });
}

std::string acknowledgementsText(const Acknowledgements& acks) {
    std::string line = fmt::format("{} announcements consumed{}", acks.consumed,
                                   acks.pauseRequested ? ", pause requested" : "");
    for (const Acknowledgement& row : acks.rows)
        line += fmt::format(", {} {}", Inspect::nameOfTableId(row.tableId), row.version);
    return acks.isThere ? line : "no hardware side has been here";
}

void bindAcknowledgements(py::module_& module) {
    py::class_<Acknowledgements>(
        module, "Acknowledgements", plainType(),
        R"doc(The file of the hardware side, as it was read: one row a table.

>>> [(row.table, row.version) for row in system.acknowledgements()][:2]
[('action', 6), ('v4', 8)]
>>> system.acknowledgements().pause_requested
False
)doc")
        .def_property_readonly(
            "consumed", [](const Acknowledgements& acks) { return acks.consumed; },
            "Announcements that hardware has taken up.")
        .def_property_readonly(
            "pause_requested", [](const Acknowledgements& acks) { return acks.pauseRequested; },
            "Whether the hardware side has asked the agent to pause.")
        .def("__len__", [](const Acknowledgements& acks) { return acks.rows.size(); })
        .def("__iter__", [](const Acknowledgements& acks) { return py::iter(py::cast(acks.rows)); })
        .def("__str__",
             [](const Acknowledgements& acks) { return text(acknowledgementsText(acks)); })
        .def("__repr__", [](const Acknowledgements& acks) {
            return text(fmt::format("<vorn.Acknowledgements: {}>", acknowledgementsText(acks)));
        });
}

}  // namespace

py::object resourceIterator(const std::shared_ptr<Attachment>& attachment,
                            std::vector<Pool> pools) {
    return py::cast(std::make_unique<ResourceIterator>(attachment, std::move(pools)));
}

void bindResources(py::module_& module) {
    bindAcknowledgement(module);
    bindAcknowledgements(module);
    bindResource(module);
}

}  // namespace Python
