#include "agent/Backlog.h"

#include <algorithm>

namespace Agent {

/// The oldest stays; changes of the marks that go count as younger than they are, never as older.
void Backlog::thinOut(Marks& marks) {
    Marks kept;
    for (std::size_t i = 0; i < marks.size(); i += 2)
        kept.push_back(marks[i]);
    marks = std::move(kept);
}

void Backlog::look(const Tables& tables) {
    const auto now = tables.group().groupResolver()->turnTime();
    for (const Asic::SwTableId table : kTableIds) {
        Marks& marks = marks_[table];
        while (!marks.empty() && marks.front().version <= tables.group().acknowledgedVersion(table))
            marks.pop_front();
        const Asic::LogVersion published = tables.log(table).published;
        if (published <= tables.group().acknowledgedVersion(table) ||
            (!marks.empty() && marks.back().version == published))
            continue;
        marks.push_back({published, now});
        if (marks.size() > kMostMarks)
            thinOut(marks);
    }
}

Unacknowledged Backlog::of(const Tables& tables, Asic::SwTableId table) const {
    const Asic::LogVersion published = tables.log(table).published;
    const Asic::LogVersion acknowledged = tables.group().acknowledgedVersion(table);
    if (acknowledged >= published)
        return {};
    Unacknowledged figures{published.value - acknowledged.value, acknowledged.value + 1, {}};
    const auto now = tables.group().groupResolver()->turnTime();
    auto oldest = now;
    tables.forEachTable([&](const Asic::OrderedSwTable& unit) {
        if (unit.tableId() != table)
            return;
        unit.forEachHandleInLog([&](const Asic::OrderedSwTable::EntryHandle& handle) {
            oldest = std::min(oldest, handle.committedAt());
            return false;
        });
    });
    if (const auto marks = marks_.find(table); marks != marks_.end()) {
        const auto mark = std::find_if(marks->second.begin(), marks->second.end(),
                                       [&](const Mark& one) { return acknowledged < one.version; });
        if (mark != marks->second.end())
            oldest = std::min(oldest, mark->time);
    }
    figures.oldest_s = std::chrono::duration<double>(now - oldest).count();
    return figures;
}

}  // namespace Agent
