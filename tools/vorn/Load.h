// A load of the agent, followed to its end.
//
// One thread.
#pragma once

#include "tools/vorn/Session.h"

namespace Vorn {

/// Whether no change of it is under way, and none waits for its turn.
bool hasEnded(const Json& load);
/// The load once it has ended, or as it is after so many seconds. Throws NotRunningError,
/// RefusedError.
Json endedLoad(Session& session, Json load, double most_s);

}  // namespace Vorn
