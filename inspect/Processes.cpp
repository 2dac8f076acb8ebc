// Asking agent and hardware side.
#include "inspect/Processes.h"

#include <algorithm>
#include <future>
#include <set>
#include <system_error>
#include <thread>

#include <fmt/format.h>

#include "inspect/Errors.h"

namespace Inspect {

Peer::Peer(std::string name, std::string socket)
    : name_(std::move(name)), socket_(std::move(socket)) {
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

namespace {

/// Keys of the unit that a change of the agent is about and that may be of that name.
std::set<std::string> stagedNamed(System& system, Table table, std::uint16_t unit,
                                  const std::string& name) {
    std::set<std::string> keys;
    const auto changes =
        system.agent.tryAsk({{"cmd", "changes"}, {"table", fullName(table)}, {"unit", unit}});
    for (const Json& change : changes ? changes->value("changes", Json::array()) : Json::array())
        keys.insert(change.value("key", std::string()));
    std::erase_if(keys, [&](const std::string& key) {
        const auto story = system.agent.tryAsk(
            {{"cmd", "explain"}, {"table", fullName(table)}, {"unit", unit}, {"key", key}});
        const Json told = story ? story->value("changes", Json::array()) : Json::array();
        return std::ranges::none_of(told, [&](const Json& change) {
            const Json entry = change.value("entry", Json());
            return entry.is_object() && (entry.value("name", std::string()) == name ||
                                         entry.value("label", std::string()) == name);
        });
    });
    return keys;
}

}  // namespace

EntryId find(System& system, Table table, std::uint16_t unit, const std::string& text) {
    if (const auto key = keyText(table, text))
        return {table, unit, *key};
    std::set<std::string> keys = stagedNamed(system, table, unit, text);
    for (const Entry& entry :
         system.state.entries(table, unit, [](const Damage& /*shown elsewhere*/) {})) {
        if (entry.name() == text)
            keys.insert(entry.id.key);
    }
    if (keys.size() == 1)
        return {table, unit, *keys.begin()};
    if (keys.empty()) {
        throw QuestionError(
            fmt::format("'{}' is neither a key of table {} nor the name of an entry on unit {}",
                        text, shortName(table), unit));
    }
    constexpr std::size_t kShown = 5;
    const std::vector<std::string> shown(
        keys.begin(),
        std::next(keys.begin(), static_cast<std::ptrdiff_t>(std::min(kShown, keys.size()))));
    throw QuestionError(fmt::format("'{}' is the name of {} entries on unit {}: {}{}", text,
                                    keys.size(), unit, fmt::join(shown, ", "),
                                    keys.size() > kShown ? ", …" : ""));
}

}  // namespace Inspect
