// What can go wrong, as exceptions and as a warning.
#include "tools/python/Errors.h"

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "platform/kivshimo/Errors.h"
#include "tools/python/Rows.h"

namespace Python {

namespace {

/// The module's exceptions; they live as long as the process.
struct Kinds {
    py::handle error;
    py::handle stateDirectory;
    py::handle notRunning;
    py::handle refused;
    py::handle question;
    py::handle damage;
    py::handle damageWarning;
    py::handle file;
};
Kinds& kinds() {
    static Kinds all;
    return all;
}

py::handle addKind(py::module_& module, const std::string& name, const py::tuple& bases,
                   const char* doc) {
    const py::object kind = py::reinterpret_steal<py::object>(
        PyErr_NewExceptionWithDoc(("vorn." + name).c_str(), doc, bases.ptr(), nullptr));
    if (!kind)
        throw py::error_already_set();
    module.add_object(name.c_str(), kind);
    return kind;
}

void translate(std::exception_ptr thrown) {
    const auto raise = [](py::handle kind, const std::exception& error) {
        PyErr_SetObject(kind.ptr(), text(error.what()).ptr());
    };
    try {
        std::rethrow_exception(std::move(thrown));
    } catch (const Inspect::StateDirectoryError& error) {
        raise(kinds().stateDirectory, error);
    } catch (const Inspect::NotRunningError& error) {
        raise(kinds().notRunning, error);
    } catch (const Inspect::RefusedError& error) {
        raise(kinds().refused, error);
    } catch (const Inspect::QuestionError& error) {
        raise(kinds().question, error);
    } catch (const KivShimo::CorruptionError& error) {
        raise(kinds().damage, error);
    } catch (const KivShimo::BusyError& error) {
        raise(kinds().damage, error);
    } catch (const KivShimo::MountError& error) {
        raise(kinds().damage, error);
    } catch (const Inspect::Json::exception& error) {
        // A process of another version, or none of ours, at the socket.
        raise(kinds().error, std::runtime_error(fmt::format(
                                 "a process does not answer as expected: {}", error.what())));
    }
}

void bindDamage(py::module_& module) {
    using Inspect::Damage;
    const Columns<Damage> columns{
        {"kind", [](const Damage& damage) { return text(kindText(damage.kind)); },
         "\"rotten\", \"busy\" or \"unreadable\"."},
        {"what", [](const Damage& damage) { return text(damage.what); },
         "The file, and the slot where it is one."}};
    py::class_<Damage> type(module, "Damage", plainType(), "What could not be read.");
    bindColumns(type, "Damage", columns);
    bindOrder(
        type,
        [](const Damage& damage) { return std::tuple(static_cast<int>(damage.kind), damage.what); },
        [](const Damage&, const Damage&) { return true; });
    type.def("__str__", [](const Damage& damage) {
        return text(fmt::format("{}: {}", kindText(damage.kind), damage.what));
    });
    type.def("__repr__", [](const Damage& damage) {
        return text(fmt::format("<vorn.Damage {}: {}>", kindText(damage.kind), damage.what));
    });
}

}  // namespace

void bindErrors(py::module_& module) {
    const py::object builtins = py::module_::import("builtins");
    const auto add = [&](const char* name, const py::tuple& bases, const char* doc) {
        return addKind(module, name, bases, doc);
    };
    Kinds& all = kinds();
    all.error = add("Error", py::make_tuple(builtins.attr("Exception")),
                    "What all exceptions of this module are.");
    const py::tuple error = py::make_tuple(all.error);
    all.stateDirectory = add("StateDirectoryError", error,
                             "The directory is missing, holds no tables, or tables of another "
                             "layout.");
    all.notRunning =
        add("NotRunningError", error, "What was asked for needs a process that does not run.");
    all.refused = add("RefusedError", error, "A process has answered that it does not do it.");
    all.question = add("QuestionError", py::make_tuple(all.error, builtins.attr("ValueError")),
                       "What was asked for cannot be meant: no such table, unit, key, name or "
                       "field, or more than one.");
    all.damage = add("DamageError", error,
                     "The one thing that was asked for cannot be read: it does not verify, its "
                     "writer is in the middle of it, or the file cannot be opened.");
    all.file = add("FileError", py::make_tuple(all.error, builtins.attr("OSError")),
                   "A file cannot be read; `errno` and `filename` say which and why.");
    all.damageWarning =
        add("DamageWarning", py::make_tuple(builtins.attr("UserWarning")),
            "Something met on a walk cannot be read; the walk goes on behind it. All that were met "
            "are in System.damages.");
    py::register_local_exception_translator(translate);
    bindDamage(module);
}

void warnOf(const Inspect::Damage& damage) {
    const std::string line = fmt::format("{}: {}", kindText(damage.kind), damage.what);
    if (PyErr_WarnEx(kinds().damageWarning.ptr(), line.c_str(), 1) != 0)
        throw py::error_already_set();
}

void raiseFileError(const std::system_error& error, const std::string& file) {
    std::string reason = error.what();
    if (reason.starts_with(file + ": "))
        reason.erase(0, file.size() + 2);  // it is shown behind the reason
    const auto name = py::reinterpret_steal<py::object>(PyUnicode_DecodeFSDefault(file.c_str()));
    const py::tuple what = py::make_tuple(error.code().value(), text(reason), name);
    PyErr_SetObject(kinds().file.ptr(), what.ptr());
    throw py::error_already_set();
}

}  // namespace Python
