// The agent as a process: brings the tables up, loads the policy, serves signals, the doorbell and
// the control socket until it is told to end.
//
// Event thread only, which is the thread that makes it and calls run().
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/signal_set.hpp>

#include "agent/AsioEventLoop.h"
#include "agent/Options.h"
#include "agent/PolicyLoader.h"
#include "agent/Tables.h"
#include "platform/kivshimo/Doorbell.h"
#include "process/ControlServer.h"

namespace Agent {

using Json = nlohmann::ordered_json;

class AgentProcess {
public:
    /// Checks everything that can be checked before it changes anything, then mounts the tables and
    /// stages the first load. Throws Process::StateDirectoryError, PluginError, PolicyError,
    /// KivShimo::MountError, std::system_error.
    explicit AgentProcess(const Options& options);
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;
    ~AgentProcess();

    /// Returns when the process has been told to end.
    void run();

private:
    void waitForSignal();
    void waitForBell();
    void load(const std::shared_ptr<const CompiledPolicy>& policy);
    /// Loads a policy file; throws PolicyError, and then nothing has changed.
    void reload(const std::string& path);
    Json answer(const Json& request);
    bool mayBlock();

    AsioEventLoop loop_;
    asio::signal_set signals_;
    std::string policyPath_;
    std::unique_ptr<Tables> tables_;
    std::unique_ptr<PolicyLoader> loader_;
    std::unique_ptr<KivShimo::Doorbell> bell_;
    std::optional<asio::posix::stream_descriptor> bellDescriptor_;
    std::unique_ptr<Process::ControlServer> control_;
};

/// Writes a line to standard error.
void logLine(const std::string& text);

}  // namespace Agent
