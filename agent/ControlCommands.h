// What the control socket can be asked.
//
// Event thread only. Every function returns the members of an answer and throws
// std::runtime_error where a request cannot be done.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/PolicyLoader.h"
#include "agent/Tables.h"

namespace Agent {

using Json = nlohmann::ordered_json;

/// What all tables hold, how far the hardware side is, and the figures of the last load.
Json statusJson(const Tables& tables, const PolicyLoader& loader);
Json loadJson(const LoadFigures& figures);
/// The pools of counters and policers with their requests.
Json resourcesJson(const Tables& tables);
/// "move", "fail" or "restore": {"table": "counter"|"policer", "key": "REQUEST/UNIT"}.
void changeResource(const Tables& tables, const std::string& command, const Json& request);

/// The text member of a request; throws when it is missing or no text.
std::string textMember(const Json& request, const std::string& name);

}  // namespace Agent
