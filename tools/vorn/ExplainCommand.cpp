// vorn explain: why an entry is, or is not, in hardware.
#include <fmt/format.h>

#include "inspect/Explain.h"
#include "inspect/Find.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"

namespace Vorn {

namespace {

using Inspect::Explanation;
using Inspect::Standing;

struct Question {
    std::string table;
    std::uint16_t unit = 0;
    std::string key;
};

bool isGood(Standing standing) {
    return standing == Standing::inHardware || standing == Standing::removed;
}

Colour colourOf(Standing standing) {
    if (isGood(standing))
        return Colour::green;
    const bool isMoving = standing == Standing::underWay || standing == Standing::waits ||
                          standing == Standing::unconfirmed;
    return isMoving ? Colour::yellow : Colour::red;
}

class Story {
public:
    Story(const Output& out, const Explanation& story) : out_(out), story_(story) {}

    void print() const {
        for (const std::string& line : wrapped(story_.verdict, roomBehind(0)))
            out_.line(out_.painted(colourOf(story_.standing), line));
        out_.line();
        const std::string name = story_.name.empty() ? "" : " (" + story_.name + ")";
        part("entry", story_.id.toText() + name);
        printStaged();
        printChain();
        printCommitted();
        printHardware();
        for (const Json& stage : story_.stages) {
            part("time", fmt::format("{} for {}", stringIn(stage, "stage"),
                                     ageText(stage.value("seconds", 0.0))));
        }
        for (const Inspect::Damage& damage : story_.damages)
            part("damage", damage.what);
    }

private:
    /// Width of the text behind so many columns; without end in a pipe.
    std::size_t roomBehind(std::size_t indent) const {
        return out_.isTerminal() && out_.width() > 2 * indent ? out_.width() - indent : SIZE_MAX;
    }

    /// A name in front of its first line; long lines are wrapped below it on a terminal.
    void part(std::string_view name, const std::string& text) const {
        constexpr std::size_t kIndent = 14;
        for (const std::string& line : wrapped(text, roomBehind(kIndent))) {
            out_.line(fmt::format("  {:<12}{}", name, line));
            name = {};
        }
    }

    static std::string waitsText(const Json& change) {
        const Json waits = change.value("waitsFor", Json());
        return waits.is_object() ? ", waits for " + stringIn(waits, "text") : std::string();
    }

    void printStaged() const {
        if (!story_.agentRuns) {
            part("staged", "not known: what was staged went with the agent");
            return;
        }
        if (!story_.agentSilence.empty()) {
            part("staged", "not known: " + story_.agentSilence);
            return;
        }
        bool isAny = false;
        for (const Json& change : story_.changes) {
            if (stringIn(change, "state") != "staged")
                continue;
            isAny = true;
            part("staged", fmt::format("{}, change {}, since {}{}", stringIn(change, "operation"),
                                       stringIn(change, "entryVersion"),
                                       ageText(change.value("age_s", 0.0)), waitsText(change)));
        }
        const Json entry =
            story_.staged.is_object() ? story_.staged.value("entry", Json()) : Json();
        if (entry.is_object())
            part(isAny ? "" : "staged", entryText(entry));
        if (story_.failure)
            part("failed", *story_.failure);
        if (!isAny && !entry.is_object())
            part("staged", "nothing");
    }

    void printChain() const {
        // The first is the entry's own change.
        std::size_t number = 0;
        for (const Json& change : story_.chain) {
            if (number++ == 0)
                continue;
            part(number == 2 ? "behind" : "",
                 fmt::format("{} ({}, {}){}", changeText(change), stringIn(change, "state"),
                             ageText(change.value("age_s", 0.0)), waitsText(change)));
        }
        if (story_.root)
            part("root", *story_.root);
        if (story_.isCycle)
            part("cycle", "the last of these waits for one before it: none can go on");
    }

    void printCommitted() const {
        if (!story_.committed) {
            if (story_.standing != Standing::rotten)
                part("committed", "no value");
        } else {
            part("committed", fmt::format("version {}{}", story_.committed->version,
                                          story_.committed->inDeletion ? ", in deletion" : ""));
            part("", entryText(story_.committed->content));
        }
        const std::string acknowledged =
            story_.acknowledged ? std::to_string(*story_.acknowledged) : "none";
        part("log",
             fmt::format("newest version {}, acknowledged {}", story_.published, acknowledged));
        if (story_.announcedAt)
            part("announced",
                 fmt::format("at position {}{}", *story_.announcedAt,
                             story_.needs.empty() ? ""
                                                  : fmt::format("; needs {} in hardware first",
                                                                fmt::join(story_.needs, ", "))));
        if (story_.before != 0)
            part("ahead", fmt::format("{} unacknowledged {} before it", story_.before,
                                      story_.before == 1 ? "change" : "changes"));
        if (story_.oldest_s)
            part("oldest",
                 fmt::format("unacknowledged change of the table: {}", ageText(*story_.oldest_s)));
        if (story_.pauseRequested)
            part("pause", "the hardware side has asked the agent to pause");
    }

    void printHardware() const {
        if (!story_.hardwareSilence.empty()) {
            part("hardware", story_.hardwareSilence);
        } else if (!story_.held) {
            part("hardware", "has no such entry");
        } else {
            part("hardware", fmt::format("holds version {}", story_.held->version));
            if (!story_.committed || story_.committed->content != story_.held->content)
                part("", entryText(story_.held->content));
        }
    }

    const Output& out_;
    const Explanation& story_;
};

int explainEntry(Session& session, const Question& question) {
    const Inspect::Table table = tableNamed(question.table);
    session.requireUnit(question.unit);
    const Inspect::EntryId id = find(session.system(), table, question.unit, question.key);
    const Explanation story = explain(session.system(), id);
    const int code = isGood(story.standing) ? kDone : kFound;
    if (session.json) {
        Json document{{"source", session.source()}};
        document.update(toJson(story));
        session.out().json(document);
        return code;
    }
    Story(session.out(), story).print();
    return code;
}

}  // namespace

void addExplainCommand(CLI::App& app, Session& session) {
    static Question question;
    CLI::App* const command =
        addCommand(app, session, "explain", "why an entry is, or is not, in hardware",
                   [&session] { return explainEntry(session, question); });
    command->group("Looking");
    command->add_option("TABLE", question.table, "action, v4 or v6")->required();
    command->add_option("UNIT", question.unit, "chip unit")->required();
    command->add_option("KEY", question.key, "key, or label or name where that is unique")
        ->required();
}

}  // namespace Vorn
