// vorn show: what the files say.
#include <algorithm>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowAgent.h"
#include "tools/vorn/ShowText.h"

namespace Vorn {

namespace {

using Inspect::Entry;
using Inspect::EntryId;
using Inspect::kTables;
using Inspect::LogFigures;
using Inspect::Pool;
using Inspect::ResourceRow;
using Inspect::Table;

std::uint64_t acknowledgedOf(Session& session, Table table) {
    const auto acks = session.system().state.acknowledgements(session.report());
    return acks.of(table).value_or(0);
}

Json tableFigures(Session& session, Table table, const Inspect::Acknowledgements& acks) {
    const Inspect::State& state = session.system().state;
    Inspect::State::Count all;
    const auto units = state.units(table);
    for (const std::uint16_t unit : units) {
        const auto some = state.count(table, unit, session.report());
        all.live += some.live;
        all.inDeletion += some.inDeletion;
    }
    const LogFigures log = state.log(table, session.report());
    const auto acknowledged = acks.of(table);
    return {{"table", fullName(table)},
            {"units", units},
            {"entries", all.live},
            {"inDeletion", all.inDeletion},
            {"published", log.published},
            {"acknowledged", acknowledged ? Json(*acknowledged) : Json(nullptr)},
            {"behind", log.published - std::min(log.published, acknowledged.value_or(0))},
            {"records", log.records},
            {"capacity", log.capacity},
            {"oldestRecord", log.oldest ? Json(*log.oldest) : Json(nullptr)}};
}

int showTables(Session& session) {
    const Inspect::Filter filter = session.wanted();
    const auto acks = session.system().state.acknowledgements(session.report());
    Json rows = Json::array();
    for (const Table table : kTables) {
        if (filter.isMet(table))
            rows.push_back(tableFigures(session, table, acks));
    }
    if (session.json)
        return session.printed({{"tables", std::move(rows)}});
    TextTable text({{"TABLE"},
                    {"UNITS", Kind::flexible},
                    {"ENTRIES", Kind::right},
                    {"REMOVING", Kind::right},
                    {"VERSION", Kind::right},
                    {"ACKED", Kind::right},
                    {"BEHIND", Kind::right},
                    {"LOG"}});
    for (const Json& row : rows) {
        const bool isBehind = row.at("behind") != 0;
        text.add(
            {std::string(shortName(*Inspect::tableFromText(stringIn(row, "table")))),
             fmt::format("{}", fmt::join(row.at("units").get<std::vector<int>>(), ",")),
             numberText(row, "entries"),
             numberText(row, "inDeletion"),
             numberText(row, "published"),
             numberText(row, "acknowledged"),
             {numberText(row, "behind"), isBehind ? Colour::yellow : Colour::none},
             fmt::format("{} of {}", numberText(row, "records"), numberText(row, "capacity"))});
    }
    text.print(session.out());
    return session.ended();
}

int showUnits(Session& session) {
    const Inspect::Filter filter = session.wanted();
    const Inspect::State& state = session.system().state;
    Json rows = Json::array();
    TextTable text(
        {{"UNIT", Kind::right}, {"TABLE"}, {"ENTRIES", Kind::right}, {"REMOVING", Kind::right}});
    for (const std::uint16_t unit : state.units()) {
        for (const Table table : kTables) {
            const auto units = state.units(table);
            if (!filter.isMet(table) || (filter.unit && *filter.unit != unit) ||
                std::ranges::find(units, unit) == units.end()) {
                continue;
            }
            const auto count = state.count(table, unit, session.report());
            rows.push_back({{"unit", unit},
                            {"table", fullName(table)},
                            {"entries", count.live},
                            {"inDeletion", count.inDeletion}});
            text.add({unit, shortName(table), count.live, count.inDeletion});
        }
    }
    if (session.json)
        return session.printed({{"units", std::move(rows)}});
    text.print(session.out());
    return session.ended();
}

/// Calls `visit` for each entry that is meant, one unit of one table after the other.
void forEachWanted(Session& session, const Inspect::Filter& filter, Table table,
                   const std::function<void(const Entry&)>& visit) {
    const Inspect::State& state = session.system().state;
    for (const std::uint16_t unit : state.units(table)) {
        if (filter.unit && *filter.unit != unit)
            continue;
        for (const Entry& entry : state.entries(table, unit, session.report())) {
            if (filter.isMet(entry))
                visit(entry);
        }
    }
}

int showEntries(Session& session) {
    const Inspect::Filter filter = session.wanted();
    ProgressLine progress(!session.out().isTerminal());
    std::uint64_t shown = 0;
    if (session.json) {
        JsonList list(session.out(), session.source(), "entries");
        for (const Table table : kTables) {
            if (!filter.isMet(table))
                continue;
            const std::uint64_t acknowledged = acknowledgedOf(session, table);
            forEachWanted(session, filter, table, [&](const Entry& entry) {
                progress.show("entries", ++shown, 0);
                list.add(entryToJson(entry, acknowledged));
            });
        }
        list.end({{"damages", session.damagesJson()}});
        return session.ended();
    }
    const ActionNames names = actionNames(session.system().state);
    bool isFirst = true;
    for (const Table table : kTables) {
        if (!filter.isMet(table))
            continue;
        const std::uint64_t acknowledged = acknowledgedOf(session, table);
        TextTable text = entryTable(table);
        std::uint64_t count = 0;
        forEachWanted(session, filter, table, [&](const Entry& entry) {
            progress.show("entries", ++shown, 0);
            text.add(entryRow(entry, acknowledged, names));
            ++count;
        });
        if (!isFirst)
            session.out().line();
        isFirst = false;
        session.out().line(session.out().painted(
            Colour::bold,
            fmt::format("{}: {} {}", shortName(table), count, count == 1 ? "entry" : "entries")));
        if (!text.empty())
            text.print(session.out());
    }
    return session.ended();
}

void printEntry(Session& session, const Entry& entry, std::uint64_t acknowledged) {
    const Output& out = session.out();
    out.line(out.painted(Colour::bold, entry.id.toText()));
    for (const auto& [name, value] : entry.content.items()) {
        if (name == "fields")
            out.line(fmt::format("  {:<16}{}", "match", matchText(entry.content)));
        else if (name != "key")
            out.line(fmt::format("  {:<16}{}", name,
                                 value.is_null()     ? "-"
                                 : value.is_string() ? value.get<std::string>()
                                                     : value.dump()));
    }
    if (!entry.counterRequest.empty())
        out.line(fmt::format("  {:<16}{}", "counter request", entry.counterRequest));
    if (!entry.policerRequest.empty())
        out.line(fmt::format("  {:<16}{}", "policer request", entry.policerRequest));
    out.line(
        fmt::format("  {:<16}{} ({})", "version", entry.version, placeOf(entry, acknowledged)));
}

int showEntry(Session& session, const std::string& text) {
    const Inspect::Filter filter = session.wanted();
    Json rows = Json::array();
    for (const Table table : kTables) {
        if (!filter.isMet(table))
            continue;
        const auto key = keyText(table, text);
        const std::string name = storedName(table, text);
        const std::uint64_t acknowledged = acknowledgedOf(session, table);
        forEachWanted(session, filter, table, [&](const Entry& entry) {
            if (entry.id.key != key && entry.name() != name)
                return;
            rows.push_back(entryToJson(entry, acknowledged));
            if (!session.json)
                printEntry(session, entry, acknowledged);
        });
    }
    if (rows.empty() && session.damages().empty()) {
        throw Inspect::QuestionError(
            fmt::format("'{}' is neither the key nor the name of a committed entry; "
                        "vorn explain tells of staged ones",
                        text));
    }
    return session.json ? session.printed({{"entries", std::move(rows)}}) : session.ended();
}

int showAcks(Session& session) {
    const Inspect::Filter filter = session.wanted();
    const Inspect::State& state = session.system().state;
    const auto acks = state.acknowledgements(session.report());
    const auto announced = state.announcements(session.report());
    Json rows = Json::array();
    TextTable text(
        {{"TABLE"}, {"ACKED", Kind::right}, {"VERSION", Kind::right}, {"BEHIND", Kind::right}});
    for (const auto& [id, version] : acks.rows) {
        if (filter.table && tableId(*filter.table) != id)
            continue;
        Json published;
        for (const Table table : kTables) {
            if (tableId(table) == id)
                published = state.log(table, session.report()).published;
        }
        const Json behind = published.is_null()
                                ? Json(nullptr)
                                : Json(published.get<std::uint64_t>() -
                                       std::min(published.get<std::uint64_t>(), version));
        Json row{{"table", Inspect::nameOfTableId(id)},
                 {"id", id},
                 {"acknowledged", version},
                 {"published", published},
                 {"behind", behind}};
        text.add({stringIn(row, "table"), version, numberText(row, "published"),
                  numberText(row, "behind")});
        rows.push_back(std::move(row));
    }
    if (session.json) {
        return session.printed({{"acknowledgements", std::move(rows)},
                                {"consumed", acks.consumed},
                                {"announced", announced.tail},
                                {"pauseRequested", acks.pauseRequested}});
    }
    if (!acks.isThere) {
        session.out().line("nothing is acknowledged: no hardware side has run here");
        return session.ended();
    }
    text.print(session.out());
    session.out().line();
    session.out().line(
        fmt::format("announcements: {} of {} consumed", acks.consumed, announced.tail));
    if (acks.pauseRequested)
        session.out().line("the hardware side has asked the agent to pause");
    return session.ended();
}

/// Keys of the entries that use a request, by its text.
std::map<std::string, std::vector<std::string>> usersOf(Session& session,
                                                        const Inspect::Filter& filter, Pool pool) {
    std::map<std::string, std::vector<std::string>> users;
    forEachWanted(session, filter, Table::action, [&](const Entry& entry) {
        const std::string& request =
            pool == Pool::counter ? entry.counterRequest : entry.policerRequest;
        if (!request.empty())
            users[request].push_back(entry.name().empty() ? entry.id.key : entry.name());
    });
    return users;
}

int showResources(Session& session) {
    Inspect::Filter filter;  // the users are actions, whatever table is asked for
    filter.unit = session.wanted().unit;
    const auto fromAgent = session.system().agent.tryAsk({{"cmd", "resources"}});
    Json rows = Json::array();
    TextTable text({{"POOL"},
                    {"INDEX", Kind::right},
                    {"REQUEST"},
                    {"STATE"},
                    {"VERSION", Kind::right},
                    {"USED BY", Kind::flexible}});
    for (const Pool pool : Inspect::kPools) {
        std::map<std::string, std::string> states;
        const Json answer = fromAgent ? fromAgent->value(std::string(nameOf(pool)), Json::object())
                                      : Json::object();
        for (const Json& key : answer.value("keys", Json::array()))
            states[stringIn(key, "key")] = stringIn(key, "state");
        const auto users = usersOf(session, filter, pool);
        for (const ResourceRow& row : session.system().state.resources(pool, session.report())) {
            const auto state = states.find(row.request);
            const std::string stateText = row.isReturning         ? "returning"
                                          : state != states.end() ? state->second
                                                                  : "allocated";
            const auto user = users.find(row.request);
            if (filter.unit && user == users.end())
                continue;
            const std::vector<std::string> names =
                user == users.end() ? std::vector<std::string>() : user->second;
            rows.push_back({{"pool", nameOf(pool)},
                            {"index", row.index},
                            {"request", row.request},
                            {"state", stateText},
                            {"version", row.version},
                            {"users", names}});
            text.add({nameOf(pool),
                      row.index,
                      row.request,
                      {stateText, stateText == "allocated" ? Colour::none : Colour::yellow},
                      row.version,
                      fmt::format("{}", fmt::join(names, ", "))});
        }
    }
    if (session.json)
        return session.printed({{"resources", std::move(rows)}});
    text.print(session.out());
    return session.ended();
}

}  // namespace

void addShowCommands(CLI::App& app, Session& session) {
    CLI::App* const show = app.add_subcommand("show", "tables, entries, log, resources, …");
    show->require_subcommand(1)->fallthrough()->group("Looking");
    const auto add = [&](const char* name, const char* help, int (*run)(Session&)) {
        return addCommand(*show, session, name, help, [&session, run] { return run(session); });
    };
    addPlaceOptions(*add("tables", "entries, versions and log of each table", showTables), session);
    addFilterOptions(*add("entries", "committed entries, as hardware tries them", showEntries),
                     session);
    static std::string wantedKey;
    CLI::App* const entry = addCommand(*show, session, "entry", "one entry in full",
                                       [&session] { return showEntry(session, wantedKey); });
    entry->add_option("KEY", wantedKey, "key, label or name")->required();
    addPlaceOptions(*entry, session);
    addUnitOption(*add("resources", "counters and policers: index, request, users", showResources),
                  session);
    addTableOption(*add("acks", "what hardware has acknowledged", showAcks), session);
    addPlaceOptions(*add("units", "entries by unit", showUnits), session);
    addPlaceOptions(*add("handles", "changes that are not finished, oldest first (needs the agent)",
                         showHandles),
                    session);
    addPlaceOptions(*add("stats", "counters of each table (needs the agent)", showStats), session);
    add("alarms", "what is raised, and limits (needs the agent)", showAlarms);
}

}  // namespace Vorn
