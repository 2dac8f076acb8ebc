// The agent as a process: brings the tables up, loads the policy, serves signals, the doorbell and
// the control socket until it is told to end.
//
// Event thread only, which is the thread that makes it and calls run().
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

#include "agent/Alarms.h"
#include "agent/AsioEventLoop.h"
#include "agent/Backlog.h"
#include "agent/MetricsServer.h"
#include "agent/Options.h"
#include "agent/PolicyLoader.h"
#include "agent/Record.h"
#include "agent/Tables.h"
#include "agent/TraceTail.h"
#include "platform/brumo/StandardError.h"
#include "platform/kivshimo/Doorbell.h"
#include "process/ControlServer.h"
#include "process/ServiceManager.h"

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
    /// Looks at ages and fills every now and then while something is under way.
    void lookLater();
    void look();
    void load(const std::shared_ptr<const CompiledPolicy>& policy);
    /// Loads a policy file; throws PolicyError, and then nothing has changed.
    void reload(const std::string& path);
    Json answer(const Json& request);
    Json answerReload(const Json& request);
    /// "sweep", "move", "fail" or "restore".
    Json answerChange(const std::string& command, const Json& request);
    bool mayBlock();
    void reportRecord();
    /// Logs what became of a load; it is the process's status from now on.
    void report(Brumo::Priority priority, std::string line);

    AsioEventLoop loop_;
    std::string lastReport_ = "starts";
    Process::ServiceManager service_{loop_.io(), [this] { return lastReport_; }};
    asio::signal_set signals_;
    std::string policyPath_;
    TraceTail traces_;
    double startTime_;
    std::unique_ptr<Tables> tables_;
    std::unique_ptr<Record> record_;  ///< null: none is kept; ends before the tables
    bool recordFailed_ = false;       ///< and that was said
    std::unique_ptr<PolicyLoader> loader_;
    Backlog backlog_;
    Alarms alarms_;
    std::chrono::milliseconds lookInterval_;
    asio::steady_timer lookTimer_{loop_.io()};
    bool looksLater_ = false;
    std::unique_ptr<KivShimo::Doorbell> bell_;
    std::optional<asio::posix::stream_descriptor> bellDescriptor_;
    std::unique_ptr<Process::ControlServer> control_;
    std::optional<MetricsServer> metrics_;
};

/// Writes a line to standard error.
void logLine(Brumo::Priority priority, const std::string& text);

}  // namespace Agent
