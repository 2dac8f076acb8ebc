// What a load of a policy would change, without changing anything.
//
// Event thread only.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/PolicyCompiler.h"
#include "agent/PolicyLoader.h"

namespace Agent {

using Json = nlohmann::ordered_json;

/// {"unchanged", "total", "write", "remove"}: "total" changes, of which at most kMostListed are
/// listed.
inline constexpr std::size_t kMostListed = 10000;
Json policyDifferenceJson(const CompiledPolicy& policy, const std::vector<UnitTables>& units);

}  // namespace Agent
