// Classes whose objects are rows: columns with names, which are attributes, items and members of a
// dictionary alike, and which pandas takes as the columns of a frame.
//
// Needs the interpreter's lock.
#pragma once

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "tools/python/Bind.h"

namespace Python {

template <class Row>
struct Column {
    std::string name;
    std::function<py::object(const Row&)> get;
    std::string doc;
};

template <class Row>
using Columns = std::vector<Column<Row>>;

/// A row as a dictionary, in the order of the columns.
template <class Row>
py::dict toDict(const Columns<Row>& columns, const Row& row) {
    py::dict dict;
    for (const Column<Row>& column : columns)
        dict[py::str(column.name)] = column.get(row);
    return dict;
}

/// The fields of a data class of these names. What takes data classes apart, such as pandas, takes
/// rows so.
py::object dataclassFields(const std::string& name, const std::vector<std::string>& columns);

/// Adds the columns that the class does not have from its base.
template <class Row, class... Options>
void bindAttributes(py::class_<Row, Options...>& type, const Columns<Row>& columns) {
    for (const Column<Row>& column : columns) {
        if (!py::hasattr(type, column.name.c_str()))
            type.def_property_readonly(column.name.c_str(), py::cpp_function(column.get),
                                       column.doc.c_str());
    }
}

/// Adds to the class: its columns as attributes, what `dict(row)` asks for, and the fields of a
/// data class.
template <class Row, class... Options>
void bindColumns(py::class_<Row, Options...>& type, const std::string& name,
                 const Columns<Row>& columns) {
    std::vector<std::string> names;
    for (const Column<Row>& column : columns)
        names.push_back(column.name);
    bindAttributes(type, columns);
    const py::tuple keys = py::cast(names);
    type.def(
        "keys", [keys](const Row&) { return keys; }, "keys(self)\n--\n\nThe names of the columns.");
    type.def(
        "__getitem__",
        [columns](const Row& row, const std::string& wanted) {
            for (const Column<Row>& column : columns) {
                if (column.name == wanted)
                    return column.get(row);
            }
            throw py::key_error(wanted);
        },
        py::arg("name"));
    type.def("__iter__", [keys](const Row&) { return py::iter(keys); });
    type.def("__len__", [keys](const Row&) { return keys.size(); });
    type.def(
        "__contains__",
        [keys](const Row&, const py::object& wanted) { return keys.contains(wanted); },
        py::arg("name"));
    type.def(
        "to_dict", [columns](const Row& row) { return toDict(columns, row); },
        "to_dict(self)\n--\n\nThe columns and their values.");
    type.attr("__dataclass_fields__") = dataclassFields(name, names);
}

template <class Tuple>
std::size_t hashOf(const Tuple& tuple) {
    std::size_t all = 0;
    const auto add = [&](const auto& part) {
        constexpr std::size_t kFactor = 1099511628211U;
        all = (all ^ std::hash<std::remove_cvref_t<decltype(part)>>()(part)) * kFactor;
    };
    std::apply([&](const auto&... parts) { (add(parts), ...); }, tuple);
    return all;
}

/// Adds comparison by what `order(row)` makes of a row, a tuple of numbers and texts; equal is what
/// has the same order and is the same.
template <class Row, class... Options, class Order, class Same>
void bindOrder(py::class_<Row, Options...>& type, Order order, Same same) {
    const auto compared = [order](auto holds) {
        return [order, holds](const Row& left, const Row& right) {
            return holds(order(left) <=> order(right));
        };
    };
    const py::arg other("other");
    type.def("__lt__", compared([](auto way) { return way < 0; }), py::is_operator(), other);
    type.def("__le__", compared([](auto way) { return way <= 0; }), py::is_operator(), other);
    type.def("__gt__", compared([](auto way) { return way > 0; }), py::is_operator(), other);
    type.def("__ge__", compared([](auto way) { return way >= 0; }), py::is_operator(), other);
    type.def(
        "__eq__",
        [order, same](const Row& left, const Row& right) {
            return order(left) == order(right) && same(left, right);
        },
        py::is_operator(), other);
    type.def("__hash__", [order](const Row& row) { return hashOf(order(row)); });
}

}  // namespace Python
