#include "agent/ChangesUnderWay.h"

#include <algorithm>

#include <fmt/format.h>

namespace Agent {

namespace {

std::string_view causeText(WaitCause cause) {
    return kWaitCauses[static_cast<std::size_t>(cause)];
}

std::string_view operationText(const Asic::OrderedSwTable::EntryHandle& handle,
                               const std::optional<Asic::QueuedChange>& queued) {
    if (queued && queued->entry->isTableDeleted())
        return "removeAll";
    return handle.isRemove() ? "remove" : "write";
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

WaitCause causeOf(const Tables& tables, const Asic::QueuedChange& change) {
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
    return (!filter.table || tableName(table.tableId()) == *filter.table) &&
           (!filter.unit || table.unitId().value == *filter.unit) &&
           (!filter.key || handle.keyText() == *filter.key);
}

}  // namespace

std::string tableName(Asic::SwTableId table) {
    for (const auto& [id, name] : {std::pair(ActionTypes::kTableId, ActionTypes::kName),
                                   std::pair(V4Types::kTableId, V4Types::kName),
                                   std::pair(V6Types::kTableId, V6Types::kName)}) {
        if (table == id)
            return std::string(name);
    }
    return table.toText();
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
    for (const Asic::QueuedChange& change : queue_.changes()) {
        const auto* const handle = change.entry->changeHandle();
        const auto* const table = change.entry->orderingTable();
        if (handle != nullptr && isChosen(filter, *table, *handle))
            items.push_back({table, handle, change});
    }
    return items;
}

Json ChangesUnderWay::waitsFor(const Asic::QueuedChange& change) const {
    const WaitCause cause = causeOf(tables_, change);
    Json json{{"cause", causeText(cause)}};
    const std::string table = tableName(change.entry->orderingTable()->tableId());
    const auto refer = [&](const Asic::QueuedChange& other) {
        const auto& handle = *other.entry->changeHandle();
        const auto& of = *other.entry->orderingTable();
        json["change"] = {{"table", tableName(of.tableId())},
                          {"unit", of.unitId().value},
                          {"key", handle.keyText()},
                          {"operation", operationText(handle, other)},
                          {"state", "staged"}};
        return fmt::format("the {} of {} unit {} key {}", operationText(handle, other),
                           tableName(of.tableId()), of.unitId(), handle.keyText());
    };
    switch (cause) {
        case WaitCause::dependency: {
            const auto* const dependency = Asic::QueueView::dependencyOf(change);
            const auto other = queue_.find(dependency);
            json["text"] = other ? fmt::format("{}, which is not committed yet", refer(*other))
                                 : fmt::format("a change of {} that is not under way any more",
                                               tableName(dependency->tableId()));
            break;
        }
        case WaitCause::resource: {
            const ResourceView resource = resourceView(change.entry->blocker().entity.get());
            json.update(
                {{"pool", resource.pool}, {"key", resource.key}, {"state", resource.state}});
            json["text"] =
                fmt::format("{} {}, which is {}", resource.pool, resource.key, resource.state);
            break;
        }
        case WaitCause::logFull: {
            const Tables::LogFigures log = tables_.log(change.entry->orderingTable()->tableId());
            json.update({{"table", table}, {"used", log.records}, {"capacity", log.capacity}});
            json["text"] = fmt::format(
                "room in the change log of {}: {} of {} records are not "
                "acknowledged",
                table, log.records, log.capacity);
            break;
        }
        case WaitCause::earlierChange:
            json["text"] = fmt::format("the earlier change of its key, {}",
                                       refer({change.behind, Asic::Hold::turn, nullptr}));
            break;
        case WaitCause::earlierChanges:
            json["text"] = fmt::format("earlier changes of {}", table);
            break;
        case WaitCause::removeAll:
            json["text"] = fmt::format("the remove-all of {} before it", table);
            break;
        case WaitCause::pause:
            json["text"] = "the end of the pause that the hardware side has asked for";
            break;
        case WaitCause::announcements:
            json["text"] = "room in the announcement log: the hardware side does not consume it";
            break;
        case WaitCause::turn:
        case WaitCause::hardware:
            json["text"] = "nothing: it is committed at the agent's next turn";
            break;
    }
    return json;
}

Json ChangesUnderWay::waitsForHardware(const Item& item) const {
    const auto acknowledged = tables_.group().acknowledgedVersion(item.table->tableId());
    const std::uint64_t before = item.handle->logVersion().value - acknowledged.value - 1;
    return {{"cause", causeText(WaitCause::hardware)},
            {"before", before},
            {"text", fmt::format("the hardware side to acknowledge version {}, and {} before it",
                                 item.handle->logVersion(), before)}};
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

Json ChangesUnderWay::explain(const std::string& table, std::uint16_t unit,
                              const std::string& key) const {
    const std::vector<Item> items = chosen({table, unit, key});
    Json json{
        {"changes", Json::array()}, {"chain", Json::array()}, {"root", nullptr}, {"cycle", false}};
    for (const Item& item : items)
        json["changes"].push_back(changeJson(item));
    const auto staged = std::find_if(items.rbegin(), items.rend(),
                                     [](const Item& item) { return item.queued.has_value(); });
    if (staged == items.rend())
        return json;
    const Asic::WaitChain chain = queue_.chainFrom(*staged->queued);
    for (const Asic::QueuedChange& link : chain.links)
        json["chain"].push_back(
            changeJson({link.entry->orderingTable(), link.entry->changeHandle(), link}));
    json["cycle"] = chain.end == Asic::ChainEnd::cycle;
    json["root"] = chain.end == Asic::ChainEnd::cycle
                       ? "a cycle: the last of the chain waits for one before it"
                       : json["chain"].back()["waitsFor"]["text"].get<std::string>();
    return json;
}

QueueFigures queueFigures(const Tables& tables) {
    QueueFigures figures;
    tables.group().groupResolver()->forEachQueued([&](const Asic::QueuedChange& change) {
        const auto table = change.entry->orderingTable()->tableId();
        const auto cause = static_cast<std::size_t>(causeOf(tables, change));
        ++figures.waiting[table][cause];
        if (const auto* const handle = change.entry->changeHandle())
            figures.oldest_s = std::max(figures.oldest_s, ageOf(tables, *handle));
    });
    return figures;
}

}  // namespace Agent
