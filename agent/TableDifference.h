// What one table of a unit is to change for a policy.
//
// Event thread only.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "agent/PolicyCompiler.h"
#include "agent/StableHash.h"
#include "catalogue/TableOperations.h"

namespace Agent {

/// Whether feature code would write the same; the resolved indexes are the linkages' business.
inline bool sameRequest(ActionEntry held, const ActionEntry& wanted) {
    held.counterIndex = wanted.counterIndex;
    held.policerIndex = wanted.policerIndex;
    held.featureId = wanted.featureId;
    return held.isEq(wanted);
}
template <class Entry>
bool sameRequest(const Entry& held, const Entry& wanted) {
    return held.isEq(wanted);
}

template <class Types>
struct TableDifference {
    using Entry = typename Types::Entry;
    using Key = typename Types::Key;

    struct Write {
        const Named<Entry>* wanted;   ///< in the policy, which has to outlive this
        Entry entry;                  ///< the same for the unit
        std::optional<Entry> before;  ///< what the table holds or is about to hold
    };

    std::vector<Write> writes;  ///< in the policy's order
    std::vector<Key> stale;     ///< what the policy does not have, in key order
    std::size_t unchanged = 0;
    std::size_t held = 0;
};

/// The entry that a policy's stands for on a unit: an action's requests name the unit.
inline ActionEntry entryForUnit(const ActionEntry& entry, Asic::UnitId unit) {
    return forUnit(entry, unit);
}
template <class Entry>
const Entry& entryForUnit(const Entry& entry, Asic::UnitId /*unit*/) {
    return entry;
}

/// Compares what a table holds or is about to hold with what a policy wants. `isToRepeat` (key,
/// packed) says of an entry that is as it should be that it is to be written all the same.
template <class Types, class IsToRepeat>
TableDifference<Types> differenceOf(const VornPolicyCpu::TableOperations<Types>& table,
                                    const std::vector<Named<typename Types::Entry>>& policy,
                                    Asic::UnitId unit, const IsToRepeat& isToRepeat) {
    using Entry = typename Types::Entry;
    std::unordered_map<std::uint64_t, Entry> held;
    table.forEach([&](const Entry& entry) { held.try_emplace(packed(entry.key), entry); });
    TableDifference<Types> difference;
    difference.held = held.size();
    for (const Named<Entry>& named : policy) {
        const Entry wanted = entryForUnit(named.entry, unit);
        const std::uint64_t key = packed(wanted.key);
        const auto found = held.find(key);
        if (found == held.end()) {
            difference.writes.push_back({&named, wanted, std::nullopt});
            continue;
        }
        if (sameRequest(found->second, wanted) && !isToRepeat(key))
            ++difference.unchanged;
        else
            difference.writes.push_back({&named, wanted, found->second});
        held.erase(found);
    }
    for (const auto& [key, entry] : held)
        difference.stale.push_back(entry.key);
    std::sort(difference.stale.begin(), difference.stale.end());
    return difference;
}

}  // namespace Agent
