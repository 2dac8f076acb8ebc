#include "tests/replay/Scenarios.h"

#include <algorithm>
#include <filesystem>

namespace ReplayTest {

std::vector<std::string> scenarioFiles() {
    std::vector<std::string> files;
    const std::string folder = std::string(VORN_SOURCE_DIR) + "/tests/scenarios";
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() == ".scn")
            files.push_back(entry.path());
    }
    std::ranges::sort(files);
    return files;
}

Recording::Contents firstOf(const Recording::Contents& recording, std::size_t count) {
    Recording::Contents first;
    for (std::size_t i = 0; i < count; ++i) {
        const Recording::Recorded& event = recording.events().at(i);
        first.add(event.bytes, event.time);
    }
    return first;
}

}  // namespace ReplayTest
