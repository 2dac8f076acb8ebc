// Where the tables' process tells what happens to whoever keeps a record of it.
//
// Event thread only. Without a recorder, each place that tells costs a load and a branch.
#pragma once

namespace Asic {

class DependencyEntryHandle;
class Recorder;

namespace detail {
extern Recorder* installedRecorder;
}  // namespace detail

/// Null when no record is kept.
inline Recorder* recorder() {
    return detail::installedRecorder;
}
/// Installs the process's recorder, which outlives its installation, or takes it off with null.
void recorderIs(Recorder* recorder);

/// Tells the recorder of a handle's new state. REQUIRES: there is one.
void recordState(const DependencyEntryHandle& handle);

}  // namespace Asic
