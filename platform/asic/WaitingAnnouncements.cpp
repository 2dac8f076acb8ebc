#include "platform/asic/WaitingAnnouncements.h"

#include <algorithm>
#include <utility>

namespace Asic {

void WaitingAnnouncements::add(SwTableId tableId, LogVersion previous, LogVersion version,
                               const Brumo::Ptr<const NeededEntry>& needed) {
    ++count_;
    // Whatever the later change needs of other tables stands before the run: it is the last one.
    if (!runs_.empty() && continues(runs_.back(), tableId, version)) {
        extend(runs_.back(), version, needed);
        return;
    }
    runs_.push_back({tableId, previous, version, version, needed});
    if (runs_.size() > kMostRuns)
        collapse();
}

void WaitingAnnouncements::addLatest(SwTableId tableId, LogVersion version) {
    const auto same = std::ranges::find_if(
        runs_, [&](const Run& run) { return run.isLatest && run.tableId == tableId; });
    if (same != runs_.end()) {
        // Earlier than it has to come out, which does no harm: nothing is programmed for it.
        same->first = same->last = version;
        return;
    }
    ++count_;
    runs_.push_back({tableId, {}, version, version, nullptr, true});
}

void WaitingAnnouncements::extend(Run& run, LogVersion last,
                                  const Brumo::Ptr<const NeededEntry>& needed) {
    run.last = last;
    if (needed == nullptr || needed->empty())
        return;
    const auto both = Brumo::make<NeededEntry>();
    if (run.needed != nullptr)
        both->add(*run.needed);
    // What comes out of the run itself is in order anyway; its first would wait for itself.
    for (const TableVersion& version : *needed)
        both->add(needFrom(run, version));
    run.needed = both;
}

/// What is left of a need for what is to come out before the run.
TableVersion WaitingAnnouncements::needFrom(const Run& run, TableVersion needed) {
    if (needed.tableId == run.tableId && run.first <= needed.version)
        needed.version = run.previous;
    return needed;
}

/// Makes one run of the runs of a table, where the first of them stood.
void WaitingAnnouncements::collapse() {
    std::deque<Run> collapsed;
    for (Run& run : runs_) {
        const auto before = std::ranges::find_if(collapsed, [&](const Run& candidate) {
            return continues(candidate, run.tableId, run.first);
        });
        if (before == collapsed.end()) {
            collapsed.push_back(std::move(run));
        } else {
            extend(*before, run.last, run.needed);
        }
    }
    runs_ = std::move(collapsed);
    needOnlyWhatComesBefore();
}

/// What is needed and comes out later by now would be waited for by what it waits for itself.
void WaitingAnnouncements::needOnlyWhatComesBefore() {
    for (auto run = runs_.begin(); run != runs_.end(); ++run) {
        if (run->needed == nullptr)
            continue;
        const auto needed = Brumo::make<NeededEntry>();
        for (TableVersion version : *run->needed) {
            std::for_each(run, runs_.end(),
                          [&](const Run& later) { version = needFrom(later, version); });
            needed->add(version);
        }
        run->needed = needed;
    }
}

}  // namespace Asic
