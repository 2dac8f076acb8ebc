// vorn watch: rates, backlogs and alarms, again and again.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <map>
#include <thread>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "inspect/Errors.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"

namespace Vorn {

namespace {

using Inspect::kTables;
using Inspect::Table;
using WatchClock = std::chrono::steady_clock;

struct WatchWishes {
    double interval_s = 1;
    std::uint64_t count = 0;  ///< 0: until interrupted
};

/// What is counted of a table at one time.
struct Counted {
    std::uint64_t writes = 0;
    std::uint64_t published = 0;
    std::optional<std::uint64_t> acknowledged;
    std::uint64_t logUsed = 0;
    std::uint64_t logCapacity = 0;
};

struct Sample {
    WatchClock::time_point at;
    std::map<Table, Counted> tables;
    Json agent;     ///< its status; null where it does not run
    Json alarms;    ///< null where not known
    Json hardware;  ///< its status; null where it does not run
};

std::uint64_t writesIn(const Json& table) {
    std::uint64_t writes = 0;
    for (const Json& unit : table.value("units", Json::array())) {
        const Json stats = unit.value("stats", Json::object());
        writes += stats.value("entryWrite", std::uint64_t{0}) +
                  stats.value("entryRemove", std::uint64_t{0});
    }
    return writes;
}

Sample sampled(Session& session) {
    Inspect::System& system = session.system();
    // They may start and end while they are watched.
    for (Inspect::Peer* const peer : {&system.agent, &system.hardware}) {
        if (!peer->runs())
            peer->reconnect();
    }
    Sample sample;
    sample.at = WatchClock::now();
    const auto acks = system.state.acknowledgements([](const auto&) {});
    for (const Table table : kTables) {
        const auto log = system.state.log(table, [](const auto&) {});
        sample.tables[table] = {0, log.published, acks.of(table), log.records, log.capacity};
    }
    if (const auto status = system.agent.tryAsk({{"cmd", "status"}})) {
        sample.agent = *status;
        for (const Json& table : status->at("tables")) {
            if (const auto known = Inspect::tableFromText(stringIn(table, "table")))
                sample.tables[*known].writes = writesIn(table);
        }
    }
    if (const auto alarms = system.agent.tryAsk({{"cmd", "alarms"}}))
        sample.alarms = alarms->value("alarms", Json());
    if (const auto status = system.hardware.tryAsk({{"cmd", "status"}}))
        sample.hardware = *status;
    return sample;
}

double rateOf(std::uint64_t before, std::uint64_t now, double seconds) {
    return seconds > 0 && now > before ? static_cast<double>(now - before) / seconds : 0;
}

Json pidOf(const Json& status) {
    return status.is_object() ? status.value("pid", Json()) : Json();
}

Json tableJson(Table table, const Sample& before, const Sample& now) {
    const double seconds = std::chrono::duration<double>(now.at - before.at).count();
    const Counted& was = before.tables.at(table);
    const Counted& is = now.tables.at(table);
    const bool isLogThere = is.logCapacity != 0;
    // What counts from the start of a process is compared with that of the same process only.
    const bool isSameAgent = pidOf(before.agent) == pidOf(now.agent);
    const std::uint64_t acknowledged = is.acknowledged.value_or(0);
    Json row{{"table", fullName(table)},
             {"writes_per_s", isSameAgent ? rateOf(was.writes, is.writes, seconds) : 0.0},
             {"commits_per_s", rateOf(was.published, is.published, seconds)},
             {"acks_per_s", rateOf(was.acknowledged.value_or(acknowledged), acknowledged, seconds)},
             {"backlog", is.published - std::min(is.published, acknowledged)},
             {"oldest_s", nullptr},
             {"waiting", Json::object()},
             {"logUsed", isLogThere ? Json(is.logUsed) : Json(nullptr)},
             {"logCapacity", isLogThere ? Json(is.logCapacity) : Json(nullptr)}};
    for (const Json& told : now.agent.is_null() ? Json::array() : now.agent.at("tables")) {
        if (stringIn(told, "table") != fullName(table))
            continue;
        row["oldest_s"] = told.value("unacknowledged", Json::object()).value("oldest_s", Json());
        row["waiting"] = told.value("waiting", Json::object());
    }
    return row;
}

std::string fillText(const Json& object, const char* used, const char* size) {
    const Json part = object.value(used, Json());
    const Json whole = object.value(size, Json());
    if (!part.is_number() || !whole.is_number() || whole.get<double>() == 0)
        return "-";
    return fmt::format("{:.1f}%", 100 * part.get<double>() / whole.get<double>());
}

std::string waitingText(const Json& causes) {
    std::string text;
    for (const auto& [cause, count] : causes.items()) {
        if (count.is_number() && count != 0)
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", cause, count.dump());
    }
    return text.empty() ? "-" : text;
}

std::vector<std::string> alarmsIn(const Sample& sample) {
    std::vector<std::string> raised;
    for (const Json& alarm : sample.alarms.is_array() ? sample.alarms : Json::array()) {
        if (alarm.value("raised", false))
            raised.push_back(stringIn(alarm, "text"));
    }
    return raised;
}

void drawProcesses(const Output& out, const Sample& now) {
    if (now.agent.is_null()) {
        out.line(out.painted(Colour::red, "the agent does not run"));
    } else {
        std::string pools;
        const Json all = now.agent.value("pools", Json::object());
        for (const auto& [name, pool] : all.items())
            pools += fmt::format(", {}s {}", name, fillText(pool, "used", "size"));
        const Json announced = now.agent.value("announcements", Json::object());
        out.line(fmt::format("agent {}: queued {}, announcements {}{}",
                             numberText(now.agent, "pid"), numberText(now.agent, "queued"),
                             fillText(announced, "used", "capacity"), pools));
    }
    if (now.hardware.is_null()) {
        out.line(out.painted(Colour::red, "the hardware side does not run"));
    } else {
        out.line(
            fmt::format("hardware {}: waiting {}, without action {}, rotten {}, lost {}{}",
                        numberText(now.hardware, "pid"), numberText(now.hardware, "waiting"),
                        numberText(now.hardware, "withoutAction"),
                        numberText(now.hardware, "rotten"), numberText(now.hardware, "lost"),
                        now.hardware.value("pauseRequested", false) ? ", asks for a pause" : ""));
    }
}

void draw(const Output& out, const Sample& before, const Sample& now) {
    if (out.isTerminal())
        out.raw("\x1b[H\x1b[J");
    out.line(fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(std::time(nullptr))));
    drawProcesses(out, now);
    out.line();
    TextTable text({{"TABLE"},
                    {"WRITES/s", Kind::right},
                    {"COMMITS/s", Kind::right},
                    {"ACKS/s", Kind::right},
                    {"BEHIND", Kind::right},
                    {"OLDEST", Kind::right},
                    {"LOG", Kind::right},
                    {"WAITING", Kind::flexible}});
    for (const Table table : kTables) {
        const Json row = tableJson(table, before, now);
        const Json oldest = row.at("oldest_s");
        const auto rate = [&](const char* name) {
            return fmt::format("{:.0f}", row.at(name).get<double>());
        };
        text.add({shortName(table), rate("writes_per_s"), rate("commits_per_s"), rate("acks_per_s"),
                  numberText(row, "backlog"),
                  oldest.is_number() ? ageText(oldest.get<double>()) : "-",
                  fillText(row, "logUsed", "logCapacity"), waitingText(row.at("waiting"))});
    }
    text.print(out);
    for (const std::string& alarm : alarmsIn(now))
        out.line(out.painted(Colour::red, "alarm: " + alarm));
    out.line();
    std::fflush(stdout);
}

void printSample(Session& session, const Sample& before, const Sample& now) {
    Json tables = Json::array();
    for (const Table table : kTables)
        tables.push_back(tableJson(table, before, now));
    session.out().raw(Json{{"source", now.agent.is_null() ? "files" : "agent"},
                           {"time", std::time(nullptr)},
                           {"tables", std::move(tables)},
                           {"agent", now.agent},
                           {"hardware", now.hardware},
                           {"alarms", now.alarms}}
                          .dump(-1, ' ', false, Json::error_handler_t::replace) +
                      "\n");
    std::fflush(stdout);
}

int watch(Session& session, const WatchWishes& wishes) {
    if (!(wishes.interval_s > 0))
        throw Inspect::QuestionError("--interval: expected more than 0 seconds");
    // Every look is written out when it is whole, so there is nothing to wait for.
    std::signal(SIGINT, [](int) { _exit(kDone); });
    Sample before = sampled(session);
    for (std::uint64_t shown = 0; wishes.count == 0 || shown < wishes.count; ++shown) {
        std::this_thread::sleep_for(std::chrono::duration<double>(wishes.interval_s));
        Sample now = sampled(session);
        if (session.json)
            printSample(session, before, now);
        else
            draw(session.out(), before, now);
        before = std::move(now);
    }
    return kDone;
}

}  // namespace

void addWatchCommand(CLI::App& app, Session& session) {
    static WatchWishes wishes;
    CLI::App* const command =
        addCommand(app, session, "watch",
                   "rates, backlogs and alarms, redrawn; with --json, a document a line",
                   [&session] { return watch(session, wishes); });
    command->group("Looking");
    command->add_option("--interval", wishes.interval_s, "seconds between two looks (1)");
    command->add_option("--count", wishes.count, "looks; without it until interrupted");
}

}  // namespace Vorn
