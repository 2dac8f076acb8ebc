#include "agent/UnitLoader.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "agent/PolicyDifference.h"
#include "agent/StableHash.h"

namespace Agent {

namespace {

template <class Entry>
std::string nameOf(const std::vector<Named<Entry>>& entries, std::uint64_t key) {
    for (const Named<Entry>& named : entries) {
        if (packed(named.entry.key) == key)
            return named.name;
    }
    return fmt::format("{:016x}", key);
}

}  // namespace

void PolicyLoader::UnitLoader::load(const Policy& policy, const Figures& figures) {
    dropWhatHasNotBegun();
    policy_ = policy;
    figures_ = figures;
    loadActions();
    loadMatches<V4Types>(*tables_.ipv4, policy_->ipv4, failedV4_);
    loadMatches<V6Types>(*tables_.ipv6, policy_->ipv6, failedV6_);
    figures_->written += deferred_.size();
    figures_->inProgress += deferred_.size();
    nextPhase();
}

/// It is found again, unless the next policy wants it otherwise.
void PolicyLoader::UnitLoader::dropWhatHasNotBegun() {
    if (figures_ != nullptr) {
        figures_->written -= deferred_.size();
        figures_->removed -= staleActions_.size();
        figures_->inProgress -= deferred_.size() + staleActions_.size();
    }
    deferred_.clear();
    staleActions_.clear();
}

void PolicyLoader::UnitLoader::loadActions() {
    auto difference = differenceOf(*tables_.actions, policy_->actions, tables_.unit,
                                   [](std::uint64_t) { return false; });
    figures_->unchanged += difference.unchanged;
    for (const auto& write : difference.writes)
        writeAction(write.entry);
    staleActions_ = std::move(difference.stale);
    figures_->removed += staleActions_.size();
    figures_->inProgress += staleActions_.size();
}

void PolicyLoader::UnitLoader::writeAction(const ActionEntry& entry) {
    ++figures_->written;
    ++figures_->inProgress;
    const std::uint64_t key = packed(entry.key);
    const auto handler = [weak = weak_from_this(), figures = figures_, key](const Handle& handle) {
        const auto self = weak.lock();
        if (self == nullptr)
            return;
        const auto found = self->actionWrites_.find(key);
        if (found != self->actionWrites_.end() && found->second == handle)
            self->actionWrites_.erase(found);
        if (book(handle, *figures))
            self->noteFailure<ActionTypes>(*figures, "action", self->policy_->actions, key);
        self->changed();
    };
    actionWrites_[key] = tables_.actions->write(entry.key, entry, nullptr, handler);
}

template <class Types>
void PolicyLoader::UnitLoader::loadMatches(VornPolicyCpu::TableOperations<Types>& table,
                                           const std::vector<Named<typename Types::Entry>>& wanted,
                                           FailedKeys& failed) {
    using Entry = typename Types::Entry;
    // A write that failed with its action is still staged, but will never be committed.
    const auto difference = differenceOf(table, wanted, tables_.unit,
                                         [&](std::uint64_t key) { return failed.contains(key); });
    figures_->unchanged += difference.unchanged;
    // What is removed makes room only when it is acknowledged.
    const std::size_t taken = difference.held + matchesInProgress_;
    struct Write {
        const Entry* entry;
        std::optional<std::uint64_t> actionBefore;
    };
    std::vector<Write> writes;
    for (const auto& write : difference.writes) {
        writes.push_back({&write.wanted->entry, write.before
                                                    ? std::optional(packed(write.before->actionKey))
                                                    : std::nullopt});
    }
    // The highest priority first: no entry comes into force before those that go before it.
    std::stable_sort(writes.begin(), writes.end(), [](const Write& a, const Write& b) {
        return a.entry->priority > b.entry->priority;
    });

    std::size_t room = taken < kMaxEntries ? kMaxEntries - taken : 0;
    for (const Write& write : writes) {
        const auto make = [this, &table, write, &failed] {
            writeMatch(table, *write.entry, write.actionBefore, failed);
        };
        if (write.actionBefore || room > 0) {
            room -= write.actionBefore ? 0 : 1;
            make();
        } else {
            deferred_.emplace_back(make);
        }
    }
    for (const typename Types::Key& key : difference.stale)
        removeMatch(table, key, failed);
}

template <class Types>
void PolicyLoader::UnitLoader::writeMatch(VornPolicyCpu::TableOperations<Types>& table,
                                          const typename Types::Entry& entry,
                                          std::optional<std::uint64_t> actionBefore,
                                          FailedKeys& failed) {
    ++figures_->written;
    const auto action = actionWrites_.find(packed(entry.actionKey));
    table.write(entry.key, entry, action == actionWrites_.end() ? nullptr : action->second,
                matchHandler(packed(entry.key), actionBefore, failed));
}

template <class Types>
void PolicyLoader::UnitLoader::removeMatch(VornPolicyCpu::TableOperations<Types>& table,
                                           const typename Types::Key& key, FailedKeys& failed) {
    ++figures_->removed;
    table.remove(key, nullptr, matchHandler(packed(key), std::nullopt, failed));
}

Asic::OrderedSwTable::ResponseHandler PolicyLoader::UnitLoader::matchHandler(
    std::uint64_t key, std::optional<std::uint64_t> actionBefore, FailedKeys& failed) {
    ++figures_->inProgress;
    ++matchesInProgress_;
    return [weak = weak_from_this(), figures = figures_, key, actionBefore,
            &failed](const Handle& handle) {
        const auto self = weak.lock();  // keeps `failed`, a member of it
        if (self == nullptr)
            return;
        --self->matchesInProgress_;
        const auto earlier = failed.find(key);
        if (book(handle, *figures)) {
            failed[key].number = figures->number;
            if (actionBefore)
                failed[key].stillNamed.insert(*actionBefore);
            if (&failed == &self->failedV4_)
                self->noteFailure<V4Types>(*figures, "ipv4 entry", self->policy_->ipv4, key);
            else
                self->noteFailure<V6Types>(*figures, "ipv6 entry", self->policy_->ipv6, key);
        } else if (earlier != failed.end() && earlier->second.number < figures->number) {
            failed.erase(earlier);
        }
        self->nextPhase();
        self->changed();
    };
}

void PolicyLoader::UnitLoader::nextPhase() {
    if (matchesInProgress_ != 0)
        return;
    if (deferred_.empty()) {
        removeStaleActions();
        return;
    }
    const auto writes = std::move(deferred_);
    deferred_.clear();
    figures_->written -= writes.size();  // each counts itself
    figures_->inProgress -= writes.size();
    for (const auto& write : writes)
        write();
}

PolicyLoader::UnitLoader::ActionKeys PolicyLoader::UnitLoader::namedByFailures() const {
    ActionKeys named;
    for (const FailedKeys* failed : {&failedV4_, &failedV6_}) {
        for (const auto& [key, failure] : *failed)
            named.insert(failure.stillNamed.begin(), failure.stillNamed.end());
    }
    return named;
}

/// What fails in that load itself is not known before it.
void PolicyLoader::UnitLoader::addDifferenceTo(Json& json, const CompiledPolicy& policy) const {
    auto actions = differenceOf(*tables_.actions, policy.actions, tables_.unit,
                                [](std::uint64_t) { return false; });
    const ActionKeys stillNamed = namedByFailures();
    std::erase_if(actions.stale,
                  [&](const ActionTypes::Key& key) { return stillNamed.contains(packed(key)); });
    addDifference(json, actions, tables_.unit);
    const auto addMatches = [&](const auto& table, const auto& wanted, const FailedKeys& failed) {
        addDifference(json,
                      differenceOf(table, wanted, tables_.unit,
                                   [&](std::uint64_t key) { return failed.contains(key); }),
                      tables_.unit);
    };
    addMatches(*tables_.ipv4, policy.ipv4, failedV4_);
    addMatches(*tables_.ipv6, policy.ipv6, failedV6_);
}

void PolicyLoader::UnitLoader::removeStaleActions() {
    const std::vector<ActionTypes::Key> stale = std::move(staleActions_);
    staleActions_.clear();
    const ActionKeys stillNamed = namedByFailures();
    for (const ActionTypes::Key& key : stale) {
        if (!stillNamed.contains(packed(key))) {
            removeAction(key);
            continue;
        }
        --figures_->removed;
        --figures_->inProgress;
    }
}

void PolicyLoader::UnitLoader::removeAction(const ActionTypes::Key& key) {
    actionWrites_.erase(packed(key));
    tables_.actions->remove(key, nullptr,
                            [weak = weak_from_this(), figures = figures_](const Handle& handle) {
                                const auto self = weak.lock();
                                if (self == nullptr)
                                    return;
                                book(handle, *figures);
                                self->changed();
                            });
}

bool PolicyLoader::UnitLoader::book(const Handle& handle, LoadFigures& figures) {
    --figures.inProgress;
    if (handle->failed()) {
        ++figures.failed;
        return true;
    }
    ++figures.complete;
    return false;
}

/// The name is looked for once a load: a search for each of many failures would take seconds.
template <class Types>
void PolicyLoader::UnitLoader::noteFailure(LoadFigures& figures, std::string_view kind,
                                           const std::vector<Named<typename Types::Entry>>& entries,
                                           std::uint64_t key) const {
    if (figures.failures.size() < LoadFigures::kMostRemembered)
        figures.failures.push_back({Types::kTableId, tables_.unit, key});
    if (figures.firstFailure.empty())
        figures.firstFailure =
            fmt::format("{} {} of unit {}", kind, nameOf(entries, key), tables_.unit);
}

}  // namespace Agent
