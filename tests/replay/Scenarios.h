// Scenarios and random recordings for tests of what replays them.
#pragma once

#include <string>
#include <vector>

#include "recording/File.h"

namespace ReplayTest {

/// Files of tests/scenarios, sorted.
std::vector<std::string> scenarioFiles();
/// The first `count` events.
Recording::Contents firstOf(const Recording::Contents& recording, std::size_t count);

}  // namespace ReplayTest
