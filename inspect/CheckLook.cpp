// Comparing what files and hardware say, once.
#include "inspect/CheckLook.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/History.h"
#include "inspect/Readers.h"
#include "process/KeyText.h"

namespace Inspect {

namespace {

using Kind = Difference::Kind;

Difference of(Kind kind, const EntryId& id, std::string detail) {
    return {kind, id, id.toText(), std::move(detail)};
}

/// The index of a pool that an action uses; nothing where it uses none.
std::optional<std::uint32_t> indexIn(const Entry& action, Pool pool) {
    const Json index = action.content.value(std::string(nameOf(pool)), Json());
    return index.is_number() ? std::optional(index.get<std::uint32_t>()) : std::nullopt;
}
const std::string& requestIn(const Entry& action, Pool pool) {
    return pool == Pool::counter ? action.counterRequest : action.policerRequest;
}

class Look {
public:
    Look(System& system, const CheckOptions& options, const Progress& progress)
        : system_(system), options_(options), progress_(progress) {}

    CheckResult result();

private:
    Report damaged() {
        return [this](const Damage& damage) { damages_.push_back(damage); };
    }
    void compareUnits();
    std::uint64_t entriesThere(const std::vector<std::uint16_t>& units) const;
    /// What hardware has of the unit. From the first time that it does not tell, it is compared no
    /// more.
    HeldEntries heldNow(std::uint16_t unit);
    void compareTable(Table table, std::uint16_t unit, const HeldEntries& held);
    void dropThoseThatWent(std::uint16_t unit, std::vector<Difference>& found);
    /// Finds which keys the rotten slots of a unit hold: those whose look-up meets them.
    void nameRottenValues(Table table, std::uint16_t unit, const HeldEntries& held);
    void compareLog(Table table);
    std::vector<std::pair<Difference, std::uint64_t>> lostValues(
        Table table, const std::map<EntryId, Change>& last);
    void comparePools();
    bool isQuiet();

    System& system_;
    const CheckOptions& options_;
    const Progress& progress_;
    CheckResult result_;
    Acknowledgements acks_;
    std::vector<Damage> damages_;
    std::uint64_t seen_ = 0;                 ///< entries
    std::vector<Entry> actions_;             ///< of all units
    std::map<EntryId, std::uint64_t> live_;  ///< versions; values in deletion left out
    std::set<EntryId> rotten_;
    std::set<std::pair<Table, std::uint16_t>> unsure_;  ///< units with values that nobody can read
};

CheckResult Look::result() {
    result_.looks = 1;
    acks_ = system_.state.acknowledgements(damaged());
    if (!system_.hardware.runs())
        result_.notes.push_back("hardware is not compared: " + system_.hardware.reason());
    result_.hardwareCompared = system_.hardware.runs();
    compareUnits();
    for (const Table table : kTables) {
        if (!options_.table || *options_.table == table)
            compareLog(table);
    }
    // A pool serves all units: one alone does not tell whose an index is.
    if (!options_.unit && (!options_.table || *options_.table == Table::action))
        comparePools();
    for (const Damage& damage : damages_) {
        result_.differences.push_back(
            {Kind::damagedFile, std::nullopt, damage.what, std::string(kindText(damage.kind))});
    }
    return std::move(result_);
}

void Look::compareUnits() {
    std::vector<std::uint16_t> units = system_.state.units();
    std::erase_if(units, [&](std::uint16_t unit) { return options_.unit.value_or(unit) != unit; });
    const std::uint64_t there = entriesThere(units);
    for (const std::uint16_t unit : units) {
        const HeldEntries held = heldNow(unit);
        for (const Table table : kTables) {
            progress_("entries", seen_, there);
            if (options_.table.value_or(table) == table || table == Table::action)
                compareTable(table, unit, held);
        }
    }
    progress_("entries", seen_, there);
}

std::uint64_t Look::entriesThere(const std::vector<std::uint16_t>& units) const {
    std::uint64_t there = 0;
    for (const std::uint16_t unit : units) {
        for (const Table table : kTables) {
            if (options_.table.value_or(table) != table && table != Table::action)
                continue;
            const auto count =
                system_.state.count(table, unit, [](const Damage& /*told when it is compared*/) {});
            there += count.live + count.inDeletion;
        }
    }
    return there;
}

HeldEntries Look::heldNow(std::uint16_t unit) {
    const auto isNotCompared = [&](const std::exception& error) {
        result_.hardwareCompared = false;
        result_.notes.push_back(
            fmt::format("hardware is not compared from unit {} on: {}", unit, error.what()));
        return HeldEntries();
    };
    if (!result_.hardwareCompared)
        return {};
    try {
        return heldOn(system_.hardware, unit);
    } catch (const NotRunningError& error) {
        return isNotCompared(error);
    } catch (const RefusedError& error) {
        return isNotCompared(error);
    }
}

/// Hardware was asked before the values were read: what it had may have been removed in between.
/// What it still has alike is a stray.
void Look::dropThoseThatWent(std::uint16_t unit, std::vector<Difference>& found) {
    const auto isStray = [](const Difference& difference) {
        return difference.kind == Kind::strayInHardware;
    };
    if (!std::ranges::any_of(found, isStray))
        return;
    const HeldEntries held = heldNow(unit);
    if (!result_.hardwareCompared)
        return;
    std::erase_if(found, [&](const Difference& difference) {
        return isStray(difference) && !held.contains(*difference.id);
    });
}

void Look::compareTable(Table table, std::uint16_t unit, const HeldEntries& held) {
    const std::size_t damagesBefore = damages_.size();
    const std::vector<Entry> values = system_.state.entries(table, unit, damaged());
    seen_ += values.size();
    for (const Entry& value : values) {
        if (!value.inDeletion)
            live_.emplace(value.id, value.version);
    }
    if (table == Table::action)
        actions_.insert(actions_.end(), values.begin(), values.end());
    if (damages_.size() != damagesBefore)
        nameRottenValues(table, unit, held);
    if (options_.table && *options_.table != table)
        return;
    result_.entries += values.size();
    if (!result_.hardwareCompared)
        return;
    std::vector<Difference> found;
    compareWithHardware(values, held, table, acks_.of(table).value_or(0), found);
    std::erase_if(found, [&](const Difference& difference) {
        // Hardware keeps what it has of a value that cannot be read.
        return difference.kind == Kind::strayInHardware &&
               (rotten_.contains(*difference.id) || unsure_.contains({table, unit}));
    });
    dropThoseThatWent(unit, found);
    result_.differences.insert(result_.differences.end(), found.begin(), found.end());
}

void Look::nameRottenValues(Table table, std::uint16_t unit, const HeldEntries& held) {
    std::set<EntryId> candidates;
    for (const auto& [id, entry] : held) {
        if (id.table == table && !live_.contains(id))
            candidates.insert(id);
    }
    const Report ignored = [](const Damage&) {};
    system_.state.changes(
        table, 1, UINT64_MAX,
        [&](const Change& change) {
            const EntryId id{table, change.unit, change.key};
            if (change.unit == unit && change.operation == Change::Operation::written &&
                !live_.contains(id)) {
                candidates.insert(id);
            }
        },
        ignored);
    State::Lookup lookup;
    if (!reporting(ignored, [&] { lookup = system_.state.lookup(table, unit); }))
        return;
    for (const EntryId& id : candidates) {
        reporting(
            [&](const Damage& damage) {
                const auto slot = std::ranges::find(damages_, damage);
                if (slot == damages_.end() || damage.kind != Damage::Kind::rotten)
                    return;
                damages_.erase(slot);
                rotten_.insert(id);
                result_.differences.push_back(of(Kind::rottenValue, id, damage.what));
            },
            [&] { (void)lookup(id.key); });
    }
    const auto isOfUnit = [&](const Damage& damage) {
        const std::string file = withTypes(table, [&]<class Types>() {
            return system_.state.group().configFile<Types>(Asic::UnitId{unit});
        });
        return damage.what.starts_with(file);
    };
    for (auto damage = damages_.begin(); damage != damages_.end();) {
        if (!isOfUnit(*damage) || damage->kind != Damage::Kind::rotten) {
            ++damage;
            continue;
        }
        unsure_.insert({table, unit});
        result_.differences.push_back(
            {Kind::rottenValue, std::nullopt,
             fmt::format("{} unit {}, key not known", shortName(table), unit), damage->what});
        damage = damages_.erase(damage);
    }
}

/// The looks before took their time, in which hardware may have acknowledged what they saw; so it
/// is asked again before the records are read, and after.
void Look::compareLog(Table table) {
    acks_ = system_.state.acknowledgements(damaged());
    const std::uint64_t before = acks_.of(table).value_or(0);
    const LogFigures log = system_.state.log(table, damaged());
    result_.records += log.records;
    if (before > log.published) {
        result_.differences.push_back(
            {Kind::acknowledgedBeyond, std::nullopt, std::string(shortName(table)),
             fmt::format("version {} is acknowledged, {} is the newest", before, log.published)});
        return;
    }
    std::map<EntryId, Change> last;
    std::set<std::uint64_t> found;
    system_.state.changes(
        table, before + 1, log.published,
        [&](const Change& change) {
            found.insert(change.version);
            last[{table, change.unit, change.key}] = change;
        },
        [](const Damage&) {});
    const auto lost = lostValues(table, last);
    acks_ = system_.state.acknowledgements(damaged());
    const std::uint64_t after = std::min(acks_.of(table).value_or(0), log.published);
    result_.onTheirWay += log.published - after;
    for (const auto& [difference, version] : lost) {
        if (version > after)
            result_.differences.push_back(difference);
    }
    const auto kept =
        static_cast<std::uint64_t>(std::distance(found.upper_bound(after), found.end()));
    if (kept < log.published - after) {
        result_.differences.push_back(
            {Kind::missingRecord, std::nullopt, std::string(shortName(table)),
             fmt::format("{} of versions {} to {}", log.published - after - kept, after + 1,
                         log.published)});
    }
}

/// Keys whose last record says written and that have no value of it, each with the record's
/// version.
std::vector<std::pair<Difference, std::uint64_t>> Look::lostValues(
    Table table, const std::map<EntryId, Change>& last) {
    std::vector<std::pair<Difference, std::uint64_t>> lost;
    std::map<std::uint16_t, State::Lookup> lookups;
    const auto versionOf = [&](const EntryId& id) {
        std::uint64_t version = 0;
        const bool isRead = reporting([](const Damage& /*told with the entries*/) {},
                                      [&] {
                                          State::Lookup& lookup = lookups[id.unit];
                                          if (!lookup)
                                              lookup = system_.state.lookup(table, id.unit);
                                          if (const auto value = lookup(id.key))
                                              version = value->version;
                                      });
        return isRead ? version : UINT64_MAX;
    };
    for (const auto& [id, change] : last) {
        if (change.operation != Change::Operation::written || rotten_.contains(id) ||
            unsure_.contains({table, id.unit}) || (options_.unit && *options_.unit != id.unit)) {
            continue;
        }
        const auto removal = last.find({table, id.unit, {}});
        if (removal != last.end() && removal->second.version > change.version)
            continue;
        if (versionOf(id) < change.version) {
            lost.emplace_back(
                of(Kind::lostValue, id, fmt::format("written as version {}", change.version)),
                change.version);
        }
    }
    return lost;
}

/// Requests of changes that are staged have no entry yet.
bool Look::isQuiet() {
    const auto status = system_.agent.tryAsk({{"cmd", "status"}});
    return !status || status->value("queued", 0) == 0;
}

void Look::comparePools() {
    const bool quiet = isQuiet();
    for (const Pool pool : kPools) {
        const auto records = system_.state.resources(pool, damaged());
        result_.indexes += records.size();
        compareIndexes(actions_, records, pool, acks_.of(Table::action).value_or(0), quiet,
                       result_.differences);
    }
}

}  // namespace

void compareWithHardware(const std::vector<Entry>& values, const HeldEntries& held, Table table,
                         std::uint64_t acknowledged, std::vector<Difference>& differences) {
    std::set<EntryId> known;
    const auto differs = [&](Kind kind, const Entry& value, std::string detail) {
        differences.push_back(of(kind, value.id, std::move(detail)));
    };
    for (const Entry& value : values) {
        known.insert(value.id);
        const auto found = held.find(value.id);
        const bool isHeld = found != held.end();
        if (value.version > acknowledged)
            continue;  // on its way
        if (value.inDeletion) {
            if (isHeld)
                differs(Kind::strayInHardware, value,
                        fmt::format("removed at version {}, held as version {}", value.version,
                                    found->second.version));
        } else if (!isHeld) {
            differs(Kind::missingInHardware, value, fmt::format("version {}", value.version));
        } else if (found->second.version < value.version &&
                   found->second.content != value.content) {
            differs(Kind::olderInHardware, value,
                    fmt::format("version {}, not {}", found->second.version, value.version));
        } else if (found->second.content != value.content) {
            differs(
                Kind::otherInHardware, value,
                fmt::format("from hardware to table: {}",
                            fmt::join(changesBetween(found->second.content, value.content), ", ")));
        }
    }
    for (const auto& [id, entry] : held) {
        if (id.table == table && !known.contains(id))
            differences.push_back(
                of(Kind::strayInHardware, id, fmt::format("held as version {}", entry.version)));
    }
}

void compareIndexes(const std::vector<Entry>& actions, const std::vector<ResourceRow>& records,
                    Pool pool, std::uint64_t acknowledged, bool quiet,
                    std::vector<Difference>& differences) {
    std::map<std::uint32_t, const ResourceRow*> byIndex;
    std::map<std::string, std::vector<const ResourceRow*>> byRequest;
    for (const ResourceRow& row : records) {
        byIndex[row.index] = &row;
        if (!row.isReturning)
            byRequest[row.request].push_back(&row);
    }
    std::map<std::uint32_t, std::set<std::string>> usersOf;
    std::set<std::string> wanted;
    for (const Entry& action : actions) {
        const std::string& request = requestIn(action, pool);
        const auto index = indexIn(action, pool);
        if (!request.empty())
            wanted.insert(request);
        // Its indexes return, or are on their way.
        if (!index || action.inDeletion || action.version > acknowledged)
            continue;
        usersOf[*index].insert(request);
        const auto record = byIndex.find(*index);
        if (record == byIndex.end() || record->second->request != request ||
            record->second->isReturning) {
            differences.push_back(
                of(Kind::strayIndex, action.id,
                   fmt::format("{} {}: the pool has it {}", nameOf(pool), *index,
                               record == byIndex.end()       ? "free"
                               : record->second->isReturning ? "returning"
                                                             : "for " + record->second->request)));
        }
    }
    const auto named = [&](std::string subject, Kind kind, std::string detail) {
        differences.push_back({kind, std::nullopt, std::move(subject), std::move(detail)});
    };
    for (const auto& [index, requests] : usersOf) {
        if (requests.size() > 1)
            named(fmt::format("{} {}", nameOf(pool), index), Kind::indexTwice,
                  fmt::format("by requests {}", fmt::join(requests, ", ")));
    }
    for (const auto& [request, rows] : byRequest) {
        if (rows.size() > 1)
            named(fmt::format("{} request {}", nameOf(pool), request), Kind::requestTwice,
                  fmt::format("indexes {} and {}", rows[0]->index, rows[1]->index));
        if (quiet && !wanted.contains(request))
            named(fmt::format("{} {}", nameOf(pool), rows[0]->index), Kind::indexWithoutUser,
                  fmt::format("allocated to request {}", request));
    }
}

CheckResult checkOnce(System& system, const CheckOptions& options, const Progress& progress) {
    return Look(system, options, progress).result();
}

}  // namespace Inspect
