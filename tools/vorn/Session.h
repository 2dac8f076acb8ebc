// What all commands share: the options that every one has, the state directory, and how it ends.
//
// One thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "inspect/Match.h"
#include "inspect/Processes.h"
#include "tools/vorn/ExitCodes.h"
#include "tools/vorn/Output.h"

namespace Vorn {

class Session {
public:
    std::string stateDirectory;
    bool json = false;
    ColourMode colour = ColourMode::automatic;
    /// Processes that are not asked: "agent", "hardware".
    std::vector<std::string> silent;
    /// Set by the command that was given; returns the exit code.
    std::function<int()> command;

    const Output& out();
    /// Opened on the first call, which says in text output where what follows comes from. Throws
    /// Inspect::StateDirectoryError, QuestionError where no directory is given.
    Inspect::System& system();
    std::string_view source() { return system().source(); }
    /// Of the state directory, the services' where none is given; throws QuestionError where
    /// there is no such thing.
    const std::string& requiredDirectory();

    /// Collects what cannot be read.
    Inspect::Report report() {
        return [this](const Inspect::Damage& damage) { damages_.push_back(damage); };
    }
    const std::vector<Inspect::Damage>& damages() const { return damages_; }
    Json damagesJson() const;
    /// Shows as text what was reported; the exit code of a command that otherwise ends with `code`.
    int ended(int code = kDone);

    /// Prints the document with its source and what was reported.
    int printed(const Json& document, int code = kDone);
    /// The agent's answer. Throws NotRunningError, RefusedError.
    Json askAgent(const Json& request) { return system().agent.ask(request); }

    /// The table and unit that options name.
    Inspect::Filter filter;
    std::string tableName;
    std::optional<std::uint16_t> unit;
    std::vector<std::string> matchTexts;
    /// Throws QuestionError where no table has the unit.
    void requireUnit(std::uint16_t number);
    /// The filter made of these. Throws QuestionError.
    Inspect::Filter wanted();

private:
    std::optional<Output> out_;
    std::unique_ptr<Inspect::System> system_;
    std::vector<Inspect::Damage> damages_;
};

void addTableOption(CLI::App& app, Session& session);
void addUnitOption(CLI::App& app, Session& session);
/// Adds --table and --unit.
void addPlaceOptions(CLI::App& app, Session& session);
/// Adds --table, --unit, --action and --match.
void addFilterOptions(CLI::App& app, Session& session);
/// A subcommand whose callback makes `run` the command of the session.
CLI::App* addCommand(CLI::App& parent, Session& session, const std::string& name,
                     const std::string& help, std::function<int()> run);

// Each adds a group of commands.
void addShowCommands(CLI::App& app, Session& session);
void addExplainCommand(CLI::App& app, Session& session);
void addCheckCommand(CLI::App& app, Session& session);
void addLogCommands(CLI::App& app, Session& session);
void addWatchCommand(CLI::App& app, Session& session);
void addTraceCommands(CLI::App& app, Session& session);
void addRingCommands(CLI::App& app, Session& session);
void addPolicyCommands(CLI::App& app, Session& session);
void addResourceCommands(CLI::App& app, Session& session);
void addReplayCommand(CLI::App& app, Session& session);
void addBundleCommand(CLI::App& app, Session& session);
void addCompletionCommand(CLI::App& app, Session& session);

/// Prints what may stand in place of the last of the words, one a line.
int completeWords(const CLI::App& app, const std::vector<std::string>& words);

/// y/N on the terminal; false where there is none, saying that --yes is needed.
bool isConfirmed(const Output& out, const std::string& question);

}  // namespace Vorn
