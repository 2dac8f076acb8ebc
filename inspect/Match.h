// Which entries somebody wants to see.
//
// Plain values: any thread.
#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/State.h"

namespace Inspect {

/// Fields of packets that match entries may ask for, as their content names them.
inline constexpr std::array<std::string_view, 11> kMatchFields{
    "src",       "dst",       "proto", "sport", "dport",   "tcp-flags",
    "icmp-type", "icmp-code", "ttl",   "dscp",  "fragment"};

/// "dport=179", "src=192.0.2.0/24", "label=bgp*": a field of an entry and a value.
///
/// An entry is meant when it names the field and its value has something in common with the wanted
/// one: ports and port ranges that overlap, prefixes of which one holds the other, masked bits that
/// agree. Texts (key, label, name, disposition) may have * and ?.
class Match {
public:
    /// Throws QuestionError.
    explicit Match(const std::string& text);

    bool isMet(const Entry& entry) const;

private:
    std::string field_;
    std::string wanted_;
};

struct Filter {
    std::optional<Table> table;
    std::optional<std::uint16_t> unit;
    std::string action;  ///< key or name of the action that match entries have; empty: any
    /// The keys that `action` stands for: a name may have another on each unit.
    std::set<std::string> actionKeys;
    std::vector<Match> matches;

    bool isMet(Table wanted) const { return !table || *table == wanted; }
    bool isMet(const Entry& entry) const;
};

/// The filter with the keys of its action. Throws QuestionError.
Filter withActionKeys(Filter filter, const State& state);

}  // namespace Inspect
