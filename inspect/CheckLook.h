// One look of the check.
//
// One thread. What it reports may be a change under way; Check.h looks several times.
#pragma once

#include "inspect/Check.h"

namespace Inspect {

CheckResult checkOnce(System& system, const CheckOptions& options, const Progress& progress);

/// Entries of the action table with the indexes that they use, and the pools' records: leaks,
/// doubles and strays. `quiet`: nothing is staged that may hold a request without an entry yet.
void compareIndexes(const std::vector<Entry>& actions, const std::vector<ResourceRow>& records,
                    Pool pool, std::uint64_t acknowledged, bool quiet,
                    std::vector<Difference>& differences);

/// Committed values and hardware content of one table of one unit, which has
/// acknowledged up to a version. What is above that is on its way, and no difference.
void compareWithHardware(const std::vector<Entry>& values, const HeldEntries& held, Table table,
                         std::uint64_t acknowledged, std::vector<Difference>& differences);

}  // namespace Inspect
