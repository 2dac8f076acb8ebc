// Announcements that found no room in the announcement log, until there is some.
//
// Event thread only. The hardware side may be away for any time, while changes that cannot wait go
// on: entries are updated because a resource has moved, tables are cleared. What is kept of them
// here does not grow with their number.
//
// What always holds:
//  1. What comes out of each table are the versions that went in, each once and in order.
//  2. Nothing comes out before what it needs, if that went in before it.
//  3. There are at most kMostRuns runs. When there would be more, those of a table become one;
//     then a change may come out earlier than a change of another table that it needs, which is not
//     part of its needs any more.
#pragma once

#include <cstdint>
#include <deque>

#include "platform/asic/NeededEntry.h"

namespace Asic {

class WaitingAnnouncements {
public:
    static constexpr std::size_t kMostRuns = 1024;

    bool empty() const { return runs_.empty(); }
    /// Announcements that wait.
    std::uint64_t count() const { return count_; }
    std::size_t runs() const { return runs_.size(); }

    /// `previous` is the version of the table that was announced before this one, which is not the
    /// one below it where changes between were given up. `needed` may be null.
    void add(SwTableId tableId, LogVersion previous, LogVersion version,
             const Brumo::Ptr<const NeededEntry>& needed);
    /// Of a table without a change log: only its last version counts, and it needs nothing.
    void addLatest(SwTableId tableId, LogVersion version);

    /// Gives out (table, version, needed) until `append` returns false; whether anything went out.
    template <class Append>
    bool giveOut(const Append& append) {
        bool gaveOut = false;
        while (!runs_.empty()) {
            Run& run = runs_.front();
            if (!append(run.tableId, run.first, run.needed))
                break;
            gaveOut = true;
            --count_;
            if (run.first == run.last) {
                runs_.pop_front();
            } else {
                run.previous = run.first;
                ++run.first.value;
            }
        }
        return gaveOut;
    }

private:
    /// Consecutive versions of a table.
    struct Run {
        SwTableId tableId;
        LogVersion previous;  ///< what comes out of the table before the first
        LogVersion first;
        LogVersion last;
        Brumo::Ptr<const NeededEntry> needed;  ///< of all of them together; may be null
        bool isLatest = false;
    };

    static bool continues(const Run& run, SwTableId tableId, LogVersion version) {
        return run.tableId == tableId && !run.isLatest && run.last.value + 1 == version.value;
    }
    static void extend(Run& run, LogVersion last, const Brumo::Ptr<const NeededEntry>& needed);
    static TableVersion needFrom(const Run& run, TableVersion needed);
    void collapse();
    void needOnlyWhatComesBefore();

    std::deque<Run> runs_;
    std::uint64_t count_ = 0;
};

}  // namespace Asic
