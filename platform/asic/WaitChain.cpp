#include "platform/asic/WaitChain.h"

#include <unordered_set>

namespace Asic {

namespace {

/// What waits for something comes before what only waits for its turn, of the same time.
bool isBefore(const QueuedChange& a, const QueuedChange& b) {
    const auto* const first = a.entry->changeHandle();
    const auto* const second = b.entry->changeHandle();
    if (first == nullptr || second == nullptr || first->stagedAt() == second->stagedAt())
        return a.hold == Hold::blocker && b.hold == Hold::turn;
    return first->stagedAt() < second->stagedAt();
}

}  // namespace

QueueView::QueueView(const GroupResolver& resolver) {
    changes_.reserve(resolver.queued());
    resolver.forEachQueued([&](const QueuedChange& change) {
        const std::size_t at = changes_.size();
        changes_.push_back(change);
        byEntry_.emplace(change.entry, at);
        const OrderedSwTable::EntryHandle* const handle = change.entry->changeHandle();
        if (handle != nullptr)
            byHandle_.emplace(handle, at);
        if (change.hold == Hold::earlierChanges || change.hold == Hold::removeAll)
            return;
        const auto [oldest, isFirst] = oldestOfTable_.emplace(change.entry->orderingTable(), at);
        if (!isFirst && isBefore(change, changes_[oldest->second]))
            oldest->second = at;
    });
}

std::optional<QueuedChange> QueueView::find(const DependencyEntryHandle* handle) const {
    const auto found = byHandle_.find(handle);
    return found == byHandle_.end() ? std::nullopt : std::optional(changes_[found->second]);
}

const DependencyEntryHandle* QueueView::dependencyOf(const QueuedChange& change) {
    // What was not asked yet will name it.
    const bool mayWait =
        change.hold == Hold::turn || (change.hold == Hold::blocker &&
                                      change.entry->blocker().cause == Blocker::Cause::dependency);
    const auto& dependency = change.entry->dependantEntryHandle();
    return mayWait && dependency != nullptr && dependency->entryState() == EntryState::created
               ? dependency.get()
               : nullptr;
}

std::optional<QueuedChange> QueueView::next(const QueuedChange& change) const {
    if (const DependencyEntryHandle* const dependency = dependencyOf(change))
        return find(dependency);
    if (change.behind != nullptr)
        return changes_[byEntry_.at(change.behind)];
    if (change.hold != Hold::earlierChanges)
        return std::nullopt;
    const auto oldest = oldestOfTable_.find(change.entry->orderingTable());
    return oldest == oldestOfTable_.end() ? std::nullopt : std::optional(changes_[oldest->second]);
}

WaitChain QueueView::chainFrom(const QueuedChange& change) const {
    WaitChain chain{{change}};
    std::unordered_set<const ResolverEntry*> seen{change.entry};
    while (const std::optional<QueuedChange> link = next(chain.links.back())) {
        if (!seen.insert(link->entry).second) {
            chain.end = ChainEnd::cycle;
            return chain;
        }
        chain.links.push_back(*link);
    }
    if (dependencyOf(chain.links.back()) != nullptr)
        chain.end = ChainEnd::lost;
    return chain;
}

}  // namespace Asic
