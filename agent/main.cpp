// vorn-agent: see --help.

#include <csignal>
#include <cstdio>
#include <iostream>

#include "agent/AgentProcess.h"
#include "agent/ExitCodes.h"
#include "agent/PolicyJson.h"
#include "platform/kivshimo/Errors.h"
#include "process/StateDirectory.h"

namespace {

int run(int argc, char** argv) {
    const Agent::Options options = Agent::optionsFrom(argc, argv);
    if (!options.help.empty()) {
        std::cout << options.help;
        return Agent::kExitOk;
    }
    if (options.check) {
        std::cout << Agent::policyJson(Agent::loadPolicy(options.policy)).dump(1) << '\n';
        return Agent::kExitOk;
    }
    Agent::AgentProcess process(options);
    process.run();
    return Agent::kExitOk;
}

int fail(int code, const std::string& text) {
    Agent::logLine(Brumo::Priority::error, text);
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    // A reader of our output that has gone must not end the agent.
    std::signal(SIGPIPE, SIG_IGN);
    // Nor a limit to the size of its recording.
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        return run(argc, argv);
    } catch (const Agent::UsageError& error) {
        return fail(Agent::kExitUsage, std::string(error.what()) + "; see --help");
    } catch (const Process::StateDirectoryError& error) {
        return fail(Agent::kExitStateDirectory, error.what());
    } catch (const Agent::PluginError& error) {
        return fail(Agent::kExitPlugin, error.what());
    } catch (const Agent::PolicyError& error) {
        for (const std::string& line : error.lines())
            Agent::logLine(Brumo::Priority::error, line);
        return Agent::kExitPolicy;
    } catch (const KivShimo::DuplicateWriterError& error) {
        return fail(Agent::kExitSecondAgent,
                    std::string("another agent has the state directory: ") + error.what());
    } catch (const Recording::BusyError& error) {
        return fail(Agent::kExitSecondAgent, error.what());
    } catch (const Recording::FormatError& error) {
        return fail(Agent::kExitUsage, error.what());
    } catch (const KivShimo::MountError& error) {
        return fail(Agent::kExitStateDirectory, error.what());
    } catch (const std::exception& error) {
        return fail(Agent::kExitOther, error.what());
    }
}
