// The extension module vorn._vorn; the package vorn/ offers all of it.
#include "tools/python/Bind.h"

namespace {

namespace py = pybind11;

/// Classes and functions are known by the package that people import.
void nameAfterPackage(const py::module_& module) {
    for (const auto& [name, member] : py::dict(module.attr("__dict__"))) {
        if (py::isinstance<py::type>(member))
            member.attr("__module__") = "vorn";
    }
}

}  // namespace

PYBIND11_MODULE(_vorn, module) {
    module.doc() = "What vorn is made of; import vorn.";
    // Texts begin with the form of a call where there is one, for inspect.signature.
    py::options options;
    options.disable_function_signatures();
    Python::bindErrors(module);
    Python::bindEntries(module);
    Python::bindLog(module);
    Python::bindResources(module);
    Python::bindExplanation(module);
    Python::bindTables(module);
    Python::bindSystem(module);
    Python::bindRecordings(module);
    nameAfterPackage(module);
    module.attr("__version__") = VORN_VERSION;
}
