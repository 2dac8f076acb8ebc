// Changes that are not finished, counters and alarms, as the agent tells them.
#include "tools/vorn/ShowAgent.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

#include "tools/vorn/ShowText.h"

namespace Vorn {

namespace {

/// Why a change is not finished: what it waits for, or where it is.
std::string waitText(const Json& change) {
    const Json waits = change.value("waitsFor", Json());
    if (waits.is_object())
        return stringIn(waits, "text");
    return stringIn(change, "state") == "inLog" ? "hardware" : "its turn";
}

std::string ageIn(const Json& object, const std::string& name) {
    const auto age = object.find(name);
    return age != object.end() && age->is_number() ? ageText(age->get<double>()) : "-";
}

bool isRaised(const Json& alarm) {
    return alarm.value("raised", false);
}

Json wantedTables(const Json& tables, const Inspect::Filter& filter) {
    Json wanted = Json::array();
    for (Json table : tables) {
        const auto known = Inspect::tableFromText(stringIn(table, "table"));
        if (known && !filter.isMet(*known))
            continue;
        Json units = Json::array();
        for (const Json& unit : table.at("units")) {
            if (!filter.unit || unit.at("unit") == *filter.unit)
                units.push_back(unit);
        }
        table["units"] = std::move(units);
        wanted.push_back(std::move(table));
    }
    return wanted;
}

/// A table by its short name.
std::string subjectOf(const Json& alarm) {
    const std::string subject = stringIn(alarm, "subject");
    const auto table = Inspect::tableFromText(subject);
    return table ? std::string(shortName(*table)) : subject;
}

std::string valueIn(const Json& alarm, const std::string& name) {
    const double value = alarm.value(name, 0.0);
    return stringIn(alarm, "unit") == "ratio" ? fmt::format("{:.1f} %", value * 100)
                                              : ageText(value);
}

std::string sinceText(const Json& alarm) {
    const auto since = alarm.find("sinceTime");
    if (since == alarm.end() || !since->is_number())
        return "-";
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return ageText(std::chrono::duration<double>(now).count() - since->get<double>());
}

}  // namespace

int showHandles(Session& session) {
    const Inspect::Filter filter = session.wanted();
    Json request{{"cmd", "changes"}};
    if (filter.table)
        request["table"] = fullName(*filter.table);
    if (filter.unit)
        request["unit"] = *filter.unit;
    const Json answer = session.askAgent(request);
    if (session.json) {
        return session.printed({{"total", answer.value("total", 0)},
                                {"changes", answer.value("changes", Json::array())}});
    }
    const Json changes = answer.value("changes", Json::array());
    using Column = TextTable::Column::Kind;
    TextTable text({{"AGE", Column::right},
                    {"STATE"},
                    {"CHANGE"},
                    {"VERSION", Column::optional},
                    {"WAITS FOR", Column::flexible}});
    for (const Json& change : changes) {
        text.add({ageIn(change, "age_s"), stringIn(change, "state"), changeText(change),
                  numberText(change, "logVersion"), waitText(change)});
    }
    session.out().line(fmt::format("{} not finished", numberText(answer, "total")));
    if (!text.empty())
        text.print(session.out());
    if (answer.value("total", std::size_t{0}) > changes.size())
        session.out().line(fmt::format("… the oldest {} are shown", changes.size()));
    return session.ended();
}

int showStats(Session& session) {
    const Inspect::Filter filter = session.wanted();
    Json status = session.askAgent({{"cmd", "status"}});
    status["tables"] = wantedTables(status.at("tables"), filter);
    if (session.json)
        return session.printed({{"status", status}});
    using Column = TextTable::Column::Kind;
    TextTable text({{"TABLE"},
                    {"UNIT", Column::right},
                    {"ENTRIES", Column::right},
                    {"WRITES", Column::right},
                    {"REMOVES", Column::right},
                    {"COMMITS", Column::right},
                    {"SAME", Column::right},
                    {"UPDATES", Column::right},
                    {"UNRESOLVED", Column::right}});
    for (const Json& table : status.at("tables")) {
        for (const Json& unit : table.at("units")) {
            const Json stats = unit.value("stats", Json::object());
            text.add({std::string(shortName(*Inspect::tableFromText(stringIn(table, "table")))),
                      numberText(unit, "unit"), numberText(unit, "entries"),
                      numberText(stats, "entryWrite"), numberText(stats, "entryRemove"),
                      numberText(stats, "commit"), numberText(stats, "suppressedWrite"),
                      numberText(stats, "update"), numberText(stats, "resolveFail")});
        }
    }
    text.print(session.out());
    const Json load = status.value("load", Json::object());
    session.out().line();
    session.out().line(fmt::format(
        "queued {}, announcements waiting {}, corruptions {}", numberText(status, "queued"),
        numberText(status, "announcementsWaiting"), numberText(status, "corruptions")));
    session.out().line(fmt::format("load {} of {}: {} written, {} removed, {} unchanged, {} failed",
                                   numberText(load, "number"), stringIn(load, "policy"),
                                   numberText(load, "written"), numberText(load, "removed"),
                                   numberText(load, "unchanged"), numberText(load, "failed")));
    return session.ended();
}

int showAlarms(Session& session) {
    const Json alarms = session.askAgent({{"cmd", "alarms"}}).value("alarms", Json::array());
    const bool isAnyRaised = std::any_of(alarms.begin(), alarms.end(), isRaised);
    const int code = isAnyRaised ? kFound : kDone;
    if (session.json)
        return session.printed({{"alarms", alarms}}, code);
    using Column = TextTable::Column::Kind;
    TextTable text({{"ALARM"},
                    {"OF"},
                    {"STATE"},
                    {"VALUE", Column::right},
                    {"LIMIT", Column::right},
                    {"CLEARS AT", Column::right},
                    {"SINCE", Column::right}});
    for (const bool raised : {true, false}) {
        for (const Json& alarm : alarms) {
            if (isRaised(alarm) != raised)
                continue;
            text.add({stringIn(alarm, "name"), subjectOf(alarm),
                      raised ? TextTable::Cell("raised", Colour::red) : TextTable::Cell("clear"),
                      valueIn(alarm, "value"), valueIn(alarm, "limit"), valueIn(alarm, "clear"),
                      raised ? sinceText(alarm) : ""});
        }
    }
    if (!text.empty())
        text.print(session.out());
    else
        session.out().line("no alarms are watched");
    return session.ended(code);
}

}  // namespace Vorn
