// Asking agent and hardware side.
#include "inspect/Processes.h"

#include <future>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include "inspect/Errors.h"

namespace Inspect {

Peer::Peer(std::string name, std::string socket)
    : name_(std::move(name)), socket_(std::move(socket)) {
    reconnect();
}

void Peer::reconnect() {
    client_.reset();
    reason_.clear();
    try {
        client_ = std::make_shared<Process::ControlClient>(socket_);
    } catch (const std::system_error& error) {
        reason_ = fmt::format("{} does not run ({})", name_, error.code().message());
    }
}

namespace {

/// The answer, waited for in a thread of its own: one that never comes is left to it.
Json answerOf(const std::shared_ptr<Process::ControlClient>& client, const Json& request) {
    std::packaged_task<Json()> task([client, request] { return client->request(request); });
    std::future<Json> answer = task.get_future();
    std::thread(std::move(task)).detach();
    if (answer.wait_for(kAnswerTime) != std::future_status::ready)
        throw std::runtime_error(fmt::format("no answer for {} s", kAnswerTime.count()));
    return answer.get();
}

}  // namespace

Json Peer::ask(const Json& request) {
    if (!client_)
        throw NotRunningError(reason_);
    Json answer;
    try {
        answer = answerOf(client_, request);
    } catch (const std::exception& broken) {
        client_.reset();
        reason_ = fmt::format("{} does not answer: {}", name_, broken.what());
        throw NotRunningError(reason_);
    }
    if (!answer.value("ok", false)) {
        throw RefusedError(
            fmt::format("{} refuses: {}", name_, answer.value("error", std::string("no reason"))));
    }
    answer.erase("ok");
    return answer;
}

void Peer::leaveAlone(std::string reason) {
    client_.reset();
    reason_ = std::move(reason);
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
