// Feature code: brings the tables of the agent's units from what they hold to what a policy wants.
//
// Event thread only. A load writes what is new or different and removes what the policy no longer
// has; entries that are as they should be are not touched. Loads may follow each other at any time:
// each compares with what the tables hold or are about to hold. While the hardware side is away
// changes pile up; then a load waits, and the last one that was asked for takes the place of
// others.
//
// What always holds:
//  1. A match entry is written after its action: it depends on the action's handle while the
//     action's own write is in progress.
//  2. An action is removed when no match entry of its unit is being changed any more, and only if
//     none names it, nor one that is still there because its replacement failed: the hardware never
//     holds a match whose action is gone.
//  3. What failed is written again by the next load, and only then.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/PolicyCompiler.h"
#include "catalogue/TableOperations.h"

namespace Agent {

/// The tables of one unit.
struct UnitTables {
    Asic::UnitId unit;
    Brumo::Ptr<VornPolicyCpu::TableOperations<ActionTypes>> actions;
    Brumo::Ptr<VornPolicyCpu::TableOperations<V4Types>> ipv4;
    Brumo::Ptr<VornPolicyCpu::TableOperations<V6Types>> ipv6;
};

/// What became of one load, over all units and tables.
/// A change that failed.
struct FailedChange {
    Asic::SwTableId table;
    Asic::UnitId unit;
    std::uint64_t key = 0;  ///< packed

    bool operator==(const FailedChange&) const = default;
};

struct LoadFigures {
    /// So many are remembered one by one.
    static constexpr std::size_t kMostRemembered = 10000;

    std::uint64_t number = 0;  ///< loads count from 1; 0: there was none
    std::string file;
    std::uint64_t written = 0;
    std::uint64_t removed = 0;  ///< actions to be removed in the end included
    std::uint64_t unchanged = 0;
    std::uint64_t complete = 0;  ///< changes that the hardware side has acknowledged
    std::uint64_t failed = 0;
    std::uint64_t inProgress = 0;
    std::string firstFailure;
    std::vector<FailedChange> failures;
    std::string waiting;  ///< the file of a later load that waits, or empty
};

/// Changes in progress with which another load waits: several loads of full tables.
constexpr std::uint64_t kMostInProgress = 1'000'000;

class PolicyLoader {
public:
    /// `finished` is called once for each load with changes that no later one has overtaken, when
    /// its last change is complete or has failed.
    PolicyLoader(std::vector<UnitTables> units, std::function<void(const LoadFigures&)> finished,
                 std::uint64_t mostInProgress = kMostInProgress);
    PolicyLoader(const PolicyLoader&) = delete;
    PolicyLoader& operator=(const PolicyLoader&) = delete;
    ~PolicyLoader();

    /// Stages all changes but the removal of actions, which follows by itself. Or waits, and
    /// returns the figures of the load before, which say so.
    const LoadFigures& load(const std::shared_ptr<const CompiledPolicy>& policy);

    /// What a load of the policy would change now: {"unchanged", "total", "write", "remove"}; as of
    /// no other load, and nothing is changed.
    nlohmann::ordered_json difference(const CompiledPolicy& policy) const;

    /// Of the last load.
    const LoadFigures& figures() const { return *figures_; }
    const std::vector<UnitTables>& units() const { return units_; }

private:
    class UnitLoader;

    void moved();
    std::uint64_t inProgress() const;

    std::vector<UnitTables> units_;
    std::function<void(const LoadFigures&)> finished_;
    std::uint64_t mostInProgress_;
    std::vector<std::shared_ptr<LoadFigures>> unfinished_;  ///< of all loads
    std::shared_ptr<const CompiledPolicy> next_;            ///< waits; may be null
    std::shared_ptr<LoadFigures> figures_;
    bool reported_ = true;
    std::vector<std::shared_ptr<UnitLoader>> loaders_;
};

}  // namespace Agent
