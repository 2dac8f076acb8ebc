// Software tables, change logs and hardware content compared, and who owns which index.
//
// One thread. Nothing is changed; mend() asks the processes to.
//
// What always holds:
//  1. What is above the acknowledged version is on its way, and no difference.
//  2. Beside a process that runs, a difference is one that several looks have seen alike.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "inspect/Hardware.h"
#include "inspect/Processes.h"

namespace Inspect {

/// Who mends a difference.
enum class Mend : std::uint8_t {
    none,    ///< nobody here
    resync,  ///< the hardware side takes everything from the values once
    reload,  ///< the agent writes what the policy wants and the table lacks
    sweep,   ///< the agent gives back indexes that nobody uses
};
std::string_view mendText(Mend mend);

struct Difference {
    enum class Kind : std::uint8_t {
        rottenValue,
        damagedFile,  ///< anything else that cannot be read
        lostValue,    ///< a record says written, no value is there
        missingInHardware,
        olderInHardware,
        otherInHardware,
        strayInHardware,  ///< the table has no such entry
        missingRecord,    ///< neither acknowledged nor to be found in the log
        acknowledgedBeyond,
        indexWithoutUser,
        indexTwice,
        requestTwice,
        strayIndex,  ///< the pool does not have it for the entry's request
    };
    Kind kind = Kind::damagedFile;
    std::optional<EntryId> id;
    std::string subject;  ///< for people: the entry, or index or file
    std::string detail;

    bool operator==(const Difference&) const = default;
};
/// "missing in hardware".
std::string_view nameOf(Difference::Kind kind);
/// The likely cause, and what would mend it, for people.
std::string_view causeOf(Difference::Kind kind);
Mend mendOf(Difference::Kind kind);
std::string_view adviceOf(Difference::Kind kind);

struct CheckOptions {
    std::optional<Table> table;
    std::optional<std::uint16_t> unit;
    unsigned looks = 3;                     ///< at a difference, beside a process that runs
    std::chrono::milliseconds settle{300};  ///< between two looks
};

struct CheckResult {
    std::vector<Difference> differences;
    std::uint64_t entries = 0;  ///< compared
    std::uint64_t records = 0;
    std::uint64_t indexes = 0;
    std::uint64_t onTheirWay = 0;  ///< changes not acknowledged yet
    bool hardwareCompared = false;
    unsigned looks = 0;
    std::vector<std::string> notes;  ///< what could not be compared, and why
};

/// Called with what is being looked at, how much of it is done, and how much there is.
using Progress = std::function<void(std::string_view, std::uint64_t, std::uint64_t)>;

CheckResult check(System& system, const CheckOptions& options, const Progress& progress);
Json toJson(const CheckResult& result);

/// What would mend the differences, in the order in which it is to be done.
std::set<Mend> mendsOf(const CheckResult& result);
/// Throws NotRunningError, RefusedError.
Json mend(System& system, Mend mend);

}  // namespace Inspect
