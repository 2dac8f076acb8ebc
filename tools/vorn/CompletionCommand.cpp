// vorn completion: scripts for shells, and what they ask.
#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>

#include "inspect/Errors.h"
#include "process/StateDirectory.h"
#include "tools/vorn/Session.h"
#include "tools/vorn/ShowText.h"

namespace Vorn {

namespace {

constexpr const char* kBash = R"script(# Completion of vorn in bash.
_vorn() {
    # What is typed so far has its quotes still, and what is put in place of it needs some.
    local word candidate
    local -a words=()
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
        word=${word//\\/}
        word=${word#[\"\']}
        words+=("${word%[\"\']}")
    done
    while IFS= read -r candidate; do
        COMPREPLY+=("$(printf %q "$candidate")")
    done < <(vorn __complete "${words[@]}" 2> /dev/null)
}
complete -o default -F _vorn vorn
)script";

constexpr const char* kZsh = R"script(#compdef vorn
# Completion of vorn in zsh.
_vorn() {
    local -a candidates
    candidates=(${(f)"$(vorn __complete "${(@)words[2,CURRENT]}" 2> /dev/null)"})
    (( ${#candidates} )) && compadd -a candidates || _files
}
if [[ ${funcstack[1]} == _vorn ]]; then
    _vorn "$@"  # loaded by the first completion, which it is to answer
else
    compdef _vorn vorn
fi
)script";

/// The words before the one that is completed, as the commands understand them.
struct Typed {
    const CLI::App* command = nullptr;
    std::string path;  ///< "show entries"
    std::vector<std::string> positionals;
    std::string option;  ///< whose value is completed; empty where none
    std::string stateDirectory;
};

const CLI::App* subcommandNamed(const CLI::App& app, const std::string& name) {
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (sub->get_name() == name)
            return sub;
    }
    return nullptr;
}

/// The option of that name of the command or one around it.
const CLI::Option* optionNamed(const CLI::App* app, const std::string& name) {
    for (; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options()) {
            if (option->check_name(name))
                return option;
        }
    }
    return nullptr;
}

Typed understood(const CLI::App& app, const std::vector<std::string>& words) {
    Typed typed;
    typed.command = &app;
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        if (word == "=" && !typed.option.empty())
            continue;  // a shell that makes three words of --option=value
        if (!typed.option.empty()) {
            if (typed.option == "--state-dir")
                typed.stateDirectory = word;
            typed.option.clear();
        } else if (word.starts_with("--") && equals != std::string::npos) {
            if (word.substr(0, equals) == "--state-dir")
                typed.stateDirectory = word.substr(equals + 1);
        } else if (word.starts_with("-")) {
            const CLI::Option* const option = optionNamed(typed.command, word);
            if (option != nullptr && option->get_items_expected_max() > 0)
                typed.option = word;
        } else if (const CLI::App* const sub = subcommandNamed(*typed.command, word)) {
            typed.command = sub;
            typed.path += (typed.path.empty() ? "" : " ") + word;
        } else {
            typed.positionals.push_back(word);
        }
    }
    return typed;
}

using Candidates = std::vector<std::string>;

Candidates namesOfTables() {
    Candidates names;
    for (const Inspect::Table table : Inspect::kTables)
        names.emplace_back(shortName(table));
    return names;
}

Candidates unitsIn(const Inspect::State& state) {
    Candidates units;
    for (const std::uint16_t unit : state.units())
        units.push_back(std::to_string(unit));
    return units;
}

/// Keys and, where they have any, names.
Candidates keysIn(const Inspect::State& state, std::optional<Inspect::Table> table,
                  const std::string& unitText) {
    Candidates keys;
    for (const Inspect::Table one : Inspect::kTables) {
        if (table && *table != one)
            continue;
        for (const std::uint16_t unit : state.units(one)) {
            if (!unitText.empty() && unitText != std::to_string(unit))
                continue;
            for (const Inspect::Entry& entry : state.entries(one, unit, [](const auto&) {})) {
                keys.push_back(entry.id.key);
                if (!entry.name().empty())
                    keys.push_back(entry.name());
            }
        }
    }
    return keys;
}

Candidates requestsIn(const Inspect::State& state, const std::string& poolText) {
    Candidates requests;
    const auto pool = Inspect::poolFromText(poolText);
    for (const Inspect::ResourceRow& row :
         pool ? state.resources(*pool, [](const auto&) {}) : std::vector<Inspect::ResourceRow>())
        requests.push_back(row.request);
    return requests;
}

Candidates positionalCandidates(const Typed& typed, const Inspect::State& state) {
    const auto& before = typed.positionals;
    if (typed.path == "explain") {
        if (before.empty())
            return namesOfTables();
        if (before.size() == 1)
            return unitsIn(state);
        return before.size() == 2 ? keysIn(state, Inspect::tableFromText(before[0]), before[1])
                                  : Candidates();
    }
    if (typed.path == "show entry")
        return before.empty() ? keysIn(state, std::nullopt, "") : Candidates();
    if (typed.path.starts_with("resource ")) {
        if (before.empty())
            return {"counter", "policer"};
        return before.size() == 1 ? requestsIn(state, before[0]) : Candidates();
    }
    if (typed.path == "completion" && before.empty())
        return {"bash", "zsh"};
    return {};
}

Candidates optionValues(const Typed& typed, const Inspect::State& state) {
    if (typed.option == "--table")
        return namesOfTables();
    if (typed.option == "--unit")
        return unitsIn(state);
    if (typed.option == "--action")
        return keysIn(state, Inspect::Table::action, "");
    return {};
}

Candidates wordsOf(const Typed& typed, const std::string& current) {
    Candidates words;
    if (!current.starts_with("-")) {
        for (const CLI::App* sub :
             typed.command->get_subcommands([](const CLI::App*) { return true; }))
            words.push_back(sub->get_name());
        return words;
    }
    for (const CLI::App* app = typed.command; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options()) {
            if (option->get_group().empty())
                continue;
            for (const std::string& name : option->get_lnames())
                words.push_back("--" + name);
        }
    }
    return words;
}

}  // namespace

int completeWords(const CLI::App& app, const std::vector<std::string>& words) {
    std::string current = words.empty() ? "" : words.back();
    std::vector<std::string> before(words.begin(), words.empty() ? words.end() : words.end() - 1);
    std::string prefix;  // "--option=" in the same word
    const std::size_t equals = current.find('=');
    if (current.starts_with("--") && equals != std::string::npos) {
        prefix = current.substr(0, equals + 1);
        before.push_back(current.substr(0, equals));
        current.erase(0, equals + 1);
    } else if (current == "=") {
        current.clear();
    }
    const Typed typed = understood(app, before);
    Candidates candidates;
    if (typed.option == "--color")
        candidates = {"auto", "always", "never"};
    else if (typed.option.empty())
        candidates = wordsOf(typed, current);
    const char* const fromEnvironment = std::getenv("VORN_STATE_DIR");
    const std::string directory = !typed.stateDirectory.empty() ? typed.stateDirectory
                                  : fromEnvironment != nullptr  ? fromEnvironment
                                                                : Process::kServiceStateDirectory;
    try {
        const Inspect::State state(directory);
        const Candidates more =
            typed.option.empty() ? positionalCandidates(typed, state) : optionValues(typed, state);
        candidates.insert(candidates.end(), more.begin(), more.end());
    } catch (const std::runtime_error&) {
        // Nobody reads errors of a completion; what needs no files is completed all the same.
        const bool isTable =
            typed.option == "--table" || (typed.path == "explain" && typed.positionals.empty());
        if (isTable)
            candidates = namesOfTables();
    }
    std::ranges::sort(candidates);
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    for (const std::string& candidate : candidates) {
        // A name that a shell would not take in whole is no help.
        if (candidate.starts_with(current) && shown(candidate) == candidate)
            fmt::print("{}{}\n", prefix, candidate);
    }
    return kDone;
}

void addCompletionCommand(CLI::App& app, Session& session) {
    static std::string shell;
    CLI::App* const command = addCommand(
        app, session, "completion", "a script that completes tables, units and keys", [&session] {
            session.out().raw(shell == "bash" ? kBash : kZsh);
            return static_cast<int>(kDone);
        });
    command->group("Tracing");
    command->add_option("SHELL", shell, "bash or zsh")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh"}));
}

}  // namespace Vorn
