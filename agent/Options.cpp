#include "agent/Options.h"

#include <algorithm>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "agent/FieldText.h"

namespace Agent {

namespace {

constexpr std::string_view kFooter =
    "Signals: SIGHUP reads the policy again and writes what differs; a policy with an error "
    "changes\n"
    "nothing. SIGTERM and SIGINT end the agent; what it programmed stays.\n"
    "Control socket: DIR/agent.sock, lines of JSON: {\"cmd\":\"status\"}, {\"cmd\":\"reload\"},\n"
    "{\"cmd\":\"reload\",\"policy\":FILE}, {\"cmd\":\"resources\"}, "
    "{\"cmd\":\"move\"|\"fail\"|\"restore\",\n"
    "\"table\":\"counter\"|\"policer\",\"key\":KEY}.\n"
    "Environment: VORN_TRACE, a filter such as \"*/1-3;SwTableIter/9\".\n"
    "\n"
    "Exit status: 0 done; 1 another failure; 2 wrong use; 3 the state directory is missing, no\n"
    "directory, not writable or somebody else's, or a file in it cannot be made or mapped;\n"
    "4 the plug-in cannot be loaded or is none; 5 the policy cannot be used;\n"
    "6 another agent has the state directory, or writes the recording.";

}  // namespace

std::vector<Asic::UnitId> unitsFromText(const std::string& text) {
    constexpr std::uint64_t kMaxUnit = 65534;
    std::vector<Asic::UnitId> units;
    std::string_view rest = text;
    while (true) {
        const std::string_view word = rest.substr(0, rest.find(','));
        const auto number = numberFromText(word, kMaxUnit);
        if (!number) {
            throw UsageError(
                fmt::format("--units: expected numbers up to {} separated by commas "
                            "instead of '{}'",
                            kMaxUnit, word));
        }
        const Asic::UnitId unit{static_cast<std::uint16_t>(*number)};
        if (std::find(units.begin(), units.end(), unit) != units.end())
            throw UsageError(fmt::format("--units: expected unit {} once", unit));
        units.push_back(unit);
        if (word.size() == rest.size())
            break;
        rest.remove_prefix(word.size() + 1);
    }
    if (units.size() > Options::kMaxUnits)
        throw UsageError(fmt::format("--units: expected at most {} units", Options::kMaxUnits));
    return units;
}

Options optionsFrom(int argc, const char* const* argv) {
    Options options;
    std::string units;
    CLI::App app(
        "Holds the control-plane policy of a switch's units in the tables that the "
        "hardware side programs.",
        "vorn-agent");
    app.footer(std::string(kFooter));
    app.add_option("--policy", options.policy, "policy file (YAML)")->required();
    app.add_option("--units", units, "chip units, as in 1,2");
    app.add_option("--state-dir", options.stateDirectory, "directory of the shared memory");
    app.add_option("--plugin", options.plugin, "path of libVornPolicyCpu.so");
    app.add_option("--counters", options.counters, "size of the pool of counters")
        ->check(CLI::Range(1U, 1U << 20U))
        ->capture_default_str();
    app.add_option("--policers", options.policers, "size of the pool of policers")
        ->check(CLI::Range(1U, 65535U))
        ->capture_default_str();
    app.add_option("--capacity", options.capacity,
                   "most slots of any table in shared memory, for small machines; 0: no limit")
        ->capture_default_str();
    app.add_option("--metrics-port", options.metricsPort,
                   "serve metrics at http://127.0.0.1:PORT/metrics");
    app.add_option("--alarm-unacknowledged", options.alarms.unacknowledged_s,
                   "seconds after which a change not acknowledged raises an alarm")
        ->check(CLI::Range(0.01, 1e6))
        ->capture_default_str();
    app.add_option("--alarm-waiting", options.alarms.waiting_s,
                   "seconds after which a change not committed raises an alarm")
        ->check(CLI::Range(0.01, 1e6))
        ->capture_default_str();
    app.add_option("--record", options.record,
                   "record all that goes into the tables and comes out of them, behind what the "
                   "file has; see vorn replay")
        ->option_text("FILE");
    app.add_flag("--check", options.check,
                 "only read the policy and print its entries as JSON; needs no other option");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        options.help = app.help();
        return options;
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what());
    }
    if (options.check)
        return options;
    const auto need = [](const std::string& value, std::string_view option) {
        if (value.empty())
            throw UsageError(fmt::format("{} is required", option));
    };
    need(units, "--units");
    need(options.stateDirectory, "--state-dir");
    need(options.plugin, "--plugin");
    options.units = unitsFromText(units);
    return options;
}

}  // namespace Agent
