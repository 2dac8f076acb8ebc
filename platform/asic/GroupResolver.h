// The group's dependency resolver: queues the changes of all tables of a group, asks each whether
// what it waits for has come, and tells it to commit.
//
// Event thread only. Changes are committed from the event loop, a budget of them each turn; commits
// may enqueue further changes and may destroy tables.
//
// What always holds:
//  1. Changes of one key of one table commit in the order they were enqueued.
//  2. A remove-all commits after every earlier and before every later change of its table.
//  3. Nothing else orders changes: what another key waits for holds nothing up.
//  4. A change that waits is asked again only when what it named as its blocker has moved, so a
//     change costs the same however many others wait.
//  5. Each change is committed once, right after it has answered that it is resolved.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <unordered_map>
#include <vector>

#include "platform/asic/SwTable.h"
#include "platform/brumo/Recycled.h"
#include "platform/brumo/Trace.h"
#include "platform/kiv/EventLoop.h"

namespace Asic {

/// What a change does.
enum class EntryFlags : std::uint8_t { write = 0, entryDelete = 1, tableDelete = 2 };

/// Why a change could not be committed when it was last asked.
struct Blocker {
    enum class Cause : std::uint8_t { none, logFull, dependency, resource };

    Cause cause = Cause::none;
    Brumo::Ptr<const Kiv::Entity> entity;  ///< whose next publication may end the wait
};

/// One queued change.
class ResolverEntry : public Brumo::RefCounted {
public:
    ResolverEntry(Brumo::Ptr<const DependencyEntryHandle> dependency, EntryFlags flags)
        : dependency_(std::move(dependency)), flags_(flags) {}

    /// Asks whether the change may be committed. When not, blocker() says why.
    virtual bool isResolved() = 0;
    virtual void commitEntry(const Brumo::Ptr<ResolverEntry>& resolverEntry) = 0;
    /// The table of the change; lives until it has told the resolver that it goes.
    virtual const OrderedSwTable* orderingTable() const = 0;
    /// The bytes of the key; changes with equal ones are committed in order.
    virtual std::uint64_t orderingKey() const = 0;

    const Brumo::Ptr<const DependencyEntryHandle>& dependantEntryHandle() const {
        return dependency_;
    }
    EntryFlags flags() const { return flags_; }
    bool isEntryDeleted() const { return (static_cast<unsigned>(flags_) & 1U) != 0; }
    bool isTableDeleted() const { return (static_cast<unsigned>(flags_) & 2U) != 0; }

    /// The handle of the change; for inspection, null where there is none.
    virtual const OrderedSwTable::EntryHandle* changeHandle() const { return nullptr; }

    const Blocker& blocker() const { return blocker_; }
    void blockerIs(Blocker blocker) { blocker_ = std::move(blocker); }

private:
    friend class GroupResolver;

    void moveFollowingTo(std::vector<Brumo::Ptr<ResolverEntry>>& changes);

    Brumo::Ptr<const DependencyEntryHandle> dependency_;
    EntryFlags flags_;
    Blocker blocker_;
    Brumo::Ptr<ResolverEntry> nextOfKey_;  ///< the key's next change, while this one is not done
};

/// What holds a queued change up.
enum class Hold : std::uint8_t {
    turn,            ///< nothing of its own: it is asked at the resolver's next turn
    blocker,         ///< what it named when it was asked: ResolverEntry::blocker()
    earlierChange,   ///< the change of its key before it
    earlierChanges,  ///< of a remove-all: changes of its table before it
    removeAll,       ///< a remove-all of its table before it
};

/// A queued change as inspection sees it.
struct QueuedChange {
    const ResolverEntry* entry;
    Hold hold = Hold::turn;
    const ResolverEntry* behind = nullptr;  ///< the one before it: earlierChange, removeAll
};

class GroupResolver final : public Kiv::Entity {
public:
    static constexpr Kiv::AttributeId kSuspended = 1;  ///< old value: bool
    /// Commits a turn unless told otherwise: about a tenth of a millisecond of work.
    static constexpr std::size_t kDefaultBudget = 256;

    /// `loop` outlives the resolver.
    explicit GroupResolver(Kiv::EventLoop& loop) : loop_(loop) {}

    void resolverQueueEnq(const Brumo::Ptr<ResolverEntry>& entry);
    /// Something that changes wait for may have moved: room in a log, above all.
    void updateGenId();
    /// Whether updateGenId() would do anything.
    bool waitsForMore() const { return probe_ || !waitingForLog_.empty() || !ready_.empty(); }
    std::uint64_t genId() const { return genId_; }
    /// Takes up or ends a pause that was asked for. Every change calls it when it is staged and
    /// when it is committed, so that a pause holds between any two commits.
    void maybeUpdateSuspend();

    /// Asks for a pause or for its end; the next maybeUpdateSuspend() takes it up. The resolver
    /// commits nothing while suspended().
    void suspendRequestedIs(bool requested);
    bool suspended() const { return suspended_; }

    /// Drops every queued change of a table that goes.
    void resolverQueueDel(const OrderedSwTable* table);

    /// Changes enqueued and not yet committed.
    std::size_t queued() const { return queued_; }
    /// Calls `visit` for each queued change, those of one key in their order. It must not change
    /// the queue.
    void forEachQueued(const std::function<void(const QueuedChange&)>& visit) const;
    /// The same for the first of each queue: an older change is in none but behind one of them, or
    /// where it is asked next. Costs by the number of things that are waited for.
    void forEachFirst(const std::function<void(const ResolverEntry&)>& visit) const;
    /// As Kiv::EventLoop::turnTime().
    std::chrono::nanoseconds turnTime() const { return loop_.turnTime(); }

    /// Asked before each commit; while it says no, nothing is committed. updateGenId() asks anew.
    void hasRoomIs(std::function<bool()> hasRoom) { hasRoom_ = std::move(hasRoom); }
    void budgetIs(std::size_t commitsATurn) { budget_ = commitsATurn; }

private:
    using Entry = Brumo::Ptr<ResolverEntry>;
    using LastOfKey = std::unordered_map<
        std::uint64_t, ResolverEntry*, std::hash<std::uint64_t>, std::equal_to<>,
        Brumo::RecyclingAllocator<std::pair<const std::uint64_t, ResolverEntry*>>>;

    /// Changes of one table. Behind a remove-all that is not committed yet, everything is held.
    struct Lane {
        LastOfKey lastOfKey;
        std::size_t unfinished = 0;  ///< admitted changes that are not committed, but the barrier
        Entry barrier;               ///< the remove-all that all later changes wait for
        std::deque<Entry> held;
    };
    struct WaitList {
        Brumo::Ptr<const Kiv::Entity> entity;
        Kiv::Subscription subscription;
        std::vector<Entry> entries;
    };

    static void visitWithFollowing(const Entry& first, Hold hold,
                                   const std::function<void(const QueuedChange&)>& visit);
    void admit(Lane& lane, const Entry& entry);
    void readyIs(const Entry& entry);
    void schedule();
    void pass();
    bool attempt(const Entry& entry);
    void park(const Entry& entry);
    void wake(const Kiv::Entity* entity);
    void probeFullLogs(std::size_t& budget);
    void finish(const OrderedSwTable* table, const Entry& entry);

    Kiv::EventLoop& loop_;
    std::function<bool()> hasRoom_;
    std::size_t budget_ = kDefaultBudget;
    std::uint64_t genId_ = 0;
    bool scheduled_ = false;
    bool suspended_ = false;
    bool suspendRequested_ = false;
    bool probe_ = false;
    std::size_t queued_ = 0;
    std::deque<Entry> ready_;
    std::map<const OrderedSwTable*, Lane> lanes_;
    std::unordered_map<const Kiv::Entity*, WaitList> waiting_;
    std::map<const OrderedSwTable*, std::deque<Entry>> waitingForLog_;
};

}  // namespace Asic
