// Indexes, walked.
//
// Needs the interpreter's lock.
#pragma once

#include <memory>
#include <vector>

#include "tools/python/Attachment.h"

namespace Python {

/// An object of vorn.ResourceIterator; the last pool comes first.
py::object resourceIterator(const std::shared_ptr<Attachment>& attachment,
                            std::vector<Inspect::Pool> pools);

}  // namespace Python
