// What the parts of the module `vorn` have in common: one function a subject, in the order in which
// the module calls them, and values as Python has them.
//
// All of it needs the interpreter's lock.
#pragma once

#include <optional>
#include <string_view>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "inspect/State.h"

namespace Python {

namespace py = pybind11;

void bindErrors(py::module_& module);
void bindEntries(py::module_& module);
void bindLog(py::module_& module);
void bindResources(py::module_& module);
void bindExplanation(py::module_& module);
void bindTables(py::module_& module);
void bindSystem(py::module_& module);
void bindRecordings(py::module_& module);

/// For each class: the ordinary metaclass, as stubs know no other.
inline py::metaclass plainType() {
    return py::metaclass(reinterpret_cast<PyObject*>(&PyType_Type));
}

/// Names and labels are bytes of fixed fields, and may end within a character: what is no UTF-8 is
/// replaced.
py::str text(std::string_view bytes);
/// None for empty text.
py::object textOrNone(std::string_view bytes);
py::object toPython(const Inspect::Json& value);
template <class Value>
py::object orNone(const std::optional<Value>& value) {
    return value ? py::cast(*value) : py::none();
}

}  // namespace Python
