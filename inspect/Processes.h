// The two processes of a state directory, asked over their control sockets.
//
// One thread an object. A process that does not run is no failure until it is needed.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "inspect/State.h"
#include "process/ControlServer.h"

namespace Inspect {

/// A process that is at work answers within milliseconds; one that was stopped never does.
constexpr std::chrono::seconds kAnswerTime{30};

/// One process that may run.
class Peer {
public:
    /// `name` as in "the agent". Connects at once if it can.
    Peer(std::string name, std::string socket);

    bool runs() const { return client_ != nullptr; }
    const std::string& name() const { return name_; }
    /// Why it cannot be asked; empty where it can.
    const std::string& reason() const { return reason_; }

    /// Connects anew: the process may have ended, or started, since.
    void reconnect();
    /// Asks it no more, for the reason.
    void leaveAlone(std::string reason);
    /// The answer. Throws NotRunningError, also when the process ends meanwhile or does not answer
    /// within kAnswerTime, and RefusedError.
    Json ask(const Json& request);
    /// Nothing where it does not run or refuses; the reason goes to `why`.
    std::optional<Json> tryAsk(const Json& request, std::string* why = nullptr);

private:
    std::string name_;
    std::string socket_;
    std::string reason_;
    std::shared_ptr<Process::ControlClient> client_;
};

/// A state directory with who may run on it.
struct System {
    /// Throws StateDirectoryError.
    explicit System(const std::string& root);

    State state;
    Peer agent;
    Peer hardware;

    /// "agent" or "files": who says what is told.
    std::string_view source() const { return agent.runs() ? "agent" : "files"; }
};

}  // namespace Inspect
