// Entries and states as people read them.
//
// Plain values: any thread.
#pragma once

#include <map>
#include <string>

#include "inspect/State.h"
#include "tools/vorn/Output.h"

namespace Vorn {

/// "src 192.0.2.0/24 proto tcp dport 179" of a match entry; "any" where nothing is asked for.
std::string matchText(const Json& content);
/// "100 pps, burst 20" of an action; empty where it has no rate.
std::string rateText(const Json& content);
/// One line of any entry.
std::string entryText(const Json& content);
/// A number, or "-" for null and for what is not there.
std::string numberText(const Json& object, const std::string& name);
/// Text; "" for null and for what is not there.
std::string stringIn(const Json& object, const std::string& name);

/// Names of actions by key, of all units.
using ActionNames = std::map<std::string, std::string>;
ActionNames actionNames(const Inspect::State& state);

/// A table of entries with the columns of its kind.
TextTable entryTable(Inspect::Table table);
std::vector<TextTable::Cell> entryRow(const Inspect::Entry& entry, std::uint64_t acknowledged,
                                      const ActionNames& names);
/// "removing", "under way" or "acked".
std::string_view placeOf(const Inspect::Entry& entry, std::uint64_t acknowledged);
Json entryToJson(const Inspect::Entry& entry, std::uint64_t acknowledged);

/// A change of the agent: "write v4 unit 1 key ...".
std::string changeText(const Json& change);

}  // namespace Vorn
