// A table's change log, walked and followed.
//
// Needs the interpreter's lock; gives it up while it waits.
#pragma once

#include <memory>

#include "tools/python/Attachment.h"

namespace Python {

/// Which changes a script wants, and how long it waits for more.
struct LogQuestion {
    Inspect::Table table = Inspect::Table::action;
    std::optional<std::uint16_t> unit;
    std::optional<std::uint64_t> from;
    std::optional<std::uint64_t> to;
    bool follows = false;
    std::optional<double> timeout_s;
    double interval_s = 0;
    bool comparesHardware = false;
};

/// An object of vorn.ChangeIterator. Throws Inspect::QuestionError.
py::object logIterator(const std::shared_ptr<Attachment>& attachment, const LogQuestion& question);

}  // namespace Python
