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

/// Answers a request that changes nothing but the trace filter: "status", "changes", "explain",
/// "resources", "alarms" (as of the last look), "metrics", "traces" or "traceFilter".
Json inspected(const Asked& asked, const Json& request);
Json loadJson(const LoadFigures& figures);
/// Gives indexes back that nobody uses; {"returned"}.
Json sweepJson(const Tables& tables);
/// "move", "fail" or "restore": {"table": "counter"|"policer", "key": "REQUEST/UNIT"}.
void changeResource(const Tables& tables, const std::string& command, const Json& request);

/// The text member of a request; throws when it is missing or no text.
std::string textMember(const Json& request, const std::string& name);

/// False when it is missing; throws when it is neither true nor false.
bool flagMember(const Json& request, const std::string& name);

}  // namespace Agent
