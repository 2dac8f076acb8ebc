// vorn log and vorn state: what was done to the tables, and what they were.
#include <fmt/format.h>

#include "inspect/History.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"

namespace Vorn {

namespace {

using Inspect::kTables;
using Inspect::LogFigures;
using Inspect::PastTable;
using Inspect::Table;
using Inspect::ToldChange;

struct LogRange {
    std::uint64_t from = 1;
    std::uint64_t to = UINT64_MAX;
    std::uint64_t at = 0;
};

std::string keptText(const LogFigures& log) {
    if (!log.oldest)
        return fmt::format("newest version {}; no records are kept: all is acknowledged",
                           log.published);
    return fmt::format("records are kept from version {} on; the newest is {}", *log.oldest,
                       log.published);
}

Json keptJson(const LogFigures& log) {
    return {{"table", fullName(log.table)},
            {"published", log.published},
            {"keptFrom", log.oldest ? Json(*log.oldest) : Json(nullptr)}};
}

int printLog(Session& session, const LogRange& range) {
    const Inspect::Filter filter = session.wanted();
    Inspect::System& system = session.system();
    ProgressLine progress(!session.out().isTerminal());
    std::uint64_t seen = 0;
    const auto tell = [&](Table table, const std::function<void(const ToldChange&)>& visit) {
        tellChanges(
            system, table, range.from, range.to,
            [&](const ToldChange& told) {
                progress.show("changes", ++seen, 0);
                if (!filter.unit || *filter.unit == told.change.unit)
                    visit(told);
            },
            session.report());
    };
    Json logs = Json::array();
    if (session.json) {
        JsonList list(session.out(), session.source(), "changes");
        for (const Table table : kTables) {
            if (!filter.isMet(table))
                continue;
            logs.push_back(keptJson(system.state.log(table, session.report())));
            tell(table, [&](const ToldChange& told) { list.add(toJson(told)); });
        }
        list.end({{"logs", logs}, {"damages", session.damagesJson()}});
        return session.ended();
    }
    for (const Table table : kTables) {
        if (!filter.isMet(table))
            continue;
        TextTable text({{"VERSION", Kind::right},
                        {"UNIT", Kind::right},
                        {"DID"},
                        {"KEY"},
                        {"WHAT", Kind::flexible}});
        tell(table, [&](const ToldChange& told) {
            text.add({told.change.version, told.change.unit, operationText(told.change.operation),
                      told.change.key, toldText(told)});
        });
        const LogFigures log = system.state.log(table, [](const auto&) {});
        session.out().line(fmt::format(
            "{}: {}", session.out().painted(Colour::bold, shortName(table)), keptText(log)));
        if (!text.empty())
            text.print(session.out());
    }
    return session.ended();
}

void printPast(Session& session, Table table, const PastTable& past, std::uint64_t at) {
    const Output& out = session.out();
    out.line(fmt::format("{} at version {}: {} entries{}",
                         out.painted(Colour::bold, shortName(table)), at, past.entries.size(),
                         past.notKept.empty()
                             ? ""
                             : fmt::format(", and {} not kept any more", past.notKept.size())));
    if (!past.isWhole) {
        out.line(out.painted(Colour::yellow,
                             fmt::format("records are kept from version {} on: what was removed "
                                         "between is not listed",
                                         past.keptFrom)));
    }
    const ActionNames names = actionNames(session.system().state);
    TextTable text = entryTable(table);
    for (const Inspect::PastEntry& entry : past.entries) {
        Inspect::Entry shown{entry.id, entry.version, false, entry.content, {}, {}};
        auto row = entryRow(shown, UINT64_MAX, names);
        row.back() = TextTable::Cell(entry.fromHardware ? "in hardware" : "value");
        text.add(std::move(row));
    }
    for (const Inspect::EntryId& id : past.notKept) {
        Inspect::Entry shown{id, 0, false, Json::object(), {}, {}};
        auto row = entryRow(shown, UINT64_MAX, names);
        for (TextTable::Cell& cell : row)
            cell.text.clear();
        row[0].text = std::to_string(id.unit);
        row[1].text = id.key;
        row.back() = TextTable::Cell("not kept any more", Colour::yellow);
        text.add(std::move(row));
    }
    if (!text.empty())
        text.print(out);
}

int printState(Session& session, const LogRange& range) {
    const Inspect::Filter filter = session.wanted();
    Json tables = Json::array();
    ProgressLine progress(!session.out().isTerminal());
    std::map<Table, PastTable> pasts;  // all of them first: a question that is wrong prints nothing
    for (const Table table : kTables) {
        if (filter.isMet(table)) {
            progress.show("tables", pasts.size(), 0);
            pasts.emplace(
                table, pastTable(session.system(), table, filter.unit, range.at, session.report()));
        }
    }
    for (const auto& [table, past] : pasts) {
        if (!session.json) {
            printPast(session, table, past, range.at);
            continue;
        }
        Json one{{"table", fullName(table)}, {"at", range.at}};
        one.update(toJson(past));
        tables.push_back(std::move(one));
    }
    if (session.json)
        return session.printed({{"tables", std::move(tables)}});
    return session.ended();
}

CLI::App* addLog(CLI::App& parent, Session& session, LogRange& range) {
    CLI::App* const log =
        addCommand(parent, session, "log", "change records, decoded, with what they changed",
                   [&session, &range] { return printLog(session, range); });
    addPlaceOptions(*log, session);
    log->add_option("--from", range.from, "first version");
    log->add_option("--to", range.to, "last version");
    return log;
}

}  // namespace

void addLogCommands(CLI::App& app, Session& session) {
    static LogRange range;
    addLog(app, session, range)->group("Looking");
    addLog(*app.get_subcommand("show"), session, range);
    CLI::App* const state =
        addCommand(app, session, "state", "a table as of a version of its log, as far as known",
                   [&session] { return printState(session, range); });
    state->group("Looking");
    addPlaceOptions(*state, session);
    state->add_option("--at", range.at, "version of the table's log")->required();
}

}  // namespace Vorn
