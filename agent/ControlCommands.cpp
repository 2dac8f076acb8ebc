#include "agent/ControlCommands.h"

#include <unistd.h>

#include <stdexcept>

#include <fmt/format.h>

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

template <class Types, class Pick>
Json familyJson(const Tables& tables, const Tables::Family<Types>& family, const Pick& pick) {
    Json units = Json::array();
    Asic::SwTableId id;
    for (const UnitTables& unit : tables.units()) {
        const auto& table = pick(unit);
        id = table->tableId();
        Json one{{"unit", unit.unit.value},
                 {"entries", table->count()},
                 {"pendingHwWrites", table->hasPendingHwWrites()}};
        if (table->stats() != nullptr)
            one["stats"] = statsJson(*table->stats());
        units.push_back(std::move(one));
    }
    return {{"table", Types::kName},
            {"id", id.toText()},
            {"logVersion", family->logVersion().value},
            {"acknowledgedVersion", tables.group().acknowledgedVersion(id).value},
            {"units", std::move(units)}};
}

std::string_view stateText(Asic::EntryState state) {
    switch (state) {
        case Asic::EntryState::created:
        case Asic::EntryState::written:
            return "pending";
        case Asic::EntryState::complete:
            return "allocated";
        case Asic::EntryState::exhausted:
            return "exhausted";
        default:
            return "failed";
    }
}

template <class Table>
Json poolJson(const Table& table) {
    const Asic::ResourcePoolFigures pool = table.pool();
    Json keys = Json::array();
    for (const auto& info : table.keys()) {
        keys.push_back({{"key", info.key.toText()},
                        {"index", info.index},
                        {"state", stateText(info.state)},
                        {"users", info.users}});
    }
    return {{"name", table.name()},
            {"size", pool.size},
            {"used", pool.used},
            {"returning", pool.returning},
            {"keys", std::move(keys)}};
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

}  // namespace

std::string textMember(const Json& request, const std::string& name) {
    const auto found = request.find(name);
    if (found == request.end() || !found->is_string())
        throw std::runtime_error(fmt::format("expected \"{}\" as text", name));
    return found->get<std::string>();
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

Json statusJson(const Tables& tables, const PolicyLoader& loader) {
    const Asic::GroupInterface& group = tables.group();
    Json families = Json::array();
    families.push_back(familyJson<ActionTypes>(tables, tables.actions(),
                                               [](const UnitTables& u) { return u.actions; }));
    families.push_back(
        familyJson<V4Types>(tables, tables.ipv4(), [](const UnitTables& u) { return u.ipv4; }));
    families.push_back(
        familyJson<V6Types>(tables, tables.ipv6(), [](const UnitTables& u) { return u.ipv6; }));
    return {{"pid", ::getpid()},
            {"tables", std::move(families)},
            {"queued", group.groupResolver()->queued()},
            {"suspended", group.groupResolver()->suspended()},
            {"announcementsWaiting", group.announcementsWaiting()},
            {"corruptions", group.corruptions()},
            {"relaunches", tables.relaunches()},
            {"load", loadJson(loader.figures())}};
}

Json resourcesJson(const Tables& tables) {
    return {{"counter", poolJson(tables.counters())}, {"policer", poolJson(tables.policers())}};
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

}  // namespace Agent
