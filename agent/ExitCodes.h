// How vorn-agent ends; listed in its --help.
#pragma once

namespace Agent {

enum ExitCode : int {
    kExitOk = 0,
    kExitOther = 1,
    kExitUsage = 2,
    kExitStateDirectory = 3,
    kExitPlugin = 4,
    kExitPolicy = 5,
    kExitSecondAgent = 6,
};

}  // namespace Agent
