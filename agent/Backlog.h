// How old the oldest change is that the hardware side has not acknowledged, by table.
//
// Event thread only. Changes whose handle is queued know when they were committed. Those without
// one (of a process before, of a removal of everything, of a resource that moved) are timed by
// marks: the last published version at some time, until it is acknowledged; their age is known to
// the time between two looks.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

#include "agent/Tables.h"

namespace Agent {

struct Unacknowledged {
    std::uint64_t count = 0;
    std::optional<std::uint64_t> oldestVersion;
    std::optional<double> oldest_s;
};

class Backlog {
public:
    /// Sets marks; to be called every now and then while something is not acknowledged.
    void look(const Tables& tables);
    /// What it says of changes without a handle is as of the last look.
    Unacknowledged of(const Tables& tables, Asic::SwTableId table) const;

private:
    struct Mark {
        Asic::LogVersion version;
        std::chrono::nanoseconds since{0};
    };

    std::map<Asic::SwTableId, Mark> marks_;
};

}  // namespace Agent
