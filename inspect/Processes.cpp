// Asking agent and hardware side.
#include "inspect/Processes.h"

#include <system_error>

#include <fmt/format.h>

#include "inspect/Errors.h"

namespace Inspect {

Peer::Peer(std::string name, std::string socket)
    : name_(std::move(name)), socket_(std::move(socket)) {
    try {
        client_ = std::make_unique<Process::ControlClient>(socket_);
    } catch (const std::system_error& error) {
        reason_ = fmt::format("{} does not run ({})", name_, error.code().message());
    }
}

Json Peer::ask(const Json& request) {
    if (!client_)
        throw NotRunningError(reason_);
    Json answer;
    try {
        answer = client_->request(request);
    } catch (const std::exception& broken) {
        client_.reset();
        reason_ = fmt::format("{} has ended: {}", name_, broken.what());
        throw NotRunningError(reason_);
    }
    if (!answer.value("ok", false)) {
        throw RefusedError(
            fmt::format("{} refuses: {}", name_, answer.value("error", std::string("no reason"))));
    }
    answer.erase("ok");
    return answer;
}

std::optional<Json> Peer::tryAsk(const Json& request, std::string* why) {
    try {
        return ask(request);
    } catch (const NotRunningError& error) {
        if (why != nullptr)
            *why = error.what();
    } catch (const RefusedError& error) {
        if (why != nullptr)
            *why = error.what();
    }
    return std::nullopt;
}

System::System(const std::string& root)
    : state(root),
      agent("the agent", root + "/agent.sock"),
      hardware("the hardware side", root + "/hwd.sock") {}

}  // namespace Inspect
