// The story of one entry.
//
// Needs the interpreter's lock; gives it up while it asks.
#pragma once

#include <memory>
#include <string>

#include "tools/python/Attachment.h"

namespace Python {

/// An object of vorn.Explanation, of the entry that a key, name or label means. Throws
/// Inspect::QuestionError.
py::object explained(const std::shared_ptr<Attachment>& attachment, Inspect::Table table,
                     std::uint16_t unit, const std::string& key);

}  // namespace Python
