// Entries of the tables as JSON: what control sockets and tools show of them.
//
// Any thread. Fields of a match entry that match anything are left out.
#pragma once

#include <nlohmann/json.hpp>

#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Process {

using Json = nlohmann::ordered_json;

/// "counter" and "policer" are null where the action has none.
Json entryJson(const VornPolicyCpu::PolicyCpuTcamActionLogEntry& action);
Json entryJson(const VornPolicyCpu::PolicyCpuV4TcamEntryLogEntry& entry);
Json entryJson(const VornPolicyCpu::PolicyCpuV6TcamEntryLogEntry& entry);

}  // namespace Process
