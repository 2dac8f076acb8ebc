#include "agent/AgentProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>

#include <fmt/format.h>

#include "agent/ControlCommands.h"
#include "agent/WallClock.h"
#include "platform/asic/Constants.h"
#include "platform/brumo/Trace.h"
#include "process/StateDirectory.h"

namespace Agent {

namespace {

/// Failures of all, life-cycle messages of the interfaces: a line for each entry would be too much.
constexpr const char* kTraceFilter = "*/1;*Interface/1-2";

/// Where the agent answers requests.
std::string controlSocketIn(const std::string& stateDirectory) {
    return stateDirectory + "/agent.sock";
}

/// Looks at the ages of changes are this far apart at the most.
constexpr std::chrono::milliseconds kLookInterval{1000};

/// A quarter of the shortest limit, so that an alarm is late by no more than that.
std::chrono::milliseconds lookIntervalFor(const AlarmLimits& limits) {
    const double shortest_s = std::min(limits.unacknowledged_s, limits.waiting_s);
    const auto quarter = std::chrono::milliseconds(static_cast<long>(shortest_s * 250) + 1);
    return std::min(kLookInterval, quarter);
}

/// Whether some change is not committed, or not acknowledged: then ages move by themselves.
bool isAnythingUnderWay(const Tables& tables) {
    const Asic::GroupInterface& group = tables.group();
    return group.groupResolver()->queued() != 0 ||
           std::any_of(kTableIds.begin(), kTableIds.end(), [&](Asic::SwTableId table) {
               return group.acknowledgedVersion(table) < tables.log(table).published;
           });
}

std::string finishedText(const LoadFigures& figures) {
    if (figures.failed == 0)
        return fmt::format("policy {}: all {} changes acknowledged", figures.file,
                           figures.complete);
    return fmt::format(
        "policy {}: {} changes acknowledged, {} failed, first {}; they are tried again at the next "
        "reload",
        figures.file, figures.complete, figures.failed, figures.firstFailure);
}

}  // namespace

void logLine(Brumo::Priority priority, const std::string& text) {
    Brumo::writeToStandardError(priority, "vorn-agent: " + text);
}

AgentProcess::AgentProcess(const Options& options)
    : signals_(loop_.io(), SIGHUP, SIGTERM, SIGINT),
      policyPath_(options.policy),
      startTime_(secondsSince1970()),
      alarms_(options.alarms),
      lookInterval_(lookIntervalFor(options.alarms)) {
    if (std::getenv("VORN_TRACE") == nullptr)
        Brumo::traceFilterIs(kTraceFilter);
    Process::checkStateDirectory(options.stateDirectory, controlSocketIn(options.stateDirectory));
    const auto policy = std::make_shared<const CompiledPolicy>(loadPolicy(options.policy));
    const Plugin plugin = loadPlugin(options.plugin);

    if (!options.record.empty()) {
        record_ = std::make_unique<Record>(options, loop_);
        if (!record_->setAside().empty()) {
            logLine(Brumo::Priority::warning,
                    fmt::format("the recording was damaged, and is {} now; another begins",
                                record_->setAside()));
        }
    }
    tables_ = std::make_unique<Tables>(options, plugin, loop_);
    if (record_ != nullptr)
        record_->mounted(*tables_);
    loader_ = std::make_unique<PolicyLoader>(tables_->units(), [this](const LoadFigures& figures) {
        report(figures.failed == 0 ? Brumo::Priority::info : Brumo::Priority::warning,
               finishedText(figures));
    });
    bell_ = std::make_unique<KivShimo::Doorbell>(
        Asic::Constants::agentDoorbell(options.stateDirectory));
    const int descriptor = ::fcntl(bell_->fd(), F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), bell_->path());
    bellDescriptor_.emplace(loop_.io(), descriptor);
    // What can fail comes before the first change.
    control_ = std::make_unique<Process::ControlServer>(
        loop_.io(), controlSocketIn(options.stateDirectory),
        [this](const Json& request) { return answer(request); });
    if (options.metricsPort != 0) {
        metrics_.emplace(loop_.io(), options.metricsPort, [this](MetricsFormat format) {
            return metricsText(*tables_, backlog_, alarms_, startTime_, format);
        });
    }
    load(policy);
    tables_->counters().sweepUnclaimed();
    tables_->policers().sweepUnclaimed();
    look();
    waitForSignal();
    waitForBell();
    KivShimo::ring(Asic::Constants::hardwareDoorbell(options.stateDirectory));
}

AgentProcess::~AgentProcess() {
    record_.reset();
}

void AgentProcess::run() {
    service_.readyOnceRunning();
    // The hardware side rings only for a sleeper: one that is awake looks by itself.
    Asic::GroupInterface& group = tables_->group();
    loop_.run({.worked = [&] { group.acknowledgementsArrived(); },
               .mayBlock = [this] { return mayBlock(); },
               .awake =
                   [&] {
                       group.awake();
                       group.acknowledgementsArrived();
                   }});
    logLine(Brumo::Priority::notice, "ends");
}

void AgentProcess::report(Brumo::Priority priority, std::string line) {
    logLine(priority, line);
    lastReport_ = std::move(line);
    service_.statusChanged();
}

/// A full disk is no reason to end a switch's agent.
void AgentProcess::reportRecord() {
    if (record_ == nullptr || record_->failure().empty() || recordFailed_)
        return;
    recordFailed_ = true;
    logLine(Brumo::Priority::error, fmt::format("the recording ends here: {}", record_->failure()));
}

bool AgentProcess::mayBlock() {
    if (record_ != nullptr)
        record_->makeRoom();
    reportRecord();
    lookLater();
    if (tables_->group().sleepPrepared())
        return true;
    tables_->group().acknowledgementsArrived();
    return false;
}

void AgentProcess::lookLater() {
    if (looksLater_ || (!isAnythingUnderWay(*tables_) && alarms_.raised() == 0))
        return;
    looksLater_ = true;
    lookTimer_.expires_after(lookInterval_);
    lookTimer_.async_wait([this](const asio::error_code& error) {
        looksLater_ = false;
        if (error)
            return;
        tables_->group().acknowledgementsArrived();
        look();
        lookLater();  // a loop that never sleeps looks all the same
    });
}

void AgentProcess::look() {
    backlog_.look(*tables_);
    alarms_.look(*tables_, backlog_);
}

void AgentProcess::waitForSignal() {
    signals_.async_wait([this](const asio::error_code& error, int signal) {
        if (error)
            return;
        if (signal != SIGHUP) {
            service_.stopping();
            loop_.stop();
            return;
        }
        try {
            reload(policyPath_);
        } catch (const PolicyError& wrong) {
            for (const std::string& line : wrong.lines())
                logLine(Brumo::Priority::error, line);
            logLine(Brumo::Priority::error, lastReport_);
        }
        waitForSignal();
    });
}

void AgentProcess::waitForBell() {
    bellDescriptor_->async_wait(asio::posix::descriptor_base::wait_read,
                                [this](const asio::error_code& error) {
                                    if (error)
                                        return;
                                    bell_->drain();
                                    tables_->group().acknowledgementsArrived();
                                    waitForBell();
                                });
}

void AgentProcess::load(const std::shared_ptr<const CompiledPolicy>& policy) {
    const LoadFigures& figures = loader_->load(policy);
    if (!figures.waiting.empty()) {
        report(Brumo::Priority::notice,
               fmt::format("policy {}: waits until earlier changes are acknowledged",
                           figures.waiting));
        return;
    }
    report(
        Brumo::Priority::notice,
        fmt::format("policy {}: {} written, {} removed, {} unchanged on {} units", figures.file,
                    figures.written, figures.removed, figures.unchanged, loader_->units().size()));
}

void AgentProcess::reload(const std::string& path) {
    service_.reloading();
    try {
        load(std::make_shared<const CompiledPolicy>(loadPolicy(path)));
    } catch (const std::exception&) {
        lastReport_ = fmt::format("policy {} has errors, the one before stays", path);
        service_.ready();
        throw;
    }
    policyPath_ = path;
    service_.ready();
}

Json AgentProcess::answerReload(const Json& request) {
    const std::string path =
        request.contains("policy") ? textMember(request, "policy") : policyPath_;
    if (flagMember(request, "dryRun"))
        return loader_->difference(loadPolicy(path));
    reload(path);
    return {{"load", loadJson(loader_->figures())}};
}

Json AgentProcess::answerChange(const std::string& command, const Json& request) {
    Json answer = command == "sweep" ? sweepJson(*tables_) : Json::object();
    if (command != "sweep")
        changeResource(*tables_, command, request);
    look();  // pools move without a change under way
    return answer;
}

Json AgentProcess::answer(const Json& request) {
    const std::string command = textMember(request, "cmd");
    if (command == "alarms")
        look();
    if (command == "reload")
        return answerReload(request);
    if (command == "sweep" || command == "move" || command == "fail" || command == "restore")
        return answerChange(command, request);
    return inspected({*tables_, *loader_, backlog_, alarms_, traces_, startTime_}, request);
}

}  // namespace Agent
