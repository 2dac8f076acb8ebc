#include "agent/PolicyCompiler.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include <fmt/format.h>

#include "agent/FieldText.h"
#include "agent/PolicyReader.h"
#include "agent/StableHash.h"

namespace Agent {

namespace {

/// Who has a number already: names must not meet in one.
class Numbers {
public:
    Numbers(std::string_view what, PolicyErrors& errors) : what_(what), errors_(errors) {}

    /// Reports another name with the same number. Returns whether the name is new.
    bool claim(std::uint64_t number, const std::string& name, const Position& at) {
        const auto [holder, added] = holders_.try_emplace(number, name, at);
        if (added || holder->second.first == name)
            return added;
        errors_.add(at, fmt::format("expected another name: {} '{}' gets the same number as '{}' "
                                    "in line {}",
                                    what_, name, holder->second.first, holder->second.second.line));
        return true;
    }
    /// The same, and the name must be new.
    void claimOnce(std::uint64_t number, const std::string& name, const Position& at) {
        if (claim(number, name, at))
            return;
        errors_.add(at, fmt::format("expected {} of its own, '{}' is in line {} already", what_,
                                    name, holders_.at(number).second.line));
    }

private:
    std::string what_;
    PolicyErrors& errors_;
    std::unordered_map<std::uint64_t, std::pair<std::string, Position>> holders_;
};

class ActionCompiler {
public:
    explicit ActionCompiler(PolicyErrors& errors)
        : names_("an action name", errors),
          counters_("a counter", errors),
          policers_("a policer", errors) {}

    Named<ActionEntry> compile(const Action& action) {
        Named<ActionEntry> result{action.name, {}};
        ActionEntry& entry = result.entry;
        entry.key.id = actionIdOf(action.name);
        entry.disposition = action.disposition;
        entry.name = VornPolicyCpu::fixedText<18>(action.name);
        if (!action.name.empty())
            names_.claimOnce(entry.key.id, action.name, action.at);
        if (action.counted) {
            const std::string request = action.sharedCounter.empty()
                                            ? "counter of action " + action.name
                                            : "counter " + action.sharedCounter;
            entry.counterRequestKey.requestId = stableHash32(request);
            counters_.claim(entry.counterRequestKey.requestId, request, action.at);
        }
        if (action.policer)
            addPolicer(*action.policer, entry);
        return result;
    }

private:
    void addPolicer(const Policer& policer, ActionEntry& entry) {
        const std::string request =
            (policer.shared ? "policer " : "policer of action ") + policer.name;
        entry.policerRequestKey.requestId = stableHash32(request);
        policers_.claim(entry.policerRequestKey.requestId, request, policer.at);
        entry.policerClientData.rate = policer.rate;
        entry.policerClientData.burst = policer.burst;
        entry.policerClientData.mode = policer.mode;
        entry.policerClientData.name = VornPolicyCpu::fixedText<16>(policer.name);
    }

    Numbers names_;
    Numbers counters_;
    Numbers policers_;
};

template <class Types>
class RuleCompiler {
public:
    using Entry = typename Types::Entry;

    RuleCompiler(std::string_view table, PolicyErrors& errors)
        : table_(table), errors_(errors), names_("a name", errors), keys_("an entry", errors) {}

    void compile(const Rule<Types>& rule, std::vector<Named<Entry>>& into) {
        if (!rule.name.empty())
            names_.claimOnce(stableHash64(rule.name), rule.name, rule.at);
        std::size_t entries = 1;
        for (const Dimension<Entry>& dimension : rule.dimensions) {
            entries *= dimension.alternatives.size();
            if (entries == 0)  // reported when the field was read
                return;
            if (entries > kMaxEntries)
                break;
        }
        total_ += entries;
        if (total_ > kMaxEntries) {
            if (total_ - entries <= kMaxEntries) {
                errors_.add(rule.at, fmt::format("expected at most {} entries in {}, with '{}' "
                                                 "there are more",
                                                 kMaxEntries, table_, rule.name));
            }
            return;
        }
        Entry base;
        base.actionKey.id = actionIdOf(rule.action);
        base.priority = rule.priority;
        base.label = VornPolicyCpu::fixedText<16>(rule.name);
        expand(rule, 0, {rule.name, base}, rule.at, into);
    }

private:
    void expand(const Rule<Types>& rule, std::size_t depth, const Named<Entry>& partial,
                const Position& at, std::vector<Named<Entry>>& into) {
        if (depth == rule.dimensions.size()) {
            into.push_back(partial);
            into.back().entry.key = matchKeyOf(partial.name);
            if (!rule.name.empty() && partial.name != rule.name)
                keys_.claimOnce(packed(into.back().entry.key), partial.name, at);
            else
                keys_.claim(packed(into.back().entry.key), partial.name, at);
            return;
        }
        const Dimension<Entry>& dimension = rule.dimensions[depth];
        for (const Alternative<Entry>& alternative : dimension.alternatives) {
            Named<Entry> next = partial;
            alternative.apply(next.entry);
            if (dimension.listed)
                next.name += fmt::format(" {}={}", dimension.field, alternative.text);
            expand(rule, depth + 1, next, dimension.listed ? alternative.at : at, into);
        }
    }

    std::string table_;
    PolicyErrors& errors_;
    Numbers names_;
    Numbers keys_;
    std::size_t total_ = 0;
};

template <class Types>
void compileRules(const std::vector<Rule<Types>>& rules, std::string_view table,
                  const CompiledPolicy& policy, PolicyErrors& errors,
                  std::vector<Named<typename Types::Entry>>& into) {
    std::unordered_set<std::string_view> known;
    for (const Named<ActionEntry>& action : policy.actions)
        known.insert(action.name);
    RuleCompiler<Types> compiler(table, errors);
    for (const Rule<Types>& rule : rules) {
        if (!rule.action.empty() && !known.contains(rule.action))
            reportValue(errors, {rule.action, rule.actionAt}, "the name of an action");
        compiler.compile(rule, into);
    }
}

std::string contentOf(const std::string& path) {
    constexpr off_t kMaxBytes = 64 << 20;
    const auto unreadable = [&](std::string_view why) {
        return PolicyError({fmt::format("{}: expected a readable policy file: {}", path, why)});
    };
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw unreadable(std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw unreadable("it is no regular file");
    if (status.st_size > kMaxBytes)
        throw unreadable("it has more than 64 MiB");
    std::ifstream file(path);
    std::stringstream content;
    if (!file || (status.st_size != 0 && !(content << file.rdbuf())))
        throw unreadable(std::strerror(errno));
    return content.str();
}

}  // namespace

CompiledPolicy compilePolicy(const Policy& policy, PolicyErrors& errors) {
    CompiledPolicy compiled;
    compiled.file = errors.file();
    if (policy.actions.size() > kMaxEntries) {
        errors.add(policy.actions[kMaxEntries].at,
                   fmt::format("expected at most {} actions", kMaxEntries));
        return compiled;
    }
    ActionCompiler actions(errors);
    for (const Action& action : policy.actions)
        compiled.actions.push_back(actions.compile(action));
    compileRules(policy.ipv4, "ipv4", compiled, errors, compiled.ipv4);
    compileRules(policy.ipv6, "ipv6", compiled, errors, compiled.ipv6);
    return compiled;
}

CompiledPolicy policyFromText(const std::string& text, const std::string& file) {
    PolicyErrors errors(file);
    const Policy policy = readPolicy(text, errors);
    CompiledPolicy compiled = compilePolicy(policy, errors);
    errors.throwIfAny();
    return compiled;
}

CompiledPolicy loadPolicy(const std::string& path) {
    return policyFromText(contentOf(path), path);
}

ActionEntry forUnit(ActionEntry action, Asic::UnitId unit) {
    if (action.counterRequestKey.requestId != 0)
        action.counterRequestKey.unit = unit.value;
    if (action.policerRequestKey.requestId != 0)
        action.policerRequestKey.unit = unit.value;
    return action;
}

}  // namespace Agent
