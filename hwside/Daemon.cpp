#include "hwside/Daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <asio/post.hpp>

#include "process/KeyText.h"
#include "process/StateDirectory.h"

namespace HwSide {

namespace {

/// Announcements done before requests get their turn.
constexpr std::size_t kBudget = 4096;

/// Returns the path without slashes at its end. A link is no directory: whoever may change it could
/// lead this process elsewhere.
std::string checkedDirectory(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    Process::checkStateDirectory(path, Group{path}.controlSocket());
    return path;
}

/// A second descriptor of the bell, for Asio to own.
int descriptorOf(const KivShimo::Doorbell& bell) {
    const int descriptor = ::fcntl(bell.fd(), F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), bell.path());
    return descriptor;
}

Asic::UnitId unitOf(const Json& request) {
    const auto at = request.find("unit");
    if (at == request.end())
        throw RequestError("unit is missing");
    if (!at->is_number_unsigned() || at->get<std::uint64_t>() >= Asic::UnitId{}.value) {
        throw RequestError(fmt::format("unit: expected a number from 0 to {}, got {}",
                                       Asic::UnitId{}.value - 1, at->dump()));
    }
    return {at->get<std::uint16_t>()};
}

std::string textMember(const Json& request, const char* name) {
    const auto at = request.find(name);
    if (at == request.end() || !at->is_string())
        throw RequestError(fmt::format("{}: expected text", name));
    return at->get<std::string>();
}

template <class Types>
Json heldJson(const Tcam& tcam, Asic::UnitId unit, const std::string& text) {
    const auto key = Process::keyFromText<typename Types::Key>(text);
    if (!key)
        throw RequestError(fmt::format("key: \"{}\" is no key of {}", text, Types::kName));
    const auto at = tcam.units().find(unit);
    const auto* const held =
        at == tcam.units().end() ? nullptr : at->second.template table<Types>().find(*key);
    if (held == nullptr)
        return {{"entry", nullptr}, {"version", nullptr}};
    return {{"entry", entryJson(held->entry)}, {"version", held->version.value}};
}

template <class Types>
Json tableStatus(const Tcam& tcam) {
    const ProgramCounters& counters = tcam.counters<Types>();
    return {{"id", Types::kTableId.toText()},
            {"entries", tcam.entries<Types>()},
            {"version", tcam.reached<Types>().value},
            {"added", counters.added},
            {"changed", counters.changed},
            {"unchanged", counters.unchanged},
            {"removed", counters.removed}};
}

template <class Types>
Json entriesOf(const Tcam::Unit& unit) {
    Json entries = Json::array();
    for (const auto& [key, held] : unit.table<Types>().entries()) {
        Json entry = entryJson(held.entry);
        entry["version"] = held.version.value;
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace

Daemon::Daemon(asio::io_context& io, const std::string& stateDirectory)
    : io_(io),
      group_{checkedDirectory(stateDirectory)},
      acks_(group_.root, Group::acknowledgementsPath()),
      bell_(group_.ownBell()),
      sleeper_(acks_.sleepEpoch()),
      reader_(group_, tcam_, acks_),
      control_(io, group_.controlSocket(), [this](const Json& request) { return answer(request); }),
      rings_(io, descriptorOf(bell_)),
      again_(io),
      service_(io, [this] { return statusText(); }) {}

void Daemon::start() {
    // The agent may have looked for the acknowledgements before there were any.
    KivShimo::ring(group_.agentBell());
    work();
    service_.readyOnceRunning();
}

/// Works until nothing is left, then says that it sleeps and looks once more: what is announced
/// after that look rings. Rings are taken off the bell before that, and not before the work, which
/// they must not hold up.
void Daemon::work() {
    sleeper_.awake();
    again_.cancel();
    LogReader::Progress progress = reader_.pump(kBudget);
    if (progress != LogReader::Progress::again)
        againAfter_ = kAgainAfter;
    if (followed_ != reader_.follows()) {
        followed_ = reader_.follows();
        service_.statusChanges();
    }
    if (progress == LogReader::Progress::idle) {
        const std::uint64_t position = reader_.position();
        bell_.drain();
        sleeper_.asleep();
        progress = reader_.pump(kBudget);
        if (progress == LogReader::Progress::idle && reader_.position() == position)
            return waitForBell();
        sleeper_.awake();
    }
    if (progress == LogReader::Progress::again) {
        again_.expires_after(againAfter_);
        againAfter_ = std::min(2 * againAfter_, kAgainAfterAtMost);
        again_.async_wait([this](const asio::error_code& error) {
            if (!error)
                work();
        });
        // A ring may be of an agent that has put right what this waits for.
        bell_.drain();
        return waitForBell();
    }
    asio::post(io_, [this] { work(); });
}

void Daemon::waitForBell() {
    if (std::exchange(waitsForBell_, true))
        return;
    rings_.async_wait(asio::posix::descriptor_base::wait_read,
                      [this](const asio::error_code& error) {
                          waitsForBell_ = false;
                          if (!error)
                              work();
                      });
}

Json Daemon::answer(const Json& request) {
    const auto at = request.find("cmd");
    const std::string command =
        at != request.end() && at->is_string() ? at->get<std::string>() : std::string();
    if (command == "status")
        return status();
    if (command == "tcam")
        return programmed(request);
    if (command == "entry")
        return held(request);
    if (command == "classify")
        return classified(request);
    if (command == "pause")
        return pauseRequested(true);
    if (command == "resume")
        return pauseRequested(false);
    if (command == "resync")
        return resync();
    throw RequestError(
        "cmd: expected \"status\", \"tcam\", \"entry\", \"classify\", \"pause\", \"resume\" or "
        "\"resync\"");
}

std::string Daemon::statusText() const {
    if (!reader_.follows())
        return fmt::format("waits for an agent in {}", group_.root);
    return fmt::format("follows {}: {} actions, {} IPv4 and {} IPv6 entries programmed, {} waiting",
                       group_.root, tcam_.entries<ActionTypes>(), tcam_.entries<V4Types>(),
                       tcam_.entries<V6Types>(), reader_.waiting());
}

Json Daemon::status() const {
    const LogReader::Counters counters = reader_.counters();
    Json acknowledged = Json::object();
    for (const auto& [tableId, version] : acks_.all()) {
        acknowledged[Asic::SwTableId(tableId).toText()] = version;
    }
    return {{"pid", ::getpid()},
            {"follows", reader_.follows()},
            {"position", reader_.position()},
            {"consumed", acks_.consumed()},
            {"waiting", reader_.waiting()},
            {"pauseRequested", acks_.pauseRequested()},
            {"acknowledged", std::move(acknowledged)},
            {"tables",
             {{std::string(ActionTypes::kName), tableStatus<ActionTypes>(tcam_)},
              {std::string(V4Types::kName), tableStatus<V4Types>(tcam_)},
              {std::string(V6Types::kName), tableStatus<V6Types>(tcam_)}}},
            {"withoutAction", tcam_.unresolved()},
            {"announcements", counters.announcements},
            {"resources", counters.resources},
            {"repeated", counters.repeated},
            {"superseded", counters.superseded},
            {"snapshots", counters.snapshots},
            {"rotten", counters.rotten + acks_.corruptions()},
            {"lost", counters.lost}};
}

Json Daemon::programmed(const Json& request) const {
    std::optional<Asic::UnitId> only;
    if (request.contains("unit"))
        only = unitOf(request);
    Json units = Json::array();
    for (const auto& [unit, tables] : tcam_.units()) {
        if (only && *only != unit)
            continue;
        units.push_back({{"unit", unit.value},
                         {"actions", entriesOf<ActionTypes>(tables)},
                         {"v4", entriesOf<V4Types>(tables)},
                         {"v6", entriesOf<V6Types>(tables)}});
    }
    return {{"units", std::move(units)}};
}

Json Daemon::held(const Json& request) const {
    const Asic::UnitId unit = unitOf(request);
    const std::string table = textMember(request, "table");
    const std::string key = textMember(request, "key");
    if (table == ActionTypes::kName)
        return heldJson<ActionTypes>(tcam_, unit, key);
    if (table == V4Types::kName)
        return heldJson<V4Types>(tcam_, unit, key);
    if (table == V6Types::kName)
        return heldJson<V6Types>(tcam_, unit, key);
    throw RequestError(fmt::format("table: there is no \"{}\"", table));
}

Json Daemon::classified(const Json& request) const {
    const Asic::UnitId unit = unitOf(request);
    const auto at = request.find("packet");
    if (at == request.end())
        throw RequestError("packet is missing");
    const Packet packet = packetFromJson(*at);
    if (!tcam_.units().contains(unit)) {
        throw RequestError(fmt::format("unit: nothing was ever programmed on unit {}", unit));
    }
    return {{"packet", packet.toText()}, {"match", verdictJson(tcam_.classify(unit, packet))}};
}

Json Daemon::pauseRequested(bool requested) {
    acks_.pauseRequestedIs(requested);
    reader_.tellAgent();
    return {{"pauseRequested", requested}};
}

Json Daemon::resync() {
    reader_.snapshotIsDue();
    asio::post(io_, [this] { work(); });
    return Json::object();
}

}  // namespace HwSide
