// Reading YAML with nothing overlooked: every mapping key is taken by somebody or reported.
//
// One thread an object. Findings go to the PolicyErrors given; reading goes on behind them, so that
// one run finds them all.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <yaml-cpp/yaml.h>

#include "agent/PolicyErrors.h"

namespace Agent {

Position positionOf(const YAML::Node& node);

/// A scalar with its place.
struct Text {
    std::string text;
    Position at;
};

/// Text of a scalar; reports and returns nothing when the node is none. `expected` as in "a name".
std::optional<Text> scalarOf(const YAML::Node& node, const Position& at, std::string_view expected,
                             PolicyErrors& errors);

/// Reports "expected EXPECTED instead of 'TEXT'".
void reportValue(PolicyErrors& errors, const Text& value, std::string_view expected);

/// The keys of one mapping.
class MapReader {
public:
    struct Field {
        YAML::Node node;
        Position keyAt;
        /// Of the value; of the key where there is no value.
        Position at() const;
    };

    /// Reports a node that is no mapping, and keys that stand there twice. `what` as in "an
    /// action".
    MapReader(const YAML::Node& node, const Position& at, std::string_view what,
              PolicyErrors& errors);

    const Position& at() const { return at_; }
    PolicyErrors& errors() const { return errors_; }

    /// Nothing when the key is not there.
    std::optional<Field> take(const std::string& key);
    /// Reports a key that is not there, or whose value is no scalar.
    std::optional<Text> takeRequired(const std::string& key, std::string_view expected);
    /// Nothing when the key is not there; reports a value that is no scalar.
    std::optional<Text> takeScalar(const std::string& key, std::string_view expected);
    /// Reports what nobody took.
    void finish();

private:
    struct Entry {
        std::string key;
        Field field;
        bool taken = false;
    };

    Position at_;
    std::string what_;
    PolicyErrors& errors_;
    bool isMap_ = false;
    std::vector<Entry> entries_;
    std::vector<std::string> known_;  ///< keys asked for, in that order
};

/// Lists of values that a policy names once and uses often: "$name" stands for all of them.
class Variables {
public:
    /// Reads the mapping of names to values or lists of values; a value may be a "$name" from
    /// above.
    void read(const MapReader::Field& field, PolicyErrors& errors);

    struct List {
        bool listed = false;  ///< a sequence, or a variable that is one
        std::vector<Text> values;
    };
    /// The values of a scalar or of a sequence of scalars. Reports what is neither, an empty list
    /// and names that are not known.
    List expand(const YAML::Node& node, const Position& at, std::string_view expected,
                PolicyErrors& errors) const;

private:
    std::map<std::string, List> lists_;
};

/// Calls `visit(node, position)` for each item of a sequence; reports a node that is none.
template <class Visit>
void forEachItem(const MapReader::Field& field, std::string_view what, PolicyErrors& errors,
                 const Visit& visit) {
    if (!field.node.IsSequence()) {
        errors.add(field.at(), "expected a list of " + std::string(what));
        return;
    }
    for (const YAML::Node& item : field.node) {
        const Position at = positionOf(item);
        visit(item, at.line == 0 ? field.at() : at);
    }
}

}  // namespace Agent
