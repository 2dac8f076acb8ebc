// What a compiled policy wants, compared with what the tables hold.
//
// Plain values: any thread.
#pragma once

#include <vector>

#include "inspect/State.h"

namespace Inspect {

/// One entry that a policy would write or remove.
struct PolicyChange {
    EntryId id;
    std::string name;
    bool isNew = false;
};

struct PolicyDiff {
    std::vector<PolicyChange> write;
    std::vector<PolicyChange> remove;
    std::uint64_t unchanged = 0;
};

/// `policy`: what `vorn-agent --check` prints. Entries of the given units are compared; which
/// counters and policers actions share is not.
PolicyDiff policyDiff(const State& state, const Json& policy,
                      const std::vector<std::uint16_t>& units, const Report& report);

}  // namespace Inspect
