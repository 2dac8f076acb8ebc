// How old the oldest change is that the hardware side has not acknowledged, by table.
//
// Event thread only. Changes whose handle is queued know when they were committed. Those without
// one (of a process before, of a removal of everything, of a resource that moved) are timed by
// marks: what was published at each look, until it is acknowledged. Their age is short by up to the
// time between two looks, and counts from the start of this process at the earliest.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
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
    /// Marks what is published by now; to be called every now and then while something is not
    /// acknowledged.
    void look(const Tables& tables);
    Unacknowledged of(const Tables& tables, Asic::SwTableId table) const;

private:
    struct Mark {
        Asic::LogVersion version;
        std::chrono::nanoseconds time{0};
    };
    using Marks = std::deque<Mark>;
    /// Of each table; with more, every second one goes: ages of a long backlog are known less
    /// precisely.
    static constexpr std::size_t kMostMarks = 64;

    static void thinOut(Marks& marks);

    std::map<Asic::SwTableId, Marks> marks_;
};

}  // namespace Agent
