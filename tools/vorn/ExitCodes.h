// How vorn ends; listed in its --help and its manual page.
#pragma once

namespace Vorn {

enum ExitCode : int {
    kDone = 0,
    kFound = 1,
    kUsage = 2,
    kStateDirectory = 3,
    kNotRunning = 4,
    kRefused = 5,
    kOther = 6,
};

constexpr const char* kExitCodes =
    "Exit status:\n"
    "  0  done; for explain: the entry is in hardware, or gone from it as wanted\n"
    "  1  there is something to look at: differences, a raised alarm, a damaged file, an entry\n"
    "     that is not in hardware, a policy that would change something or was not applied\n"
    "  2  wrong use, or a name that means nothing or more than one thing\n"
    "  3  the state directory cannot be used, or has tables of another layout\n"
    "  4  needs a process that does not run\n"
    "  5  refused by the agent or the hardware side; a policy that cannot be used\n"
    "  6  another failure\n";

}  // namespace Vorn
