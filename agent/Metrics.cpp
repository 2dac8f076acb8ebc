#include "agent/Metrics.h"

#include <functional>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "agent/ChangesUnderWay.h"

namespace Agent {

namespace {

using Labels = std::vector<std::pair<std::string_view, std::string>>;

/// Writes families of samples in one of the formats.
class MetricsWriter {
public:
    explicit MetricsWriter(MetricsFormat format) : format_(format) {}

    /// Begins a family. `unit` is the last part of the name, or empty.
    void family(std::string_view name, std::string_view type, std::string_view unit,
                std::string_view help) {
        name_ = name;
        suffix_ = type == "counter" ? "_total" : "";
        const std::string described =
            format_ == MetricsFormat::prometheus ? name_ + suffix_ : name_;
        line("# TYPE {} {}\n", described, type);
        if (format_ == MetricsFormat::openMetrics && !unit.empty())
            line("# UNIT {} {}\n", described, unit);
        line("# HELP {} {}\n", described, help);
    }
    template <class Value>
    void sample(const Labels& labels, Value value) {
        line("{}{}{} {}\n", name_, suffix_, labelText(labels), value);
    }
    void histogram(const Labels& labels, const std::vector<const Asic::StageTimes*>& times) {
        std::uint64_t below = 0;
        double sum = 0;
        for (std::size_t bucket = 0; bucket <= Asic::StageTimes::kBounds; ++bucket) {
            for (const Asic::StageTimes* one : times)
                below += one->count(bucket);
            line("{}_bucket{{{},le=\"{}\"}} {}\n", name_, listText(labels), boundText(bucket),
                 below);
        }
        for (const Asic::StageTimes* one : times)
            sum += std::chrono::duration<double>(one->sum()).count();
        line("{}_count{} {}\n", name_, labelText(labels), below);
        line("{}_sum{} {}\n", name_, labelText(labels), sum);
    }
    std::string text() && {
        if (format_ == MetricsFormat::openMetrics)
            text_ += "# EOF\n";
        return std::move(text_);
    }

private:
    template <class... Arguments>
    void line(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
        fmt::format_to(std::back_inserter(text_), format, std::forward<Arguments>(arguments)...);
    }
    static std::string boundText(std::size_t bucket) {
        if (bucket == Asic::StageTimes::kBounds)
            return "+Inf";
        return fmt::format("{}",
                           std::chrono::duration<double>(Asic::StageTimes::bound(bucket)).count());
    }
    /// No value of ours has a character that has to be escaped.
    static std::string listText(const Labels& labels) {
        std::string text;
        for (const auto& [name, value] : labels)
            text += fmt::format("{}{}=\"{}\"", text.empty() ? "" : ",", name, value);
        return text;
    }
    static std::string labelText(const Labels& labels) {
        return labels.empty() ? std::string() : fmt::format("{{{}}}", listText(labels));
    }

    MetricsFormat format_;
    std::string text_;
    std::string name_;
    std::string suffix_;
};

struct StatsFamily {
    std::string_view name;
    std::string_view help;
    std::uint64_t (Asic::SwTableStats::*value)() const;
};
constexpr auto kStatsFamilies = std::to_array<StatsFamily>({
    {"vorn_entry_writes", "Writes staged.", &Asic::SwTableStats::entryWriteCnt},
    {"vorn_entry_removes", "Removes staged.", &Asic::SwTableStats::entryRemoveCnt},
    {"vorn_commits", "Changes taken through commit, failed ones included.",
     &Asic::SwTableStats::commitCnt},
    {"vorn_resolve_failures", "Changes with a resource that failed.",
     &Asic::SwTableStats::resolveFailCnt},
    {"vorn_suppressed_writes", "Writes of what was there already.",
     &Asic::SwTableStats::suppressedWriteCnt},
    {"vorn_suppress_check_differences", "Checks for an identical write that found a difference.",
     &Asic::SwTableStats::suppressCheckDiffCnt},
    {"vorn_updates", "Entries updated because a resource changed.", &Asic::SwTableStats::updateCnt},
    {"vorn_updates_with_failed_resource", "Updates of entries with a resource that failed.",
     &Asic::SwTableStats::updateWithFailedResourceCnt},
    {"vorn_table_clears", "Tables cleared.", &Asic::SwTableStats::tableClearCnt},
});

class MetricsOfAgent {
public:
    MetricsOfAgent(const Tables& tables, const Backlog& backlog, MetricsFormat format)
        : tables_(tables), backlog_(backlog), writer_(format) {}

    void tableStatistics() {
        for (const StatsFamily& family : kStatsFamilies) {
            writer_.family(family.name, "counter", "", family.help);
            forEachTable([&](const Asic::OrderedSwTable& table, const Labels& labels) {
                writer_.sample(labels, ((*table.stats()).*family.value)());
            });
        }
        writer_.family("vorn_last_commit_timestamp_seconds", "gauge", "seconds",
                       "When a change was last taken through commit; 0 before the first.");
        forEachTable([&](const Asic::OrderedSwTable& table, const Labels& labels) {
            writer_.sample(labels, table.stats()->lastCommitTime());
        });
        writer_.family("vorn_staged_changes", "gauge", "",
                       "Keys with a staged change, also one that failed.");
        forEachTable([&](const Asic::OrderedSwTable& table, const Labels& labels) {
            writer_.sample(labels, table.stagedCount());
        });
    }

    void stageTimes() {
        const auto histogram = [&](std::string_view name, std::string_view help,
                                   const Asic::StageTimes& (Asic::SwTableStats::*times)() const) {
            writer_.family(name, "histogram", "seconds", help);
            for (const Asic::SwTableId id : kTableIds) {
                std::vector<const Asic::StageTimes*> units;
                tables_.forEachTable([&](const Asic::OrderedSwTable& table) {
                    if (table.tableId() == id)
                        units.push_back(&((*table.stats()).*times)());
                });
                writer_.histogram({{"table", tableName(id)}}, units);
            }
        };
        histogram("vorn_staged_duration_seconds", "From staged to committed.",
                  &Asic::SwTableStats::stagedTimes);
        histogram("vorn_hardware_duration_seconds", "From committed to acknowledged.",
                  &Asic::SwTableStats::hardwareTimes);
    }

    void logs() {
        forEachFamily("vorn_log_published_version", "", "The last version handed out.",
                      [&](Asic::SwTableId id) { return tables_.log(id).published.value; });
        forEachFamily(
            "vorn_log_acknowledged_version", "", "The version that hardware has acknowledged.",
            [&](Asic::SwTableId id) { return tables_.group().acknowledgedVersion(id).value; });
        forEachFamily("vorn_log_records", "", "Records that the change log holds.",
                      [&](Asic::SwTableId id) { return tables_.log(id).records; });
        forEachFamily("vorn_log_capacity_records", "", "Records that the change log is made for.",
                      [&](Asic::SwTableId id) { return tables_.log(id).capacity; });
        forEachFamily("vorn_unacknowledged_changes", "",
                      "Changes committed that hardware has not acknowledged.",
                      [&](Asic::SwTableId id) { return backlog_.of(tables_, id).count; });
        forEachFamily("vorn_unacknowledged_oldest_age_seconds", "seconds",
                      "Age of the oldest of them; 0 when there is none.", [&](Asic::SwTableId id) {
                          return backlog_.of(tables_, id).oldest_s.value_or(0);
                      });
    }

    void queue() {
        const auto counts = waitCounts(tables_);
        writer_.family("vorn_waiting_changes", "gauge", "",
                       "Changes staged, by what they wait for.");
        for (const Asic::SwTableId id : kTableIds) {
            const auto found = counts.find(id);
            for (std::size_t cause = 0; cause < kWaitCauses.size(); ++cause) {
                writer_.sample(
                    {{"table", tableName(id)}, {"cause", std::string(kWaitCauses[cause])}},
                    found == counts.end() ? 0 : found->second[cause]);
            }
        }
        one("vorn_staged_oldest_age_seconds", "gauge", "seconds",
            "Age of the oldest change not committed; 0 when there is none.",
            oldestStaged_s(tables_));
    }

    void pools() {
        const auto family = [&](std::string_view name, std::string_view help,
                                std::uint32_t Asic::ResourcePoolFigures::*figure) {
            writer_.family(name, "gauge", "", help);
            writer_.sample({{"pool", "counter"}}, tables_.counters().pool().*figure);
            writer_.sample({{"pool", "policer"}}, tables_.policers().pool().*figure);
        };
        family("vorn_resource_pool_indexes", "Indexes of the pool.",
               &Asic::ResourcePoolFigures::size);
        family("vorn_resource_pool_used_indexes", "Indexes that requests have.",
               &Asic::ResourcePoolFigures::used);
        family("vorn_resource_pool_returning_indexes",
               "Indexes given up that hardware may still use.",
               &Asic::ResourcePoolFigures::returning);
    }

    void group(double startTime) {
        const Asic::GroupInterface& group = tables_.group();
        const auto fill = group.announcementFill();
        one("vorn_announcement_log_used_slots", "gauge", "",
            "Announcements that the hardware side has not consumed.", fill.used);
        one("vorn_announcement_log_capacity_slots", "gauge", "", "Slots of the announcement log.",
            fill.capacity);
        one("vorn_announcements_waiting", "gauge", "",
            "Changes that wait in memory for room in the announcement log.",
            group.announcementsWaiting());
        one("vorn_suspended", "gauge", "", "1 during a pause that the hardware side asked for.",
            group.groupResolver()->suspended() ? 1 : 0);
        one("vorn_corruptions", "counter", "", "Corruptions found in shared memory.",
            group.corruptions());
        one("vorn_relaunches", "counter", "", "Times that lost shared memory was made anew.",
            tables_.relaunches());
        one("vorn_start_time_seconds", "gauge", "seconds", "When the agent was started.",
            startTime);
    }

    void alarms(const Alarms& alarms) {
        writer_.family("vorn_alarm_raised", "gauge", "", "1 while the alarm is raised.");
        for (const Alarm& alarm : alarms.all()) {
            writer_.sample({{"alarm", std::string(alarm.name)}, {"subject", alarm.subject}},
                           alarm.raised ? 1 : 0);
        }
    }

    std::string text() && { return std::move(writer_).text(); }

private:
    void forEachTable(
        const std::function<void(const Asic::OrderedSwTable&, const Labels&)>& visit) const {
        tables_.forEachTable([&](const Asic::OrderedSwTable& table) {
            visit(table,
                  {{"table", tableName(table.tableId())}, {"unit", table.unitId().toText()}});
        });
    }
    template <class Value>
    void forEachFamily(std::string_view name, std::string_view unit, std::string_view help,
                       const Value& value) {
        writer_.family(name, "gauge", unit, help);
        for (const Asic::SwTableId id : kTableIds)
            writer_.sample({{"table", tableName(id)}}, value(id));
    }
    template <class Value>
    void one(std::string_view name, std::string_view type, std::string_view unit,
             std::string_view help, Value value) {
        writer_.family(name, type, unit, help);
        writer_.sample({}, value);
    }

    const Tables& tables_;
    const Backlog& backlog_;
    MetricsWriter writer_;
};

}  // namespace

const char* contentType(MetricsFormat format) {
    return format == MetricsFormat::openMetrics
               ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
               : "text/plain; version=0.0.4; charset=utf-8";
}

std::string metricsText(const Tables& tables, const Backlog& backlog, const Alarms& alarms,
                        double startTime, MetricsFormat format) {
    MetricsOfAgent metrics(tables, backlog, format);
    metrics.tableStatistics();
    metrics.stageTimes();
    metrics.logs();
    metrics.queue();
    metrics.pools();
    metrics.group(startTime);
    metrics.alarms(alarms);
    return std::move(metrics).text();
}

}  // namespace Agent
