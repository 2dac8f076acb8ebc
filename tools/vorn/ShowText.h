// Entries and states as people read them.
//
// Plain values: any thread.
#pragma once

#include <map>
#include <string>

#include "inspect/Text.h"
#include "tools/vorn/Output.h"

namespace Vorn {

using Inspect::ageText;
using Inspect::changeText;
using Inspect::entryText;
using Inspect::matchText;
using Inspect::numberText;
using Inspect::placeOf;
using Inspect::rateText;
using Inspect::stringIn;

/// Names of actions by key, of all units.
using ActionNames = std::map<std::string, std::string>;
ActionNames actionNames(const Inspect::State& state);

/// A table of entries with the columns of its kind.
TextTable entryTable(Inspect::Table table);
std::vector<TextTable::Cell> entryRow(const Inspect::Entry& entry, std::uint64_t acknowledged,
                                      const ActionNames& names);
Json entryToJson(const Inspect::Entry& entry, std::uint64_t acknowledged);

}  // namespace Vorn
