// How long readers of shared memory wait for a writer that is in the middle of a store.
//
// Any thread; the bound is process-wide.
#pragma once

#include <chrono>
#include <optional>

namespace KivShimo {

/// A writer that goes on is done in less than a microsecond; one that has lost the processor takes
/// longer, and one that was killed never goes on until its files are mounted again.
constexpr std::chrono::milliseconds kReadPatience{100};

/// Sets another bound: 0 where the writer cannot go on while a reader waits, as in a process that
/// is both.
void readPatienceIs(std::chrono::milliseconds patience);

/// The waiting of one look-up.
class ReadPatience {
public:
    /// Asked after a try that came to nothing: whether there is to be another.
    bool lasts();

private:
    unsigned tries_ = 0;
    std::optional<std::chrono::steady_clock::time_point> deadline_;
};

}  // namespace KivShimo
