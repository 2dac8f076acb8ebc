// What became of the changes of a recording: one row a change.
#pragma once

#include <vector>

#include "tools/python/Recordings.h"

namespace Python {

struct RecordedChange {
    using Time = std::optional<std::chrono::nanoseconds>;

    RecordedRun run;
    std::uint64_t number = 0;
    std::uint32_t table = 0;
    std::optional<std::uint16_t> unit;  ///< nothing of a table's own change
    std::string key;                    ///< empty where all were removed
    std::string_view operation;
    std::uint8_t state = 0;  ///< the last; Asic::EntryState
    std::uint64_t version = 0;
    Time staged;
    Time committed;
    Time answered;
    bool isAcknowledged = false;
};

/// All of them, in the order in which they were told of. Any thread; needs no lock.
std::vector<RecordedChange> recordedChanges(const Recording::Contents& contents);

/// Needs the interpreter's lock.
void bindRecordedChange(py::module_& module);

}  // namespace Python
