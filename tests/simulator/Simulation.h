// The agent's library, resource tables and the real hardware side in one process, step by step as a
// seed says, beside the reference model.
#pragma once

#include <cstdint>
#include <string>

namespace Simulator {

/// How often simulations have come to what is rare.
struct Figures {
    std::uint64_t steps = 0;
    std::uint64_t commits = 0;
    std::uint64_t answers = 0;
    std::uint64_t updates = 0;
    std::uint64_t failures = 0;  ///< of changes
    std::uint64_t announcements = 0;
    std::uint64_t snapshots = 0;
    std::uint64_t lostRecords = 0;
    std::uint64_t agentRestarts = 0;
    std::uint64_t agentKills = 0;
    std::uint64_t agentKillsTwice = 0;
    std::uint64_t hardwareRestarts = 0;
    std::uint64_t hardwareKills = 0;
    std::uint64_t settled = 0;

    void add(const Figures& more);
    std::string toText() const;
};

struct Outcome {
    std::string failure;  ///< what went wrong and how to see it again; empty when nothing did
    std::uint64_t digest = 0;
    Figures figures;
};

/// Equal seeds do the same steps, whatever the number of steps.
Outcome simulate(std::uint64_t seed, std::uint64_t steps);

}  // namespace Simulator
