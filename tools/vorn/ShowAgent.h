// vorn show: what only the agent knows. Each throws NotRunningError without it.
#pragma once

#include "tools/vorn/Session.h"

namespace Vorn {

int showHandles(Session& session);
int showStats(Session& session);
int showAlarms(Session& session);

}  // namespace Vorn
