// The part of a load that concerns one unit.
//
// Event thread only. Owned by the PolicyLoader; response handlers refer to it weakly.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "agent/PolicyLoader.h"

namespace Agent {

class PolicyLoader::UnitLoader : public std::enable_shared_from_this<UnitLoader> {
public:
    using Figures = std::shared_ptr<LoadFigures>;
    using Policy = std::shared_ptr<const CompiledPolicy>;

    /// `changed` is called whenever the figures of a load have moved.
    UnitLoader(UnitTables tables, std::function<void()> changed)
        : tables_(std::move(tables)), changed_(std::move(changed)) {}

    void load(const Policy& policy, const Figures& figures);
    /// What a load of the policy would change now.
    void addDifferenceTo(nlohmann::ordered_json& json, const CompiledPolicy& policy) const;
    /// The loader goes: nothing is to be told any more.
    void detach() { changed_ = nullptr; }

private:
    using Handle = Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>;
    using ActionKeys = std::unordered_set<std::uint64_t>;
    /// A change of a match entry that failed: what was there before it is still there.
    struct Failure {
        std::uint64_t number = 0;  ///< of the load
        ActionKeys stillNamed;     ///< actions that what is still there may name
    };
    using FailedKeys = std::unordered_map<std::uint64_t, Failure>;

    void dropWhatHasNotBegun();
    void loadActions();
    void writeAction(const ActionEntry& entry);
    template <class Types>
    void loadMatches(VornPolicyCpu::TableOperations<Types>& table,
                     const std::vector<Named<typename Types::Entry>>& wanted, FailedKeys& failed);
    template <class Types>
    void writeMatch(VornPolicyCpu::TableOperations<Types>& table,
                    const typename Types::Entry& entry, std::optional<std::uint64_t> actionBefore,
                    FailedKeys& failed);
    template <class Types>
    void removeMatch(VornPolicyCpu::TableOperations<Types>& table, const typename Types::Key& key,
                     FailedKeys& failed);
    /// The handler of a change of a match entry, which named `actionBefore` before it, if it was
    /// there.
    Asic::OrderedSwTable::ResponseHandler matchHandler(std::uint64_t key,
                                                       std::optional<std::uint64_t> actionBefore,
                                                       FailedKeys& failed);

    /// When no match entry is being changed: writes what there was no room for, or else removes
    /// stale actions.
    void nextPhase();
    void removeStaleActions();
    /// Actions that what is still there may name, as its replacement failed.
    ActionKeys namedByFailures() const;
    void removeAction(const ActionTypes::Key& key);
    /// Books a change that has ended. Returns whether it failed.
    static bool book(const Handle& handle, LoadFigures& figures);
    /// Remembers a change that failed, and the name of the first one.
    template <class Types>
    void noteFailure(LoadFigures& figures, std::string_view kind,
                     const std::vector<Named<typename Types::Entry>>& entries,
                     std::uint64_t key) const;
    void changed() const {
        if (changed_)
            changed_();
    }

    UnitTables tables_;
    std::function<void()> changed_;
    Policy policy_;                                           ///< of the last load
    Figures figures_;                                         ///< of the last load
    std::unordered_map<std::uint64_t, Handle> actionWrites_;  ///< in progress, by packed key
    FailedKeys failedV4_;
    FailedKeys failedV6_;
    std::uint64_t matchesInProgress_ = 0;          ///< of all loads
    std::vector<std::function<void()>> deferred_;  ///< writes of the last load without room yet
    std::vector<ActionTypes::Key> staleActions_;   ///< of the last load
};

}  // namespace Agent
