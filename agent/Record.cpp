#include "agent/Record.h"

#include <chrono>

#include "recording/Snapshot.h"

namespace Agent {

Record::Record(const Options& options, const Kiv::EventLoop& loop)
    : file_(options.record), recorder_(loop, file_) {
    recorder_.tell(startOf(options));
    Recording::forEachFile(options.stateDirectory,
                           [this](const Recording::File& file) { recorder_.tell(file); });
}

Record::~Record() {
    recorder_.tell(Recording::End{});
}

Recording::Start Record::startOf(const Options& options) {
    Recording::Start start;
    for (const Asic::UnitId unit : options.units)
        start.units.push_back(unit.value);
    start.counters = options.counters;
    start.policers = options.policers;
    start.capacity = options.capacity;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    start.time_ns = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    return start;
}

Recording::Mounted Record::mountedOf(const Tables& tables) {
    Recording::Mounted mounted;
    for (const Asic::SwTableId table : kTableIds)
        mounted.versions.push_back({table.whole(), tables.log(table).published.value});
    return mounted;
}

}  // namespace Agent
