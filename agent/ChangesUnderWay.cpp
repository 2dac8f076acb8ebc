#include "agent/ChangesUnderWay.h"

#include <algorithm>

#include <fmt/format.h>

namespace Agent {

using Asic::QueuedChange;

namespace {

std::string_view operationText(const Asic::OrderedSwTable::EntryHandle& handle,
                               const std::optional<QueuedChange>& queued) {
    if (queued && queued->entry->isTableDeleted())
        return "removeAll";
    return handle.isRemove() ? "remove" : "write";
}

/// What a change waits for of a resource table.
struct ResourceView {
    std::string_view pool;
    std::string key;
    std::string_view state;
};

ResourceView resourceView(const Kiv::Entity* entity) {
    if (const auto* counter = dynamic_cast<const Tables::Counters::Handle*>(entity))
        return {"counter", counter->key().toText(), resourceStateText(counter->entryState())};
    if (const auto* policer = dynamic_cast<const Tables::Policers::Handle*>(entity))
        return {"policer", policer->key().toText(), resourceStateText(policer->entryState())};
    return {"unknown", {}, "pending"};
}

double ageOf(const Tables& tables, const Asic::OrderedSwTable::EntryHandle& handle) {
    const auto since = handle.stagedAt().count() != 0 ? handle.stagedAt() : handle.committedAt();
    return std::chrono::duration<double>(tables.group().groupResolver()->turnTime() - since)
        .count();
}

WaitCause causeOf(const Tables& tables, const QueuedChange& change) {
    if (Asic::QueueView::dependencyOf(change) != nullptr)
        return WaitCause::dependency;
    switch (change.hold) {
        case Asic::Hold::earlierChange:
            return WaitCause::earlierChange;
        case Asic::Hold::earlierChanges:
            return WaitCause::earlierChanges;
        case Asic::Hold::removeAll:
            return WaitCause::removeAll;
        case Asic::Hold::blocker:
            if (change.entry->blocker().cause == Asic::Blocker::Cause::resource)
                return WaitCause::resource;
            if (change.entry->blocker().cause == Asic::Blocker::Cause::logFull)
                return WaitCause::logFull;
            break;
        case Asic::Hold::turn:
            break;
    }
    if (tables.group().groupResolver()->suspended())
        return WaitCause::pause;
    return tables.group().hasRoom() ? WaitCause::turn : WaitCause::announcements;
}

bool isChosen(const ChangeFilter& filter, const Asic::OrderedSwTable& table,
              const Asic::OrderedSwTable::EntryHandle& handle) {
    return (!filter.table || table.tableId() == *filter.table) &&
           (!filter.unit || table.unitId().value == *filter.unit) &&
           (!filter.key || handle.keyText() == *filter.key);
}

/// What a change waits for that is neither a change nor a resource.
std::string textOf(WaitCause cause, const std::string& table) {
    switch (cause) {
        case WaitCause::earlierChanges:
            return fmt::format("earlier changes of {}", table);
        case WaitCause::removeAll:
            return fmt::format("the remove-all of {} before it", table);
        case WaitCause::pause:
            return "the end of the pause that the hardware side has asked for";
        case WaitCause::announcements:
            return "room in the announcement log: the hardware side does not consume it";
        default:
            return "nothing: it is committed at the agent's next turn";
    }
}

/// Names another change in `json`, and returns it as text.
std::string refer(Json& json, const Asic::ResolverEntry& other) {
    const auto& handle = *other.changeHandle();
    const auto& table = *other.orderingTable();
    const std::string_view operation = operationText(handle, QueuedChange{&other});
    json["change"] = {{"table", tableName(table.tableId())},
                      {"unit", table.unitId().value},
                      {"key", handle.keyText()},
                      {"operation", operation},
                      {"state", "staged"}};
    return fmt::format("the {} of {} unit {} key {}", operation, tableName(table.tableId()),
                       table.unitId(), handle.keyText());
}

void addDependency(Json& json, const Asic::QueueView& queue, const QueuedChange& change) {
    const auto* const dependency = Asic::QueueView::dependencyOf(change);
    const auto other = queue.find(dependency);
    json["text"] = other ? fmt::format("{}, which is not committed yet", refer(json, *other->entry))
                         : fmt::format(
                               "a change of {} that will not end: it is neither queued nor "
                               "committed",
                               tableName(dependency->tableId()));
}

void addResource(Json& json, const QueuedChange& change) {
    const ResourceView resource = resourceView(change.entry->blocker().entity.get());
    json.update({{"pool", resource.pool}, {"key", resource.key}, {"state", resource.state}});
    json["text"] = fmt::format("{} {}, which is {}", resource.pool, resource.key, resource.state);
}

void addLog(Json& json, const std::string& table, const Tables::LogFigures& log) {
    json.update({{"table", table}, {"used", log.records}, {"capacity", log.capacity}});
    json["text"] = fmt::format("room in the change log of {}: {} records are not acknowledged",
                               table, log.records);
}

}  // namespace

constexpr std::array<std::pair<Asic::SwTableId, std::string_view>, 3> kTableNames{
    {{ActionTypes::kTableId, ActionTypes::kName},
     {V4Types::kTableId, V4Types::kName},
     {V6Types::kTableId, V6Types::kName}}};

std::string tableName(Asic::SwTableId table) {
    for (const auto& [id, name] : kTableNames) {
        if (table == id)
            return std::string(name);
    }
    return table.toText();
}

std::optional<Asic::SwTableId> tableNamed(std::string_view name) {
    for (const auto& [id, known] : kTableNames) {
        if (name == known)
            return id;
    }
    return std::nullopt;
}

std::string_view resourceStateText(Asic::EntryState state) {
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

ChangesUnderWay::ChangesUnderWay(const Tables& tables)
    : tables_(tables), queue_(*tables.group().groupResolver()) {}

std::vector<ChangesUnderWay::Item> ChangesUnderWay::chosen(const ChangeFilter& filter) const {
    std::vector<Item> items;
    tables_.forEachTable([&](const Asic::OrderedSwTable& table) {
        table.forEachHandleInLog([&](const Asic::OrderedSwTable::EntryHandle& handle) {
            if (isChosen(filter, table, handle))
                items.push_back({&table, &handle, std::nullopt});
            return true;
        });
    });
    for (const QueuedChange& change : queue_.changes()) {
        const auto* const handle = change.entry->changeHandle();
        const auto* const table = change.entry->orderingTable();
        if (handle != nullptr && isChosen(filter, *table, *handle))
            items.push_back({table, handle, change});
    }
    return items;
}

Json ChangesUnderWay::waitsFor(const QueuedChange& change) const {
    const WaitCause cause = causeOf(tables_, change);
    const Asic::SwTableId table = change.entry->orderingTable()->tableId();
    Json json{{"cause", kWaitCauses[static_cast<std::size_t>(cause)]}};
    switch (cause) {
        case WaitCause::dependency:
            addDependency(json, queue_, change);
            break;
        case WaitCause::resource:
            addResource(json, change);
            break;
        case WaitCause::logFull:
            addLog(json, tableName(table), tables_.log(table));
            break;
        case WaitCause::earlierChange:
            json["text"] =
                fmt::format("the earlier change of its key, {}", refer(json, *change.behind));
            break;
        default:
            json["text"] = textOf(cause, tableName(table));
    }
    return json;
}

Json ChangesUnderWay::waitsForHardware(const Item& item) const {
    const auto acknowledged = tables_.group().acknowledgedVersion(item.table->tableId());
    const std::uint64_t before = item.handle->logVersion().value - acknowledged.value - 1;
    return {{"cause", "hardware"},
            {"before", before},
            {"text", fmt::format("the hardware side to acknowledge version {}, and {} before it",
                                 item.handle->logVersion(), before)}};
}

/// How long a change was staged, and in the log since.
Json ChangesUnderWay::stagesJson(const Item& item) const {
    const auto seconds = [](std::chrono::nanoseconds time) {
        return std::chrono::duration<double>(time).count();
    };
    const auto now = tables_.group().groupResolver()->turnTime();
    const auto& handle = *item.handle;
    const auto end = item.queued ? now : handle.committedAt();
    Json stages = Json::array();
    stages.push_back({{"stage", "staged"}, {"seconds", seconds(end - handle.stagedAt())}});
    if (!item.queued)
        stages.push_back({{"stage", "in the log"}, {"seconds", seconds(now - end)}});
    return stages;
}

Json ChangesUnderWay::changeJson(const Item& item) const {
    const auto& handle = *item.handle;
    Json json{{"table", tableName(item.table->tableId())},
              {"unit", item.table->unitId().value},
              {"key", handle.keyText()},
              {"operation", operationText(handle, item.queued)},
              {"entryVersion", handle.entryVersion().toText()},
              {"state", item.queued ? "staged" : "inLog"},
              {"age_s", ageOf(tables_, handle)},
              {"logVersion", nullptr}};
    if (handle.logVersion().value != 0)
        json["logVersion"] = handle.logVersion().value;
    json["waitsFor"] = item.queued ? waitsFor(*item.queued) : waitsForHardware(item);
    return json;
}

Json ChangesUnderWay::list(const ChangeFilter& filter, std::size_t limit) const {
    std::vector<Item> items = chosen(filter);
    const std::size_t shown = std::min(limit, items.size());
    const auto isOlder = [&](const Item& a, const Item& b) {
        return ageOf(tables_, *a.handle) > ageOf(tables_, *b.handle);
    };
    std::partial_sort(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(shown),
                      items.end(), isOlder);
    Json changes = Json::array();
    for (std::size_t i = 0; i < shown; ++i)
        changes.push_back(changeJson(items[i]));
    return {{"total", items.size()}, {"changes", std::move(changes)}};
}

Json ChangesUnderWay::chainJson(const Asic::WaitChain& chain) const {
    Json links = Json::array();
    const std::size_t count = chain.links.size();
    for (std::size_t i = 0; i < count; ++i) {
        if (i >= kMostShown / 2 && count - i > kMostShown / 2)
            continue;
        const QueuedChange& link = chain.links[i];
        links.push_back(
            changeJson({link.entry->orderingTable(), link.entry->changeHandle(), link}));
    }
    return links;
}

Json ChangesUnderWay::explain(Asic::SwTableId table, std::uint16_t unit,
                              const std::string& key) const {
    const std::vector<Item> items = chosen({table, unit, key});
    Json json{{"total", items.size()},   {"changes", Json::array()},
              {"stages", Json::array()}, {"links", 0},
              {"chain", Json::array()},  {"root", nullptr},
              {"cycle", false}};
    for (std::size_t i = 0; i < std::min(items.size(), kMostShown); ++i)
        json["changes"].push_back(changeJson(items[i]));
    if (!items.empty())
        json["stages"] = stagesJson(items.back());
    const auto staged = std::find_if(items.rbegin(), items.rend(),
                                     [](const Item& item) { return item.queued.has_value(); });
    if (staged == items.rend())
        return json;
    const Asic::WaitChain chain = queue_.chainFrom(*staged->queued);
    json["links"] = chain.links.size();
    json["chain"] = chainJson(chain);
    json["cycle"] = chain.end == Asic::ChainEnd::cycle;
    json["root"] = chain.end == Asic::ChainEnd::cycle
                       ? "a cycle: the last of the chain waits for one before it"
                       : json["chain"].back()["waitsFor"]["text"].get<std::string>();
    return json;
}

std::map<Asic::SwTableId, WaitCounts> waitCounts(const Tables& tables) {
    std::map<Asic::SwTableId, WaitCounts> counts;
    tables.group().groupResolver()->forEachQueued([&](const QueuedChange& change) {
        const auto table = change.entry->orderingTable()->tableId();
        ++counts[table][static_cast<std::size_t>(causeOf(tables, change))];
    });
    return counts;
}

double oldestStaged_s(const Tables& tables) {
    double oldest_s = 0;
    tables.group().groupResolver()->forEachFirst([&](const Asic::ResolverEntry& first) {
        if (const auto* const handle = first.changeHandle())
            oldest_s = std::max(oldest_s, ageOf(tables, *handle));
    });
    return oldest_s;
}

}  // namespace Agent
