// vorn: looks at the tables of an agent, alive or dead, says why an entry is or is not in hardware,
// and asks the processes to put right what is not.

#include <algorithm>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "platform/kivshimo/Errors.h"
#include "tools/vorn/Session.h"

namespace {

using Vorn::Session;

constexpr const char* kAbout =
    "Looks at the tables of a switch agent, alive or dead, and says why an entry is, or is not, "
    "in\n"
    "hardware. Entries, logs, acknowledgements and index pools are read from the files of the "
    "state\n"
    "directory; what is staged, alarms and counters come from the agent, if it runs.";

constexpr const char* kExamples =
    "Examples:\n"
    "  vorn explain v4 1 bgp              why is the entry 'bgp' of unit 1 not in hardware?\n"
    "  vorn show entries --match dport=179 --match src=192.0.2.0/24\n"
    "  vorn check                         are tables, log, hardware and index pools consistent?\n"
    "  vorn check --repair                and mend what is not, after a question\n"
    "  vorn log --table action --from 17  changes since version 17\n"
    "  vorn watch                         rates and backlogs, redrawn each second\n"
    "  vorn policy diff new.yaml          what would a policy change?\n"
    "  vorn support-bundle                all of it in one file\n"
    "\n"
    "Environment:\n"
    "  VORN_STATE_DIR  the state directory, where --state-dir is not given; without either it is\n"
    "                  /run/vorn, that of the installed services\n"
    "  NO_COLOR        no colours, unless --color always\n"
    "  COLUMNS         width of tables on a terminal\n"
    "\n";

void addCommonOptions(CLI::App& app, Session& session) {
    app.add_option("--state-dir", session.stateDirectory, "state directory of agent and hardware")
        ->envname("VORN_STATE_DIR");
    // For what runs this program many times and has asked them in vain already.
    app.add_option("--silent", session.silent)->group("")->allow_extra_args(false);
    app.add_flag("--json", session.json, "one JSON document in place of text");
    app.add_option("--color", session.colour, "auto (default), always or never")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, Vorn::ColourMode>{{"auto", Vorn::ColourMode::automatic},
                                                    {"always", Vorn::ColourMode::always},
                                                    {"never", Vorn::ColourMode::never}}))
        ->option_text("WHEN");
    app.set_version_flag("--version", std::string("vorn ") + VORN_VERSION);
    app.require_subcommand(1);
    app.get_formatter()->column_width(28);
    // The commands take it over as they are added; vorn's own page has another.
    app.footer("Everywhere: --state-dir, --json, --color; see vorn --help, also for exit status.");
}

int failed(Session& session, int code, std::string_view reason) {
    if (session.json)
        session.out().jsonFailure({{"error", reason}, {"exit", code}});
    session.out().note(fmt::format("vorn: {}", reason));
    return code;
}

int ran(Session& session) {
    try {
        return session.command();
    } catch (const Inspect::StateDirectoryError& error) {
        return failed(session, Vorn::kStateDirectory, error.what());
    } catch (const KivShimo::MountError& error) {
        return failed(session, Vorn::kStateDirectory, error.what());
    } catch (const Inspect::NotRunningError& error) {
        return failed(session, Vorn::kNotRunning, error.what());
    } catch (const Inspect::RefusedError& error) {
        return failed(session, Vorn::kRefused, error.what());
    } catch (const Inspect::QuestionError& error) {
        return failed(session, Vorn::kUsage, error.what());
    } catch (const std::exception& error) {
        return failed(session, Vorn::kOther, error.what());
    }
}

void addCommands(CLI::App& app, Session& session) {
    addShowCommands(app, session);
    addExplainCommand(app, session);
    addLogCommands(app, session);
    addWatchCommand(app, session);
    addCheckCommand(app, session);
    addPolicyCommands(app, session);
    addResourceCommands(app, session);
    addTraceCommands(app, session);
    addRingCommands(app, session);
    addReplayCommand(app, session);
    addBundleCommand(app, session);
    addCompletionCommand(app, session);
    app.footer(std::string(kExamples) + Vorn::kExitCodes);
}

int start(int argc, char** argv) {
    CLI::App app(kAbout, "vorn");
    Session session;
    addCommonOptions(app, session);
    addCommands(app, session);
    // What completion asks about may be any words, so it is no command with options of its own.
    if (argc > 1 && std::string_view(argv[1]) == "__complete")
        return Vorn::completeWords(app, {argv + 2, argv + argc});
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return app.exit(asked);
    } catch (const CLI::ParseError& error) {
        // What was not understood may have kept the option from being taken in.
        session.json = std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
        return failed(session, Vorn::kUsage, fmt::format("{}; see --help", error.what()));
    }
    return ran(session);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return start(argc, argv);
    } catch (const std::exception& error) {
        fmt::print(stderr, "vorn: {}\n", error.what());
        return Vorn::kOther;
    }
}
