#include "tests/endtoend/TestedSystem.h"

#include <fstream>
#include <sstream>

#include "agent/Options.h"
#include "process/ControlServer.h"

namespace TestSupport {

namespace {

Json held(const std::string& table, Json entry) {
    entry.erase("version");
    if (table == "actions") {
        for (const char* name : {"counter", "policer"})
            entry[name] = !entry[name].is_null();
    }
    return entry;
}

Json wantedAction(const Json& action) {
    return {{"key", action["key"]},
            {"name", action["name"].get<std::string>().substr(0, 18)},
            {"disposition", action["disposition"]},
            {"counter", action["counted"]},
            {"policer", action["policed"]},
            {"rate", action["rate"]},
            {"burst", action["burst"]},
            {"mode", action["mode"]}};
}

}  // namespace

void TestedSystem::policyIs(const std::string& text) const {
    std::ofstream(policyPath()) << text;
}

void TestedSystem::policyIsExample(const std::string& name) const {
    std::filesystem::copy_file(std::string(VORN_SOURCE_DIR) + "/examples/" + name + ".yaml",
                               policyPath(), std::filesystem::copy_options::overwrite_existing);
}

void TestedSystem::startAgent() {
    std::vector<std::string> words{VORN_AGENT_PATH, "--policy", policyPath(),
                                   "--units",       units,      "--state-dir",
                                   state_.path(),   "--plugin", VORN_PLUGIN_PATH};
    words.insert(words.end(), agentOptions.begin(), agentOptions.end());
    agent_ = std::make_unique<RealProcess>(words);
    const bool serves = until([this] {
        return !agent_->running() || askAgent({{"cmd", "status"}})["pid"] == agent_->pid();
    });
    if (!serves || !agent_->running())
        throw std::runtime_error("the agent does not serve: " + agent_->standardError());
}

void TestedSystem::startHardware() {
    hardware_ = std::make_unique<RealProcess>(
        std::vector<std::string>{VORN_HWD_PATH, "--state-dir", state_.path()});
    const bool serves = until([this] {
        return !hardware_->running() || askHardware({{"cmd", "status"}})["pid"] == hardware_->pid();
    });
    if (!serves || !hardware_->running())
        throw std::runtime_error("the hardware side does not serve: " + hardware_->standardError());
}

Json TestedSystem::ask(const std::string& socket, const Json& request) {
    try {
        return Process::ControlClient(socket).request(request);
    } catch (const std::exception&) {  // not there, or not any more
        return Json::object();
    }
}

Json TestedSystem::askAgent(const Json& request) const {
    return ask(state_.file("agent.sock"), request);
}

Json TestedSystem::askHardware(const Json& request) const {
    return ask(state_.file("hwd.sock"), request);
}

bool TestedSystem::loaded(unsigned number) const {
    return until([&] {
        const Json figures = load();
        return figures.is_object() && figures["number"] == number && figures["inProgress"] == 0;
    });
}

Hardware TestedSystem::programmed() const {
    Hardware entries;
    const Json answer = askHardware({{"cmd", "tcam"}});
    for (const Json& unit : answer.at("units")) {
        for (const char* table : {"actions", "v4", "v6"}) {
            for (const Json& entry : unit.at(table)) {
                entries[{unit["unit"].get<unsigned>(), table, entry["key"].get<std::string>()}] = {
                    held(table, entry), entry["version"].get<std::uint64_t>()};
            }
        }
    }
    return entries;
}

Hardware TestedSystem::wanted() const {
    Hardware entries;
    const Json policy = Agent::policyJson(Agent::loadPolicy(policyPath()));
    for (const Asic::UnitId unit : Agent::unitsFromText(units)) {
        for (const Json& action : policy["actions"])
            entries[{unit.value, "actions", action["key"].get<std::string>()}] = {
                wantedAction(action), 0};
        for (const auto& [table, name] : {std::pair("v4", "ipv4"), std::pair("v6", "ipv6")}) {
            for (Json entry : policy[name]) {
                entry.erase("name");
                entries[{unit.value, table, entry["key"].get<std::string>()}] = {entry, 0};
            }
        }
    }
    return entries;
}

std::string TestedSystem::difference() const {
    const Hardware there = programmed();
    const Hardware right = wanted();
    std::ostringstream text;
    for (const auto& [id, entry] : right) {
        const auto found = there.find(id);
        if (found == there.end())
            text << "missing " << entry.content << "; ";
        else if (found->second.content != entry.content)
            text << found->second.content << " instead of " << entry.content << "; ";
    }
    for (const auto& [id, entry] : there) {
        if (!right.contains(id))
            text << "unit " << std::get<0>(id) << " has " << entry.content << "; ";
    }
    return text.str().substr(0, 2000);
}

std::pair<std::uint64_t, std::uint64_t> TestedSystem::touches() const {
    std::pair<std::uint64_t, std::uint64_t> sum;
    const Json tables = askHardware({{"cmd", "status"}}).at("tables");
    for (const Json& table : tables) {
        sum.first += table["added"].get<std::uint64_t>() + table["changed"].get<std::uint64_t>();
        sum.second += table["removed"].get<std::uint64_t>();
    }
    return sum;
}

}  // namespace TestSupport
