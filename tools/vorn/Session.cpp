// The state directory, its source, and the options that commands share.
#include "tools/vorn/Session.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "inspect/Find.h"
#include "process/StateDirectory.h"

namespace Vorn {

const Output& Session::out() {
    if (!out_)
        out_.emplace(colour);
    return *out_;
}

const std::string& Session::requiredDirectory() {
    if (stateDirectory.empty() && std::filesystem::exists(Process::kServiceStateDirectory))
        stateDirectory = Process::kServiceStateDirectory;
    if (stateDirectory.empty()) {
        throw Inspect::QuestionError(
            fmt::format("which state directory? Give --state-dir or VORN_STATE_DIR; there is no {}",
                        Process::kServiceStateDirectory));
    }
    return stateDirectory;
}

Inspect::System& Session::system() {
    if (system_)
        return *system_;
    system_ = std::make_unique<Inspect::System>(requiredDirectory());
    for (const std::string& name : silent) {
        Inspect::Peer& peer = name == "agent" ? system_->agent : system_->hardware;
        if (peer.runs())
            peer.leaveAlone(peer.name() + " does not answer");
    }
    if (json)
        return *system_;
    out().note(out().painted(
        Colour::dim, system_->agent.runs() ? fmt::format("source: agent, at {}", stateDirectory)
                                           : fmt::format("source: files, at {}; {}", stateDirectory,
                                                         system_->agent.reason())));
    return *system_;
}

Json Session::damagesJson() const {
    Json list = Json::array();
    for (const Inspect::Damage& damage : damages_)
        list.push_back({{"kind", kindText(damage.kind)}, {"what", damage.what}});
    return list;
}

int Session::ended(int code) {
    if (!json) {
        for (const Inspect::Damage& damage : damages_) {
            out().line(out().painted(Colour::red,
                                     fmt::format("{}: {}", kindText(damage.kind), damage.what)));
        }
    }
    return code == kDone && !damages_.empty() ? kFound : code;
}

int Session::printed(const Json& document, int code) {
    Json whole{{"source", source()}};
    whole.update(document);
    whole["damages"] = damagesJson();
    out().json(whole);
    return ended(code);
}

void Session::requireUnit(std::uint16_t number) {
    Inspect::requireUnit(system().state, number);
}

Inspect::Filter Session::wanted() {
    if (!tableName.empty())
        filter.table = Inspect::tableNamed(tableName);
    filter.unit = unit;
    filter.matches.clear();
    for (const std::string& text : matchTexts)
        filter.matches.emplace_back(text);
    if (unit)
        requireUnit(*unit);
    if (!filter.action.empty())
        filter = withActionKeys(filter, system().state);
    return filter;
}

void addTableOption(CLI::App& app, Session& session) {
    app.add_option("--table", session.tableName, "only this table: action, v4 or v6");
}

void addUnitOption(CLI::App& app, Session& session) {
    app.add_option("--unit", session.unit, "only this chip unit");
}

void addPlaceOptions(CLI::App& app, Session& session) {
    addTableOption(app, session);
    addUnitOption(app, session);
}

void addFilterOptions(CLI::App& app, Session& session) {
    addPlaceOptions(app, session);
    app.add_option("--action", session.filter.action,
                   "match entries with this action, key or name");
    app.add_option("--match", session.matchTexts,
                   "entries that name a field with a value that overlaps: dport=179, "
                   "src=192.0.2.0/24, label=bgp*; may be repeated")
        ->allow_extra_args(false);
}

CLI::App* addCommand(CLI::App& parent, Session& session, const std::string& name,
                     const std::string& help, std::function<int()> run) {
    CLI::App* const command = parent.add_subcommand(name, help);
    command->fallthrough();
    command->callback([&session, run = std::move(run)] { session.command = run; });
    return command;
}

bool isConfirmed(const Output& out, const std::string& question) {
    if (isatty(STDIN_FILENO) != 1) {
        out.note("vorn: nobody to ask here: give --yes to go on");
        return false;
    }
    fmt::print(stderr, "{} [y/N] ", question);
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

}  // namespace Vorn
