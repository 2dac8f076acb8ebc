// vorn explain: why an entry is, or is not, in hardware.
#include "inspect/ExplainText.h"
#include "inspect/Find.h"
#include "tools/vorn/Session.h"

namespace Vorn {

namespace {

using Inspect::Explanation;
using Inspect::Standing;

struct Question {
    std::string table;
    std::uint16_t unit = 0;
    std::string key;
};

Colour colourOf(Standing standing) {
    if (isGood(standing))
        return Colour::green;
    const bool isMoving = standing == Standing::underWay || standing == Standing::waits ||
                          standing == Standing::unconfirmed;
    return isMoving ? Colour::yellow : Colour::red;
}

/// Width of the text behind so many columns; without end in a pipe.
std::size_t roomBehind(const Output& out, std::size_t indent) {
    return out.isTerminal() && out.width() > 2 * indent ? out.width() - indent : SIZE_MAX;
}

/// Long lines are wrapped on a terminal, those of a part below its first.
void print(const Explanation& story, const Output& out) {
    for (const std::string& line : wrapped(story.verdict, roomBehind(out, 0)))
        out.line(out.painted(colourOf(story.standing), line));
    out.line();
    for (Inspect::StoryPart part : storyParts(story)) {
        for (std::string& line : wrapped(part.text, roomBehind(out, Inspect::kStoryIndent))) {
            part.text = std::move(line);
            out.line(lineOf(part));
            part.name = {};
        }
    }
}

int explainEntry(Session& session, const Question& question) {
    const Inspect::Table table = Inspect::tableNamed(question.table);
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
    print(story, session.out());
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
