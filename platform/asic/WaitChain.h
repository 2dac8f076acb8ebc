// What a queued change waits for, and what that waits for in turn, down to the root.
//
// Event thread only. A picture of the resolver's queue: of no use any more once the turn ends in
// which it was made.
//
// What always holds:
//  1. Every link but the last waits for the change of the next one.
//  2. A chain that comes back to one of its links ends there, and says so.
#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/asic/GroupResolver.h"

namespace Asic {

/// Why a chain goes no further.
enum class ChainEnd : std::uint8_t {
    root,   ///< the last link waits for no other change
    cycle,  ///< the last link waits for a change that is part of the chain
    lost,   ///< the last link waits for a change that will not end: not queued, and not committed
};

struct WaitChain {
    std::vector<QueuedChange> links;
    ChainEnd end = ChainEnd::root;
};

class QueueView {
public:
    explicit QueueView(const GroupResolver& resolver);

    /// All queued changes, those of one key in their order.
    const std::vector<QueuedChange>& changes() const { return changes_; }
    /// Nothing when the handle's change is not queued.
    std::optional<QueuedChange> find(const DependencyEntryHandle* handle) const;
    /// The dependency that a change waits for, or will when it is asked; null when it waits for
    /// none.
    static const DependencyEntryHandle* dependencyOf(const QueuedChange& change);
    WaitChain chainFrom(const QueuedChange& change) const;

private:
    /// Nothing when it waits for no change that is queued.
    std::optional<QueuedChange> next(const QueuedChange& change) const;

    std::vector<QueuedChange> changes_;
    std::unordered_map<const DependencyEntryHandle*, std::size_t> byHandle_;
    std::unordered_map<const ResolverEntry*, std::size_t> byEntry_;
    /// The oldest change of each table, for its remove-all to wait for.
    std::unordered_map<const OrderedSwTable*, std::size_t> oldestOfTable_;
};

}  // namespace Asic
