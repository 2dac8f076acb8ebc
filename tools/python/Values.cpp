// Values as Python has them.
#include "tools/python/Bind.h"

namespace Python {

py::str text(std::string_view bytes) {
    return py::reinterpret_steal<py::str>(
        PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace"));
}

py::object textOrNone(std::string_view bytes) {
    return bytes.empty() ? py::object(py::none()) : py::object(text(bytes));
}

py::object toPython(const Inspect::Json& value) {
    switch (value.type()) {
        case Inspect::Json::value_t::boolean:
            return py::bool_(value.get<bool>());
        case Inspect::Json::value_t::number_integer:
            return py::int_(value.get<std::int64_t>());
        case Inspect::Json::value_t::number_unsigned:
            return py::int_(value.get<std::uint64_t>());
        case Inspect::Json::value_t::number_float:
            return py::float_(value.get<double>());
        case Inspect::Json::value_t::string:
            return text(value.get_ref<const std::string&>());
        case Inspect::Json::value_t::array: {
            py::list list;
            for (const Inspect::Json& element : value)
                list.append(toPython(element));
            return list;
        }
        case Inspect::Json::value_t::object: {
            py::dict dict;
            for (const auto& [name, member] : value.items())
                dict[text(name)] = toPython(member);
            return dict;
        }
        case Inspect::Json::value_t::null:
        case Inspect::Json::value_t::binary:
        case Inspect::Json::value_t::discarded:
            break;
    }
    return py::none();
}

}  // namespace Python
