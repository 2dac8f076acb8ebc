// When alarms are raised, and when they are cleared again.
#pragma once

namespace Agent {

/// Above these, alarms are raised; at or below half of an age, or at or below the clear value of a
/// fill, they are cleared.
struct AlarmLimits {
    double unacknowledged_s = 10;  ///< age of the oldest change not acknowledged
    double waiting_s = 30;         ///< age of the oldest change not committed
    double logFill = 0.80;         ///< of a change log's records
    double logFillClear = 0.70;
    double poolFill = 0.85;  ///< of a resource pool's indexes
    double poolFillClear = 0.70;
};

}  // namespace Agent
