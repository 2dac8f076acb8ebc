// A table of an attached state directory.
//
// Needs the interpreter's lock.
#pragma once

#include <memory>

#include "tools/python/Attachment.h"

namespace Python {

/// An object of vorn.Table.
py::object tableToPython(const std::shared_ptr<Attachment>& attachment, Inspect::Table table);

}  // namespace Python
