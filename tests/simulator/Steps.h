// What may happen in one step of a simulation, and how it reads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/model/Commands.h"
#include "tests/simulator/Random.h"

namespace Simulator {

enum class Act : std::uint8_t {
    command,          ///< something that the agent or its resources do
    arrive,           ///< the agent takes acknowledgements up
    pump,             ///< the hardware side works
    stopHardware,     ///< it is away for some steps
    restartHardware,  ///< it finds its hardware as it was
    emptyHardware,    ///< it finds its hardware empty
    restartAgent,     ///< ends between two steps
    killAgent,        ///< ends before a store of some commands
    killAgentTwice,   ///< and the next one before a store of its recovery
    killHardware,     ///< ends before a store of its work
    settle,           ///< everything comes to rest
};

struct Step {
    Act act = Act::command;
    ModelTests::Command command{};
    unsigned amount = 0;   ///< budget, steps, or how far the hardware side comes
    unsigned stores = 0;   ///< before which a process is killed
    unsigned between = 0;  ///< while no agent is there: 1 the hardware side restarts, 2 empty
    unsigned further = 0;  ///< before which the next one is
    std::vector<ModelTests::Command> commands{};  ///< of an agent that is killed
};

/// Draws a step. `keys` of each table, `requests` of each resource table.
Step stepOf(Random& random, unsigned keys, unsigned requests);
std::string textOf(const Step& step);

}  // namespace Simulator
