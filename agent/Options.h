// The command line of vorn-agent.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/AlarmLimits.h"
#include "platform/asic/Versions.h"

namespace Agent {

/// A command line that cannot be used; one line that says what was expected.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Options {
    /// Chip units of one agent: 0 to 65534, at most this many.
    static constexpr std::size_t kMaxUnits = 64;

    std::string policy;
    std::vector<Asic::UnitId> units;
    std::string stateDirectory;
    std::string plugin;
    std::uint32_t counters = 65536;
    std::uint32_t policers = 16384;
    std::uint64_t capacity = 0;  ///< most slots of a shared-memory collection; 0: as declared
    AlarmLimits alarms;
    std::string record;             ///< file that a recording goes to; empty: none is made
    std::uint16_t metricsPort = 0;  ///< on loopback; 0: metrics are not served over HTTP
    bool check = false;             ///< print the policy's entries and end
    std::string help;               ///< not empty: print it and end
};

/// Throws UsageError.
Options optionsFrom(int argc, const char* const* argv);

/// From a list such as "1,2". Throws UsageError.
std::vector<Asic::UnitId> unitsFromText(const std::string& text);

}  // namespace Agent
