// What the control socket can be asked.
//
// Event thread only. Every function returns the members of an answer and throws
// std::runtime_error where a request cannot be done.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/Alarms.h"
#include "agent/Backlog.h"
#include "agent/PolicyLoader.h"
#include "agent/Tables.h"
#include "agent/TraceTail.h"

namespace Agent {

using Json = nlohmann::ordered_json;

/// What a request may ask.
struct Asked {
    const Tables& tables;
    const PolicyLoader& loader;
    const Backlog& backlog;
    const Alarms& alarms;
    const TraceTail& traces;
    double startTime;  ///< of the process, seconds since 1970
};

/// What all tables hold, how far the hardware side is, and the figures of the last load.
Json statusJson(const Asked& asked);
/// The changes that are not answered yet; {"table", "unit", "key", "limit"} may be given.
Json changesJson(const Asked& asked, const Json& request);
/// What is known of one key's changes, and what they wait for, to the root.
Json explanationJson(const Asked& asked, const Json& request);
Json metricsJson(const Asked& asked, const Json& request);
/// {"after", "limit"} may be given, or {"newest"}: the number of lines.
Json tracesJson(const Asked& asked, const Json& request);
/// Sets the filter when one is given.
Json traceFilterJson(const Json& request);
Json loadJson(const LoadFigures& figures);
/// The pools of counters and policers with their requests.
Json resourcesJson(const Tables& tables);
/// Gives indexes back that nobody uses; {"returned"}.
Json sweepJson(const Tables& tables);
/// "move", "fail" or "restore": {"table": "counter"|"policer", "key": "REQUEST/UNIT"}.
void changeResource(const Tables& tables, const std::string& command, const Json& request);

/// The text member of a request; throws when it is missing or no text.
std::string textMember(const Json& request, const std::string& name);

/// False when it is missing; throws when it is neither true nor false.
bool flagMember(const Json& request, const std::string& name);

}  // namespace Agent
