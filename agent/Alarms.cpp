#include "agent/Alarms.h"

#include <algorithm>

#include <fmt/format.h>

#include "agent/ChangesUnderWay.h"
#include "agent/WallClock.h"
#include "platform/brumo/Trace.h"

namespace Agent {

namespace {

const Brumo::TraceSource kTrace{"AgentAlarms", "Alarms"};

constexpr std::string_view kUnacknowledged = "unacknowledged";
constexpr std::string_view kWaiting = "waiting";
constexpr std::string_view kLogFill = "log-fill";
constexpr std::string_view kPoolFill = "pool-fill";

double ratio(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

std::string valueText(const Alarm& alarm, double value) {
    return alarm.unit == "ratio" ? fmt::format("{:.1f} %", value * 100)
                                 : fmt::format("{:.1f} s", value);
}

std::string_view meaning(std::string_view name) {
    if (name == kUnacknowledged)
        return "oldest change not acknowledged by hardware";
    if (name == kWaiting)
        return "oldest change not committed";
    return name == kLogFill ? "records in the change log" : "indexes taken";
}

std::string textOf(const Alarm& alarm) {
    return fmt::format("{}{}{}: {}, limit {}", alarm.subject, alarm.subject.empty() ? "" : ": ",
                       meaning(alarm.name), valueText(alarm, alarm.value),
                       valueText(alarm, alarm.limit));
}

}  // namespace

Alarms::Alarms(const AlarmLimits& limits) {
    for (const Asic::SwTableId table : kTableIds) {
        alarms_.push_back({kUnacknowledged, tableName(table), "s", limits.unacknowledged_s,
                           limits.unacknowledged_s / 2});
        alarms_.push_back(
            {kLogFill, tableName(table), "ratio", limits.logFill, limits.logFillClear});
    }
    alarms_.push_back({kWaiting, "", "s", limits.waiting_s, limits.waiting_s / 2});
    for (const char* const pool : {"counter", "policer"})
        alarms_.push_back({kPoolFill, pool, "ratio", limits.poolFill, limits.poolFillClear});
}

void Alarms::valueIs(std::string_view name, std::string_view subject, double value) {
    const auto alarm = std::find_if(alarms_.begin(), alarms_.end(), [&](const Alarm& one) {
        return one.name == name && one.subject == subject;
    });
    alarm->value = value;
    const bool isToChange = alarm->raised ? value <= alarm->clear : value > alarm->limit;
    if (!isToChange)
        return;
    alarm->raised = !alarm->raised;
    alarm->sinceTime = secondsSince1970();
    if (alarm->raised)
        kTrace(1, " raised: {}: {}", alarm->name, textOf(*alarm));
    else
        kTrace(1, " cleared: {}: {}", alarm->name, textOf(*alarm));
}

void Alarms::look(const Tables& tables, const Backlog& backlog) {
    for (const Asic::SwTableId table : kTableIds) {
        const Tables::LogFigures log = tables.log(table);
        valueIs(kUnacknowledged, tableName(table), backlog.of(tables, table).oldest_s.value_or(0));
        valueIs(kLogFill, tableName(table), ratio(log.records, log.capacity));
    }
    valueIs(kWaiting, "", oldestStaged_s(tables));
    const auto pool = [&](std::string_view name, const Asic::ResourcePoolFigures& figures) {
        valueIs(kPoolFill, name, ratio(figures.used + figures.returning, figures.size));
    };
    pool("counter", tables.counters().pool());
    pool("policer", tables.policers().pool());
}

std::size_t Alarms::raised() const {
    return static_cast<std::size_t>(std::count_if(alarms_.begin(), alarms_.end(),
                                                  [](const Alarm& alarm) { return alarm.raised; }));
}

Json Alarms::json() const {
    Json all = Json::array();
    for (const Alarm& alarm : alarms_) {
        all.push_back({{"name", alarm.name},
                       {"subject", alarm.subject},
                       {"raised", alarm.raised},
                       {"sinceTime", nullptr},
                       {"value", alarm.value},
                       {"limit", alarm.limit},
                       {"clear", alarm.clear},
                       {"unit", alarm.unit},
                       {"text", textOf(alarm)}});
        if (alarm.sinceTime != 0)
            all.back()["sinceTime"] = alarm.sinceTime;
    }
    return {{"alarms", std::move(all)}};
}

}  // namespace Agent
