#include "platform/asic/GroupResolver.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/asic/Recorder.h"
#include "platform/brumo/Assert.h"

namespace Asic {

namespace {

const Brumo::TraceSource resolverTrace("GroupResolver", "GroupResolver");

}  // namespace

/// Takes the changes that wait behind this one apart, to end one by one: left to themselves, each
/// would end within the end of the one before.
void ResolverEntry::moveFollowingTo(std::vector<Brumo::Ptr<ResolverEntry>>& changes) {
    Brumo::Ptr<ResolverEntry> next = std::exchange(nextOfKey_, nullptr);
    while (next != nullptr) {
        Brumo::Ptr<ResolverEntry> afterIt = std::exchange(next->nextOfKey_, nullptr);
        changes.push_back(std::move(next));
        next = std::move(afterIt);
    }
}

void GroupResolver::resolverQueueEnq(const Entry& entry) {
    ++queued_;
    Lane& lane = lanes_[entry->orderingTable()];
    if (lane.barrier != nullptr) {
        lane.held.push_back(entry);
    } else {
        admit(lane, entry);
    }
}

void GroupResolver::admit(Lane& lane, const Entry& entry) {
    if (entry->isTableDeleted()) {
        lane.barrier = entry;
        if (lane.unfinished == 0)
            readyIs(entry);
        return;
    }
    ++lane.unfinished;
    const auto [last, first] = lane.lastOfKey.try_emplace(entry->orderingKey(), entry.get());
    if (first) {
        readyIs(entry);
        return;
    }
    last->second->nextOfKey_ = entry;
    last->second = entry.get();
}

void GroupResolver::readyIs(const Entry& entry) {
    ready_.push_back(entry);
    schedule();
}

void GroupResolver::schedule() {
    if (scheduled_ || suspended_)
        return;
    scheduled_ = true;
    loop_.post([self = Brumo::Ptr<GroupResolver>(this)] { self->pass(); });
}

void GroupResolver::pass() {
    scheduled_ = false;
    if (recorder() != nullptr) [[unlikely]]
        recorder()->turnBegins();
    maybeUpdateSuspend();
    std::size_t budget = budget_;
    if (probe_)
        probeFullLogs(budget);
    while (budget > 0 && !suspended_ && !ready_.empty()) {
        if (hasRoom_ && !hasRoom_())
            return;  // updateGenId() schedules the next pass
        --budget;
        const Entry entry = std::move(ready_.front());
        ready_.pop_front();
        if (!attempt(entry))
            park(entry);
    }
    if (!ready_.empty() || probe_)
        schedule();
}

bool GroupResolver::attempt(const Entry& entry) {
    const OrderedSwTable* table = entry->orderingTable();
    entry->blockerIs({});
    if (!entry->isResolved())
        return false;
    entry->commitEntry(entry);
    finish(table, entry);
    return true;
}

/// One table's log has room for all that wait for it or for none: ask them in turn until one finds
/// none. So a log that stays full costs one question a table.
void GroupResolver::probeFullLogs(std::size_t& budget) {
    probe_ = false;
    std::vector<const OrderedSwTable*> tables;
    for (const auto& [table, entries] : waitingForLog_)
        tables.push_back(table);
    // Not by where tables lie in memory: the same changes are committed in the same order always.
    std::ranges::sort(tables, {}, [](const OrderedSwTable* table) {
        return std::pair(table->tableId(), table->unitId());
    });
    for (const OrderedSwTable* table : tables) {
        while (!suspended_) {
            const auto waiting = waitingForLog_.find(table);  // a commit may have ended the table
            if (waiting == waitingForLog_.end())
                break;
            if (budget == 0 || (hasRoom_ && !hasRoom_())) {
                probe_ = budget == 0;
                return;
            }
            --budget;
            const Entry entry = std::move(waiting->second.front());
            waiting->second.pop_front();
            if (waiting->second.empty())
                waitingForLog_.erase(waiting);
            if (attempt(entry))
                continue;
            if (entry->blocker().cause != Blocker::Cause::logFull) {
                park(entry);
                continue;
            }
            waitingForLog_[table].push_front(entry);
            break;
        }
    }
    probe_ = suspended_ && !waitingForLog_.empty();  // the rest is asked when the pause ends
}

void GroupResolver::park(const Entry& entry) {
    const Blocker& blocker = entry->blocker();
    if (blocker.cause == Blocker::Cause::logFull) {
        waitingForLog_[entry->orderingTable()].push_back(entry);
        return;
    }
    Brumo::require(blocker.entity != nullptr, "blocker.entity != nullptr",
                   "a change that waits says for what");
    WaitList& list = waiting_[blocker.entity.get()];
    if (list.entity == nullptr) {
        list.entity = blocker.entity;
        const Kiv::Entity* entity = blocker.entity.get();
        list.subscription =
            entity->publisher().subscribe([this, entity](const Kiv::Change&) { wake(entity); });
    }
    list.entries.push_back(entry);
}

void GroupResolver::wake(const Kiv::Entity* entity) {
    const auto found = waiting_.find(entity);
    if (found == waiting_.end())
        return;
    const WaitList list = std::move(found->second);
    waiting_.erase(found);
    for (const Entry& entry : list.entries)
        readyIs(entry);
}

void GroupResolver::finish(const OrderedSwTable* table, const Entry& entry) {
    const auto found = lanes_.find(table);
    if (found == lanes_.end()) {
        std::vector<Entry> dropped;  // the table went while the change was committed
        entry->moveFollowingTo(dropped);
        return;
    }
    Lane& lane = found->second;
    --queued_;
    if (entry->isTableDeleted()) {
        lane.barrier = nullptr;
        while (lane.barrier == nullptr && !lane.held.empty()) {
            const Entry next = std::move(lane.held.front());
            lane.held.pop_front();
            admit(lane, next);
        }
    } else {
        --lane.unfinished;
        if (entry->nextOfKey_ != nullptr) {
            readyIs(std::exchange(entry->nextOfKey_, nullptr));
        } else {
            lane.lastOfKey.erase(entry->orderingKey());
        }
        if (lane.unfinished == 0 && lane.barrier != nullptr)
            readyIs(lane.barrier);
    }
}

void GroupResolver::updateGenId() {
    ++genId_;
    if (!waitingForLog_.empty())
        probe_ = true;
    if (probe_ || !ready_.empty())
        schedule();
}

void GroupResolver::maybeUpdateSuspend() {
    if (suspendRequested_ == suspended_)
        return;
    suspended_ = suspendRequested_;
    resolverTrace(2, " suspended: {}", suspended_);
    const bool old = !suspended_;
    publisher().publish(kSuspended, &old);
    if (!suspended_ && (!ready_.empty() || probe_))
        schedule();
}

void GroupResolver::suspendRequestedIs(bool requested) {
    suspendRequested_ = requested;
}

/// What is dropped may hold the last reference on another table, which then comes here too: it is
/// released when all containers are whole again.
void GroupResolver::resolverQueueDel(const OrderedSwTable* table) {
    const auto found = lanes_.find(table);
    if (found == lanes_.end())
        return;
    std::vector<WaitList> ended;
    std::vector<Entry> dropped;
    const Lane lane = std::move(found->second);
    lanes_.erase(found);
    queued_ -= lane.unfinished + lane.held.size() + (lane.barrier != nullptr ? 1 : 0);
    const auto takeFrom = [&](auto& entries) {
        const auto first = std::stable_partition(
            entries.begin(), entries.end(),
            [table](const Entry& entry) { return entry->orderingTable() != table; });
        dropped.insert(dropped.end(), std::make_move_iterator(first),
                       std::make_move_iterator(entries.end()));
        entries.erase(first, entries.end());
    };
    takeFrom(ready_);
    if (const auto full = waitingForLog_.find(table); full != waitingForLog_.end()) {
        takeFrom(full->second);
        waitingForLog_.erase(full);
    }
    for (auto list = waiting_.begin(); list != waiting_.end();) {
        takeFrom(list->second.entries);
        if (list->second.entries.empty()) {
            ended.push_back(std::move(list->second));
            list = waiting_.erase(list);
        } else {
            ++list;
        }
    }
    for (std::size_t i = 0, heads = dropped.size(); i < heads; ++i) {
        const Entry head = dropped[i];  // the vector grows
        head->moveFollowingTo(dropped);
    }
}

void GroupResolver::visitWithFollowing(const Entry& first, Hold hold,
                                       const std::function<void(const QueuedChange&)>& visit) {
    visit({first.get(), hold, nullptr});
    const ResolverEntry* before = first.get();
    for (; before->nextOfKey_ != nullptr; before = before->nextOfKey_.get())
        visit({before->nextOfKey_.get(), Hold::earlierChange, before});
}

void GroupResolver::forEachFirst(const std::function<void(const ResolverEntry&)>& visit) const {
    if (!ready_.empty())
        visit(*ready_.front());
    for (const auto& [entity, list] : waiting_)
        visit(*list.entries.front());
    for (const auto& [table, entries] : waitingForLog_)
        visit(*entries.front());
    for (const auto& [table, lane] : lanes_) {
        if (lane.barrier != nullptr)
            visit(*lane.barrier);
    }
}

void GroupResolver::forEachQueued(const std::function<void(const QueuedChange&)>& visit) const {
    for (const Entry& entry : ready_)
        visitWithFollowing(entry, Hold::turn, visit);
    for (const auto& [entity, list] : waiting_) {
        for (const Entry& entry : list.entries)
            visitWithFollowing(entry, Hold::blocker, visit);
    }
    for (const auto& [table, entries] : waitingForLog_) {
        for (const Entry& entry : entries)
            visitWithFollowing(entry, Hold::blocker, visit);
    }
    for (const auto& [table, lane] : lanes_) {
        if (lane.barrier != nullptr && lane.unfinished != 0)
            visit({lane.barrier.get(), Hold::earlierChanges, nullptr});
        for (const Entry& entry : lane.held)
            visit({entry.get(), Hold::removeAll, lane.barrier.get()});
    }
}

}  // namespace Asic
