// Entries by what people call them.
//
// One thread; asks both processes where they run.
#pragma once

#include <string>

#include "inspect/Processes.h"

namespace Inspect {

/// Throws QuestionError for a name of no table.
Table tableNamed(const std::string& name);
/// Throws QuestionError where no table has the unit.
void requireUnit(const State& state, std::uint16_t unit);

/// Name or label of the entry that an answer to "explain" has as staged; empty where it has none.
std::string stagedName(const Json& explained);

/// The unit's key that text means: a key, or the label or name of one entry that is committed or
/// staged, or else that hardware holds. Throws QuestionError where it means none or several.
EntryId find(System& system, Table table, std::uint16_t unit, const std::string& text);

}  // namespace Inspect
