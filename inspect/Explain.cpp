// One entry's story put together from files and processes.
#include "inspect/Explain.h"

#include <chrono>
#include <thread>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Find.h"
#include "inspect/Readers.h"
#include "platform/kivshimo/AnnounceLog.h"

namespace Inspect {

namespace {

constexpr std::array<std::string_view, 10> kStandings{
    "rotten",   "cycle",       "waits",      "failed",  "missing",
    "underWay", "unconfirmed", "inHardware", "removed", "absent"};

/// Why what was wanted last has failed; nothing where it has not.
std::optional<std::string> failureIn(const Json& answer) {
    const Json staged = answer.value("staged", Json());
    const bool isStagedFailed = staged.is_object() && staged.value("failed", false);
    for (const Json& reason : {isStagedFailed ? staged.value("reason", Json()) : Json(),
                               answer.value("failure", Json())}) {
        if (reason.is_string())
            return reason.get<std::string>();
    }
    return isStagedFailed ? std::optional<std::string>("the agent does not say why") : std::nullopt;
}

void askAgent(System& system, Explanation& story) {
    const EntryId& id = story.id;
    story.agentRuns = system.agent.runs();
    const auto answer = system.agent.tryAsk(
        {{"cmd", "explain"}, {"table", fullName(id.table)}, {"unit", id.unit}, {"key", id.key}},
        &story.agentSilence);
    if (!answer)
        return;
    story.changes = answer->value("changes", Json::array());
    story.chain = answer->value("chain", Json::array());
    story.stages = answer->value("stages", Json::array());
    story.isCycle = answer->value("cycle", false);
    if (const auto root = answer->find("root"); root != answer->end() && root->is_string())
        story.root = root->get<std::string>();
    story.staged = answer->value("staged", Json());
    story.failure = failureIn(*answer);
    story.name = stagedName(*answer);
    const Json age = answer->value("unacknowledged", Json::object()).value("oldest_s", Json());
    if (age.is_number())
        story.oldest_s = age.get<double>();
}

void askHardware(System& system, Explanation& story) {
    story.hardwareRuns = system.hardware.runs();
    story.hardwareSilence.clear();
    story.held.reset();
    try {
        story.held = heldFor(system.hardware, story.id);
    } catch (const NotRunningError& error) {
        story.hardwareSilence = error.what();
    } catch (const RefusedError& error) {
        story.hardwareSilence = error.what();
    }
}

/// Of what is announced and not consumed yet: where the change is, and what it needs that is not
/// acknowledged.
void findAnnouncement(const System& system, const Acknowledgements& acks, std::uint64_t version,
                      Explanation& story, const Report& report) {
    reporting(report, [&] {
        const auto log =
            KivShimo::AnnounceLogReader::open(system.state.group().announcementsFile());
        if (!log)
            return;
        const std::uint64_t tail = log->tail();
        for (std::uint64_t position = acks.consumed; position < tail;) {
            const auto announced = log->next(position + 1);
            if (!announced)
                return;
            position = announced->position;
            if (announced->tableId != tableId(story.id.table) || announced->version != version)
                continue;
            story.announcedAt = position;
            for (const KivShimo::NeededVersion& needed : announced->needed) {
                const auto row =
                    std::ranges::find(acks.rows, needed.tableId, &Acknowledgement::tableId);
                if (row == acks.rows.end() || row->version < needed.version) {
                    story.needs.push_back(fmt::format(
                        "{} version {}", nameOfTableId(needed.tableId), needed.version));
                }
            }
            return;
        }
    });
}

void readFiles(const System& system, Explanation& story) {
    story.damages.clear();
    story.committed.reset();
    story.before = 0;
    story.announcedAt.reset();
    story.needs.clear();
    const Report report = [&](const Damage& damage) { story.damages.push_back(damage); };
    const bool whole = reporting(report, [&] { story.committed = system.state.entry(story.id); });
    story.standing = whole ? Standing::absent : Standing::rotten;
    const Acknowledgements acks = system.state.acknowledgements(report);
    story.acknowledged = acks.of(story.id.table);
    story.pauseRequested = acks.pauseRequested;
    story.published = system.state.log(story.id.table, report).published;
    if (!story.committed)
        return;
    if (story.name.empty())
        story.name = story.committed->name();
    const std::uint64_t version = story.committed->version;
    const std::uint64_t from = story.acknowledged.value_or(0) + 1;
    if (version < from)
        return;
    system.state.changes(
        story.id.table, from, version - 1, [&](const Change&) { ++story.before; }, report);
    findAnnouncement(system, acks, version, story, report);
}

bool hasStaged(const Explanation& story) {
    return std::ranges::any_of(story.changes, [](const Json& change) {
        return change.value("state", std::string()) == "staged";
    });
}

std::string whatIsAwaited(const Explanation& story) {
    if (story.root)
        return *story.root;
    for (const Json& change : story.chain) {
        const Json waits = change.value("waitsFor", Json());
        if (waits.is_object())
            return waits.value("text", std::string("something the agent does not name"));
    }
    return "its turn";
}

Standing committedStanding(const Explanation& story) {
    if (!story.committed)
        return story.held ? Standing::missing : Standing::absent;
    const Entry& entry = *story.committed;
    if (entry.version > story.acknowledged.value_or(0))
        return Standing::underWay;
    if (!story.hardwareSilence.empty())
        return entry.inDeletion ? Standing::removed : Standing::unconfirmed;
    if (entry.inDeletion)
        return story.held ? Standing::missing : Standing::removed;
    const bool same = story.held && story.held->content == entry.content;
    return same ? Standing::inHardware : Standing::missing;
}

Standing standingOf(const Explanation& story) {
    if (story.standing == Standing::rotten)
        return Standing::rotten;
    if (story.isCycle)
        return Standing::cycle;
    if (hasStaged(story))
        return Standing::waits;
    return story.failure ? Standing::failed : committedStanding(story);
}

std::string underWayText(const Explanation& story) {
    const Entry& entry = *story.committed;
    std::string text =
        fmt::format("{} as version {}, not acknowledged yet: ",
                    entry.inDeletion ? "its removal is committed" : "committed", entry.version);
    if (!story.hardwareRuns) {
        text += "the hardware side does not run";
        return story.before == 0 ? text : fmt::format("{}, {} before it", text, story.before);
    }
    if (!story.needs.empty())
        return text + fmt::format("hardware needs {} first", fmt::join(story.needs, ", "));
    if (story.before != 0) {
        text += fmt::format("{} {} before it", story.before,
                            story.before == 1 ? "change is" : "changes are");
        if (story.oldest_s)
            text += fmt::format(", the oldest {:.1f} s old", *story.oldest_s);
        return text;
    }
    return text + "hardware is programming it";
}

std::string missingText(const Explanation& story) {
    constexpr std::string_view kMend = "; see vorn check --repair";
    if (!story.committed)
        return fmt::format("hardware holds it (version {}), but the table has no such entry{}",
                           story.held->version, kMend);
    if (story.committed->inDeletion)
        return fmt::format(
            "removed at version {}, which is acknowledged, but hardware still "
            "holds version {}{}",
            story.committed->version, story.held->version, kMend);
    if (!story.held)
        return fmt::format("missing in hardware although version {} is acknowledged{}",
                           story.committed->version, kMend);
    return fmt::format(
        "hardware holds another entry (version {}) than the acknowledged version "
        "{}{}",
        story.held->version, story.committed->version, kMend);
}

std::string failedText(const Explanation& story) {
    const bool isThere = story.committed && !story.committed->inDeletion;
    const std::string stays =
        isThere ? fmt::format("; version {} stays committed", story.committed->version) : "";
    return fmt::format("failed: {}, the next reload tries again{}", *story.failure, stays);
}

std::string verdictOf(const Explanation& story) {
    switch (story.standing) {
        case Standing::rotten:
            return "its committed value cannot be read: " + story.damages.front().what;
        case Standing::cycle:
            return "waits for itself, in a cycle: " + whatIsAwaited(story);
        case Standing::waits:
            return "waits for: " + whatIsAwaited(story);
        case Standing::failed:
            return failedText(story);
        case Standing::missing:
            return missingText(story);
        case Standing::underWay:
            return underWayText(story);
        case Standing::unconfirmed:
            return fmt::format(
                "acknowledged as version {}; what hardware holds now is not known: "
                "{}",
                story.committed->version, story.hardwareSilence);
        case Standing::inHardware:
            return fmt::format("in hardware since version {}", story.held->version);
        case Standing::removed:
            return fmt::format("removed at version {}", story.committed->version);
        case Standing::absent:
            break;
    }
    return story.agentSilence.empty()
               ? "there is no such entry: neither staged, nor committed, nor in hardware"
               : "there is no such committed entry";
}

}  // namespace

std::string_view standingText(Standing standing) {
    return kStandings.at(static_cast<std::size_t>(standing));
}

namespace {

/// The version of the entry's value now; 0 where there is none, or none that can be read.
std::uint64_t versionNow(const System& system, const EntryId& id) {
    std::optional<Entry> entry;
    reporting([](const Damage& /*the look before has told it*/) {},
              [&] { entry = system.state.entry(id); });
    return entry ? entry->version : 0;
}

/// Value, acknowledgements and hardware are read one after the other. What they seem to disagree
/// about is a fault only where the value was the same before and after.
void lookAtEntry(System& system, Explanation& story) {
    constexpr unsigned kTries = 20;
    constexpr std::chrono::milliseconds kPause{5};
    for (unsigned tries = 0; tries < kTries; ++tries) {
        readFiles(system, story);
        askHardware(system, story);
        story.standing = standingOf(story);
        const std::uint64_t version = story.committed ? story.committed->version : 0;
        if (story.standing != Standing::missing || versionNow(system, story.id) == version)
            return;
        std::this_thread::sleep_for(kPause);
    }
    story.held.reset();
    story.hardwareSilence = "the entry has changed each time that hardware was asked";
    story.standing = standingOf(story);
}

}  // namespace

Explanation explain(System& system, const EntryId& id) {
    Explanation story;
    story.id = id;
    askAgent(system, story);
    lookAtEntry(system, story);
    story.verdict = verdictOf(story);
    return story;
}

namespace {

template <class Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json committedJson(const std::optional<Entry>& entry) {
    if (!entry)
        return nullptr;
    return {
        {"version", entry->version}, {"inDeletion", entry->inDeletion}, {"entry", entry->content}};
}

}  // namespace

Json toJson(const Explanation& story) {
    Json damages = Json::array();
    for (const Damage& damage : story.damages)
        damages.push_back({{"kind", kindText(damage.kind)}, {"what", damage.what}});
    const Json held = story.held
                          ? Json{{"version", story.held->version}, {"entry", story.held->content}}
                          : Json(nullptr);
    return {{"table", fullName(story.id.table)},
            {"unit", story.id.unit},
            {"key", story.id.key},
            {"name", story.name},
            {"standing", standingText(story.standing)},
            {"verdict", story.verdict},
            {"agentRuns", story.agentRuns},
            {"staged", story.staged},
            {"failure", orNull(story.failure)},
            {"changes", story.changes},
            {"chain", story.chain},
            {"root", orNull(story.root)},
            {"cycle", story.isCycle},
            {"stages", story.stages},
            {"committed", committedJson(story.committed)},
            {"published", story.published},
            {"acknowledged", orNull(story.acknowledged)},
            {"unacknowledgedBefore", story.before},
            {"oldest_s", orNull(story.oldest_s)},
            {"announcedAt", orNull(story.announcedAt)},
            {"needs", story.needs},
            {"pauseRequested", story.pauseRequested},
            {"hardwareRuns", story.hardwareRuns},
            {"hardware", held},
            {"damages", std::move(damages)}};
}

}  // namespace Inspect
