// Words for the way of one entry.
#include "inspect/ExplainText.h"

#include <fmt/format.h>

#include "inspect/Text.h"

namespace Inspect {

namespace {

class Parts {
public:
    explicit Parts(const Explanation& story) : story_(story) {}

    std::vector<StoryPart> all() {
        const std::string name = story_.name.empty() ? "" : " (" + story_.name + ")";
        part("entry", story_.id.toText() + name);
        putStaged();
        putChain();
        putCommitted();
        putLog();
        putHardware();
        for (const Json& stage : story_.stages) {
            part("time", fmt::format("{} for {}", stringIn(stage, "stage"),
                                     ageText(stage.value("seconds", 0.0))));
        }
        for (const Damage& damage : story_.damages)
            part("damage", damage.what);
        return std::move(parts_);
    }

private:
    void part(std::string_view name, std::string text) {
        parts_.push_back({std::string(name), std::move(text)});
    }

    static std::string waitsText(const Json& change) {
        const Json waits = change.value("waitsFor", Json());
        return waits.is_object() ? ", waits for " + stringIn(waits, "text") : std::string();
    }

    void putStaged() {
        if (!story_.agentRuns)
            return part("staged", "not known: what was staged went with the agent");
        if (!story_.agentSilence.empty())
            return part("staged", "not known: " + story_.agentSilence);
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

    void putChain() {
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

    void putCommitted() {
        if (story_.committed) {
            part("committed", fmt::format("version {}{}", story_.committed->version,
                                          story_.committed->inDeletion ? ", in deletion" : ""));
            part("", entryText(story_.committed->content));
        } else if (story_.standing != Standing::rotten) {
            part("committed", "no value");
        }
    }

    void putLog() {
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

    void putHardware() {
        if (!story_.hardwareSilence.empty())
            return part("hardware", story_.hardwareSilence);
        if (!story_.held)
            return part("hardware", "has no such entry");
        part("hardware", fmt::format("holds version {}", story_.held->version));
        if (!story_.committed || story_.committed->content != story_.held->content)
            part("", entryText(story_.held->content));
    }

    const Explanation& story_;
    std::vector<StoryPart> parts_;
};

}  // namespace

bool isGood(Standing standing) {
    return standing == Standing::inHardware || standing == Standing::removed;
}

std::vector<StoryPart> storyParts(const Explanation& story) {
    return Parts(story).all();
}

std::string lineOf(const StoryPart& part) {
    return fmt::format("  {:<{}}{}", part.name, kStoryIndent - 2, part.text);
}

std::string storyText(const Explanation& story) {
    std::string text = shown(story.verdict) + "\n";
    for (const StoryPart& part : storyParts(story))
        text += "\n" + shown(lineOf(part));
    return text;
}

}  // namespace Inspect
