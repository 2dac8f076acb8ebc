#include "agent/ControlCommands.h"

#include <unistd.h>

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

#include "agent/ChangesUnderWay.h"
#include "agent/Metrics.h"
#include "agent/StableHash.h"
#include "platform/brumo/Trace.h"
#include "process/EntryJson.h"
#include "process/KeyText.h"

namespace Agent {

namespace {

Json statsJson(const Asic::SwTableStats& stats) {
    return {{"entryWrite", stats.entryWriteCnt()},
            {"entryRemove", stats.entryRemoveCnt()},
            {"commit", stats.commitCnt()},
            {"resolveFail", stats.resolveFailCnt()},
            {"suppressedWrite", stats.suppressedWriteCnt()},
            {"suppressCheckDiff", stats.suppressCheckDiffCnt()},
            {"update", stats.updateCnt()},
            {"updateWithFailedResource", stats.updateWithFailedResourceCnt()},
            {"tableClear", stats.tableClearCnt()},
            {"lastCommitTime", stats.lastCommitTime()}};
}

Json unacknowledgedJson(const Unacknowledged& figures) {
    Json json{{"count", figures.count}, {"oldestVersion", nullptr}, {"oldest_s", nullptr}};
    if (figures.oldestVersion)
        json["oldestVersion"] = *figures.oldestVersion;
    if (figures.oldest_s)
        json["oldest_s"] = *figures.oldest_s;
    return json;
}

using Counts = std::map<Asic::SwTableId, WaitCounts>;

/// By what the changes wait for; those that wait for nothing but their turn count as well.
Json waitingJson(const Counts& counts, Asic::SwTableId table) {
    Json json = Json::object();
    const auto found = counts.find(table);
    for (std::size_t cause = 0; cause < kWaitCauses.size(); ++cause)
        json[std::string(kWaitCauses[cause])] = found == counts.end() ? 0 : found->second[cause];
    return json;
}

template <class Types, class Pick>
Json familyJson(const Asked& asked, const Counts& waiting, const Pick& pick) {
    Json units = Json::array();
    const Asic::SwTableId id = Types::kTableId;
    for (const UnitTables& unit : asked.tables.units()) {
        const auto& table = pick(unit);
        Json one{{"unit", unit.unit.value},
                 {"entries", table->count()},
                 {"staged", table->stagedCount()},
                 {"inLog", table->inLogCount()},
                 {"pendingHwWrites", table->hasPendingHwWrites()}};
        if (table->stats() != nullptr)
            one["stats"] = statsJson(*table->stats());
        units.push_back(std::move(one));
    }
    const Tables::LogFigures log = asked.tables.log(id);
    return {{"table", Types::kName},
            {"id", id.toText()},
            {"logVersion", log.published.value},
            {"acknowledgedVersion", asked.tables.group().acknowledgedVersion(id).value},
            {"logUsed", log.records},
            {"logCapacity", log.capacity},
            {"unacknowledged", unacknowledgedJson(asked.backlog.of(asked.tables, id))},
            {"waiting", waitingJson(waiting, id)},
            {"units", std::move(units)}};
}

Json poolFiguresJson(const Asic::ResourcePoolFigures& pool) {
    return {{"size", pool.size}, {"used", pool.used}, {"returning", pool.returning}};
}

template <class Table>
Json poolJson(const Table& table) {
    Json json{{"name", table.name()}};
    json.update(poolFiguresJson(table.pool()));
    Json keys = Json::array();
    for (const auto& info : table.keys()) {
        keys.push_back({{"key", info.key.toText()},
                        {"index", info.index},
                        {"state", resourceStateText(info.state)},
                        {"users", info.users}});
    }
    json["keys"] = std::move(keys);
    return json;
}

template <class Table>
void changeIn(Table& table, const std::string& command, const std::string& text) {
    const auto key = Process::keyFromText<typename Table::Key>(text);
    if (!key)
        throw std::runtime_error(
            fmt::format("expected a key such as 0000002a/1 instead of '{}'", text));
    const bool done = command == "move"   ? table.move(*key)
                      : command == "fail" ? table.fail(*key)
                                          : table.restore(*key);
    if (!done)
        throw std::runtime_error(
            fmt::format("cannot {} {}: it has no index, or no other is left", command, text));
}

template <class Value>
std::optional<Value> optionalMember(const Json& request, const char* name) {
    const auto found = request.find(name);
    if (found == request.end() || found->is_null())
        return std::nullopt;
    if constexpr (std::is_same_v<Value, std::string>) {
        if (found->is_string())
            return found->get<std::string>();
        throw std::runtime_error(fmt::format("expected \"{}\" as text", name));
    } else {
        if (found->is_number_unsigned() &&
            found->get<std::uint64_t>() <= std::numeric_limits<Value>::max())
            return found->get<Value>();
        throw std::runtime_error(fmt::format("expected \"{}\" as a number up to {}", name,
                                             std::numeric_limits<Value>::max()));
    }
}

/// Of changes and lines, when a request does not say how many, and at the most.
constexpr std::uint64_t kUsualLimit = 1000;
constexpr std::uint64_t kMostLimit = 10000;

std::uint64_t limitOf(const Json& request) {
    return std::min(optionalMember<std::uint64_t>(request, "limit").value_or(kUsualLimit),
                    kMostLimit);
}

/// The table that a request names, if it does; throws for one that there is not.
std::optional<Asic::SwTableId> tableMember(const Json& request) {
    const auto name = optionalMember<std::string>(request, "table");
    if (!name)
        return std::nullopt;
    const auto table = tableNamed(*name);
    if (!table)
        throw std::runtime_error(fmt::format("there is no table \"{}\"", *name));
    return table;
}

/// Why a change fails, as far as the table of it tells.
std::string_view failureText(Asic::SwTableId table) {
    return table == ActionTypes::kTableId
               ? "no counter or policer was left for it, or one that it has has failed"
               : "the change of its action failed, or the table has no room for it";
}

/// Calls `use` with the unit's table of that name, and with the key in its own type.
template <class Use>
void withTable(const Tables& tables, const std::string& table, std::uint16_t unit,
               const std::string& key, const Use& use) {
    const auto found = std::find_if(tables.units().begin(), tables.units().end(),
                                    [&](const UnitTables& one) { return one.unit.value == unit; });
    if (found == tables.units().end())
        throw std::runtime_error(fmt::format("there is no unit {}", unit));
    const auto useOf = [&]<class Types>(const VornPolicyCpu::TableOperations<Types>& one) {
        const auto typed = Process::keyFromText<typename Types::Key>(key);
        if (!typed)
            throw std::runtime_error(fmt::format("'{}' is no key of {}", key, table));
        use(one, *typed);
    };
    if (table == ActionTypes::kName)
        useOf(*found->actions);
    else if (table == V4Types::kName)
        useOf(*found->ipv4);
    else if (table == V6Types::kName)
        useOf(*found->ipv6);
    else
        throw std::runtime_error(fmt::format("there is no table \"{}\"", table));
}

/// What is staged for a key, whether the last load has failed to write it, and where its table is.
template <class Types>
Json standingJson(const Asked& asked, const VornPolicyCpu::TableOperations<Types>& table,
                  const typename Types::Key& key) {
    const std::string_view reason = failureText(table.tableId());
    Json json{{"staged", nullptr}, {"failure", nullptr}};
    if (const auto staged = table.staged(key)) {
        json["staged"] = {{"operation", staged->entry ? "write" : "remove"},
                          {"entryVersion", staged->handle->entryVersion().toText()},
                          {"failed", staged->handle->failed()},
                          {"reason", nullptr},
                          {"entry", nullptr}};
        if (staged->handle->failed())
            json["staged"]["reason"] = reason;
        if (staged->entry)
            json["staged"]["entry"] = Process::entryJson(staged->entry->toLogEntry());
    }
    const auto& failures = asked.loader.figures().failures;
    const FailedChange failed{table.tableId(), table.unitId(), packed(key)};
    if (std::find(failures.begin(), failures.end(), failed) != failures.end())
        json["failure"] = reason;
    json["published"] = table.logVersion().value;
    json["acknowledged"] = asked.tables.group().acknowledgedVersion(table.tableId()).value;
    json["unacknowledged"] = unacknowledgedJson(asked.backlog.of(asked.tables, table.tableId()));
    return json;
}

}  // namespace

std::string textMember(const Json& request, const std::string& name) {
    const auto found = request.find(name);
    if (found == request.end() || !found->is_string())
        throw std::runtime_error(fmt::format("expected \"{}\" as text", name));
    return found->get<std::string>();
}

bool flagMember(const Json& request, const std::string& name) {
    const auto found = request.find(name);
    if (found == request.end())
        return false;
    if (!found->is_boolean())
        throw std::runtime_error(fmt::format("expected \"{}\" as true or false", name));
    return found->get<bool>();
}

Json loadJson(const LoadFigures& figures) {
    return {{"number", figures.number},
            {"policy", figures.file},
            {"written", figures.written},
            {"removed", figures.removed},
            {"unchanged", figures.unchanged},
            {"complete", figures.complete},
            {"failed", figures.failed},
            {"inProgress", figures.inProgress},
            {"firstFailure", figures.firstFailure},
            {"waiting", figures.waiting}};
}

namespace {

Json resourcesJson(const Tables& tables) {
    return {{"counter", poolJson(tables.counters())}, {"policer", poolJson(tables.policers())}};
}

Json statusJson(const Asked& asked) {
    const Tables& tables = asked.tables;
    const Asic::GroupInterface& group = tables.group();
    const Counts waiting = waitCounts(tables);
    const auto announcements = group.announcementFill();
    Json families = Json::array();
    families.push_back(
        familyJson<ActionTypes>(asked, waiting, [](const UnitTables& u) { return u.actions; }));
    families.push_back(
        familyJson<V4Types>(asked, waiting, [](const UnitTables& u) { return u.ipv4; }));
    families.push_back(
        familyJson<V6Types>(asked, waiting, [](const UnitTables& u) { return u.ipv6; }));
    return {{"pid", ::getpid()},
            {"startTime", asked.startTime},
            {"tables", std::move(families)},
            {"queued", group.groupResolver()->queued()},
            {"suspended", group.groupResolver()->suspended()},
            {"announcementsWaiting", group.announcementsWaiting()},
            {"announcements", {{"used", announcements.used}, {"capacity", announcements.capacity}}},
            {"pools",
             {{"counter", poolFiguresJson(tables.counters().pool())},
              {"policer", poolFiguresJson(tables.policers().pool())}}},
            {"alarms", asked.alarms.raised()},
            {"corruptions", group.corruptions()},
            {"relaunches", tables.relaunches()},
            {"load", loadJson(asked.loader.figures())}};
}

Json changesJson(const Asked& asked, const Json& request) {
    const ChangeFilter filter{tableMember(request), optionalMember<std::uint16_t>(request, "unit"),
                              optionalMember<std::string>(request, "key")};
    return ChangesUnderWay(asked.tables).list(filter, limitOf(request));
}

Json explanationJson(const Asked& asked, const Json& request) {
    const std::string table = textMember(request, "table");
    const auto unit = optionalMember<std::uint16_t>(request, "unit");
    if (!unit)
        throw std::runtime_error("expected \"unit\" as a number");
    Json json;
    withTable(asked.tables, table, *unit, textMember(request, "key"),
              [&](const auto& one, const auto& key) {
                  json = {{"table", table}, {"unit", *unit}, {"key", key.toText()}};
                  json.update(standingJson(asked, one, key));
              });
    json.update(ChangesUnderWay(asked.tables)
                    .explain(*tableNamed(table), *unit, json["key"].get<std::string>()));
    return json;
}

Json metricsJson(const Asked& asked, const Json& request) {
    const std::string format =
        optionalMember<std::string>(request, "format").value_or("openmetrics");
    if (format != "openmetrics" && format != "prometheus")
        throw std::runtime_error("expected format \"openmetrics\" or \"prometheus\"");
    return {{"text", metricsText(asked.tables, asked.backlog, asked.alarms, asked.startTime,
                                 format == "openmetrics" ? MetricsFormat::openMetrics
                                                         : MetricsFormat::prometheus)}};
}

Json tracesJson(const Asked& asked, const Json& request) {
    if (const auto newest = optionalMember<std::uint64_t>(request, "newest"))
        return asked.traces.newest(std::min(*newest, kMostLimit));
    return asked.traces.json(optionalMember<std::uint64_t>(request, "after").value_or(0),
                             limitOf(request));
}

Json traceFilterJson(const Json& request) {
    if (const auto filter = optionalMember<std::string>(request, "filter"))
        Brumo::traceFilterIs(*filter);
    return {{"filter", Brumo::traceFilter()}, {"handles", Brumo::traceHandleNames()}};
}

}  // namespace

Json sweepJson(const Tables& tables) {
    const auto used = [&] {
        return std::size_t{tables.counters().pool().used} + tables.policers().pool().used;
    };
    const std::size_t before = used();
    tables.counters().sweepUnclaimed();
    tables.policers().sweepUnclaimed();
    return {{"returned", before - used()}};
}

void changeResource(const Tables& tables, const std::string& command, const Json& request) {
    const std::string table = textMember(request, "table");
    const std::string key = textMember(request, "key");
    if (table == "counter")
        changeIn(tables.counters(), command, key);
    else if (table == "policer")
        changeIn(tables.policers(), command, key);
    else
        throw std::runtime_error("expected table \"counter\" or \"policer\"");
}

Json inspected(const Asked& asked, const Json& request) {
    const std::string command = textMember(request, "cmd");
    if (command == "status")
        return statusJson(asked);
    if (command == "changes")
        return changesJson(asked, request);
    if (command == "explain")
        return explanationJson(asked, request);
    if (command == "resources")
        return resourcesJson(asked.tables);
    if (command == "alarms")
        return asked.alarms.json();
    if (command == "metrics")
        return metricsJson(asked, request);
    if (command == "traces")
        return tracesJson(asked, request);
    if (command == "traceFilter")
        return traceFilterJson(request);
    throw std::runtime_error(fmt::format("there is no command \"{}\"", command));
}

}  // namespace Agent
