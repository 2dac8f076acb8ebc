// The entries of a policy as JSON, for `vorn-agent --check` and whoever compares hardware with it.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/PolicyCompiler.h"

namespace Agent {

using Json = nlohmann::ordered_json;

/// {"file", "actions": [...], "ipv4": [...], "ipv6": [...]}. A match entry has its full name, key,
/// label, priority, action key and the fields that it does not match any value of; an action its
/// key, name, disposition, policer ("rate", "burst", "mode") and whether it has a counter and a
/// policer ("counted", "policed").
Json policyJson(const CompiledPolicy& policy);

}  // namespace Agent
