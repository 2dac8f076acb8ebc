#include "agent/Backlog.h"

#include <algorithm>

namespace Agent {

void Backlog::look(const Tables& tables) {
    const auto now = tables.group().groupResolver()->turnTime();
    for (const Asic::SwTableId table : kTableIds) {
        const Asic::LogVersion published = tables.log(table).published;
        Mark& mark = marks_[table];
        if (tables.group().acknowledgedVersion(table) >= mark.version)
            mark = {published, now};
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
    const auto mark = marks_.find(table);
    if (mark != marks_.end() && acknowledged < mark->second.version)
        oldest = std::min(oldest, mark->second.since);
    figures.oldest_s = std::chrono::duration<double>(now - oldest).count();
    return figures;
}

}  // namespace Agent
