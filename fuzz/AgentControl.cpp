// A line as a request to the agent: answered with one line of JSON, whatever it holds; the agent's
// tables stay in order.

#include <cstdlib>
#include <optional>

#include "agent/AsioEventLoop.h"
#include "agent/ControlCommands.h"
#include "agent/Plugin.h"
#include "agent/PolicyLoader.h"
#include "agent/Tables.h"
#include "fuzz/support/TableFiles.h"
#include "platform/asic/Constants.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Paths.h"
#include "process/ControlServer.h"
#include "types/Constants.h"

namespace {

constexpr const char* kPolicy =
    "policers: [{name: p, rate: 10pps, burst: 1}]\n"
    "actions:\n"
    "- {name: a, counter: yes, policer: p}\n- {name: b, counter: shared, policer: p}\n"
    "- {name: c, counter: shared, disposition: drop}\n"
    "ipv4: [{name: x, action: a, priority: 1, protocol: [tcp, udp], port: 179}]\n"
    "ipv6: [{name: y, action: b, priority: 1}]\n";

/// An agent's tables without the process around them, and the hardware side's file.
class Tables {
public:
    Tables()
        : tables_(options(), Agent::loadPlugin(VORN_PLUGIN_PATH), loop_),
          loader_(tables_.units(), [](const Agent::LoadFigures& /*figures*/) {}),
          hardware_(folder_.path(),
                    Asic::Constants::acknowledgementsPath(VornPolicyCpu::canonicalGroupName())) {
        Brumo::traceFilterIs("");
        load(kPolicy);
        settle();
    }

    std::string answerTo(const std::string& line) {
        std::string answer = Process::controlAnswer(
            [this](const Agent::Json& request) { return handled(request); }, line);
        settle();
        return answer;
    }

private:
    Agent::Options options() const {
        Agent::Options options;
        options.units = {{1}, {7}};
        options.stateDirectory = folder_.path();
        options.counters = 8;
        options.policers = 4;
        options.capacity = 256;
        return options;
    }
    void load(const std::string& text) {
        loader_.load(
            std::make_shared<const Agent::CompiledPolicy>(Agent::policyFromText(text, "input")));
    }
    /// Carries everything out and acknowledges it.
    void settle() {
        for (int round = 0; round < 3; ++round) {
            loop_.io().poll();
            const auto announced = tables_.group().everythingAnnounced();
            for (const Asic::TableVersion& version : *announced)
                hardware_.ackIs(version.tableId.whole(), version.version.value);
            const auto log = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
                folder_.path(),
                Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName())));
            hardware_.announceIdentityIs(log->identity());
            hardware_.consumedIs(log->tail());
            tables_.group().acknowledgementsArrived();
        }
    }
    Agent::Json handled(const Agent::Json& request) {
        const std::string command = Agent::textMember(request, "cmd");
        if (command == "move" || command == "fail" || command == "restore") {
            Agent::changeResource(tables_, command, request);
            return Agent::Json::object();
        }
        if (command == "sweep")
            return Agent::sweepJson(tables_);
        alarms_.look(tables_, backlog_);
        Agent::Json answer =
            Agent::inspected({tables_, loader_, backlog_, alarms_, traces_, 0}, request);
        Brumo::traceFilterIs("");
        return answer;
    }

    Fuzz::Folder folder_;
    Agent::AsioEventLoop loop_;
    Agent::Tables tables_;
    Agent::PolicyLoader loader_;
    Agent::Backlog backlog_;
    Agent::Alarms alarms_{{}};
    Agent::TraceTail traces_;
    KivShimo::AckMapWriter hardware_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Tables tables;
    Fuzz::Input input(data, size);
    const std::string answer = tables.answerTo(input.takeRest());
    Brumo::require(answer.find('\n') == answer.size() - 1, "an answer is one line");
    Brumo::require(Agent::Json::parse(answer).at("ok").is_boolean(),
                   "an answer says whether it was done");
    return 0;
}
