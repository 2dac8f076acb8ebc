#include "platform/asic/Recorder.h"

namespace Asic {

namespace detail {
Recorder* installedRecorder = nullptr;
}  // namespace detail

void recorderIs(Recorder* recorder) {
    detail::installedRecorder = recorder;
}

void recordState(const DependencyEntryHandle& handle) {
    recorder()->stateIs(handle);
}

}  // namespace Asic
