// Fields of data classes.
#include "tools/python/Rows.h"

namespace Python {

py::object dataclassFields(const std::string& name, const std::vector<std::string>& columns) {
    const py::module_ dataclasses = py::module_::import("dataclasses");
    return dataclasses.attr("make_dataclass")(name, columns).attr("__dataclass_fields__");
}

}  // namespace Python
