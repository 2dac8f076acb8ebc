// An agent and a hardware side as real processes on a state directory of their own.
//
// One thread. Everything is killed and removed with the object.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "agent/PolicyJson.h"
#include "tests/support/RealProcess.h"

namespace TestSupport {

using Json = nlohmann::ordered_json;

/// (unit, "actions", "v4" or "v6", key).
using EntryId = std::tuple<unsigned, std::string, std::string>;
struct Programmed {
    Json content;  ///< without version, indexes as whether there are any
    std::uint64_t version = 0;
};
using Hardware = std::map<EntryId, Programmed>;

class TestedSystem {
public:
    TestedSystem() = default;

    std::string units = "1,2";
    std::vector<std::string> agentOptions{"--capacity", "8192"};

    /// Writes the policy file that the agent is started with and that SIGHUP reads again.
    void policyIs(const std::string& text) const;
    void policyIsExample(const std::string& name) const;
    std::string policyPath() const { return files_.file("policy.yaml"); }

    void startAgent();
    void startHardware();
    RealProcess& agent() { return *agent_; }
    RealProcess& hardware() { return *hardware_; }

    /// Asks over the control socket; an answer that is none gives null.
    Json askAgent(const Json& request) const;
    Json askHardware(const Json& request) const;
    Json load() const { return askAgent({{"cmd", "status"}})["load"]; }

    /// Waits until the load of that number (1 is the first of a process) has ended.
    bool loaded(unsigned number) const;
    Hardware programmed() const;
    /// What the policy file stands for, on all units.
    Hardware wanted() const;
    /// What differs between hardware and policy, in one line; empty when nothing does.
    std::string difference() const;
    /// How often the hardware was touched: entries programmed and removed.
    std::pair<std::uint64_t, std::uint64_t> touches() const;

    std::string stateDirectory() const { return state_.path(); }

private:
    static Json ask(const std::string& socket, const Json& request);

    TempDir state_;
    TempDir files_;
    std::unique_ptr<RealProcess> agent_;
    std::unique_ptr<RealProcess> hardware_;
};

}  // namespace TestSupport
