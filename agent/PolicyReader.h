// From the text of a policy file to its actions and rules.
//
// Any thread. Findings go to the PolicyErrors given; what was read is of use only without any.
#pragma once

#include <string>
#include <string_view>

#include "agent/Policy.h"
#include "agent/YamlReader.h"

namespace Agent {

inline constexpr std::string_view kNameExpected =
    "a name of up to 64 letters, digits and the characters . _ -";

/// Reads the whole file; a syntax error is one finding, and nothing behind it is read.
Policy readPolicy(const std::string& text, PolicyErrors& errors);

/// The `policers` and `actions` of a policy, in that order.
class ActionReader {
public:
    explicit ActionReader(PolicyErrors& errors) : errors_(errors) {}

    void readPolicers(const MapReader::Field& field);
    std::vector<Action> readActions(const MapReader::Field& field);

private:
    Action readAction(const YAML::Node& node, const Position& at);
    void readCounter(MapReader& map, Action& action);
    std::optional<Policer> readPolicer(MapReader::Field& field, const std::string& actionName);
    void readRates(MapReader& map, Policer& policer);

    PolicyErrors& errors_;
    std::map<std::string, Policer> shared_;
};

/// The items of `ipv4` or `ipv6`.
template <class Types>
class RuleReader {
public:
    RuleReader(const Variables& variables, PolicyErrors& errors)
        : variables_(variables), errors_(errors) {}

    std::vector<Rule<Types>> read(const MapReader::Field& field);

private:
    using Entry = typename Types::Entry;
    static constexpr bool kIsV4 = std::is_same_v<Types, V4Types>;

    Rule<Types> readRule(const YAML::Node& node, const Position& at);
    void readAddresses(MapReader& map, Rule<Types>& rule);
    void readPorts(MapReader& map, Rule<Types>& rule);
    void readBytes(MapReader& map, Rule<Types>& rule);
    void readIcmp(MapReader& map, Rule<Types>& rule);
    void checkProtocols(const Rule<Types>& rule);

    /// Reads a field's values with `parse` (text to optional value); `apply` (entry, value) sets
    /// one.
    template <class Parse, class Apply, class Show>
    void dimension(MapReader& map, Rule<Types>& rule, std::string_view field,
                   std::string_view expected, const Parse& parse, const Apply& apply,
                   const Show& show);

    const Variables& variables_;
    PolicyErrors& errors_;
};

extern template class RuleReader<V4Types>;
extern template class RuleReader<V6Types>;

/// "a name of letters, ..."; reports a text that is none.
bool checkName(const Text& name, PolicyErrors& errors);

}  // namespace Agent
