// Committed entries as rows, and the walk over them.
//
// Needs the interpreter's lock.
#pragma once

#include <memory>
#include <vector>

#include "inspect/Match.h"
#include "tools/python/Attachment.h"

namespace Python {

/// A committed entry; `isAcknowledged` as it was when the walk began.
struct EntryRow {
    Inspect::Entry entry;
    bool isAcknowledged = false;
};
struct ActionRow : EntryRow {};
struct MatchRow : EntryRow {};

/// Of the class of its table.
py::object entryToPython(EntryRow row);
/// The columns of the table's entries.
std::vector<std::string> entryColumns(Inspect::Table table);

/// Which entries of a table a script wants.
struct EntryQuestion {
    Inspect::Table table = Inspect::Table::action;
    std::optional<std::uint16_t> unit;
    py::object match;
    std::string action;
};

/// One committed entry a call: one unit of a table after the other.
class EntryIterator {
public:
    /// Throws Inspect::QuestionError.
    EntryIterator(std::shared_ptr<Attachment> attachment, const EntryQuestion& question);

    Inspect::Table table() const { return *filter_.table; }
    /// Throws py::stop_iteration after the last.
    py::object next();

private:
    std::optional<Inspect::Entry> nextWanted(const Inspect::State& state,
                                             const Inspect::Report& report);

    std::shared_ptr<Attachment> attachment_;
    Inspect::Filter filter_;
    std::uint64_t acknowledged_ = 0;
    std::vector<std::uint16_t> units_;  ///< that are still to come, the next one last
    Inspect::State::Walk<Inspect::Entry> walk_;
};

}  // namespace Python
