// What a whole change of a match entry costs, in one thread: from the write to its answer.
#include <filesystem>
#include <optional>
#include <utility>

#include "bench/Floor.h"
#include "bench/Rounds.h"
#include "bench/WholeSystem.h"
#include "recording/File.h"
#include "recording/Recorder.h"

namespace Bench {
namespace {

using B = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;

class FullTable {
public:
    FullTable() {
        for (std::uint32_t number = 0; number < kKeys; ++number)
            write(number);
    }
    const Kiv::EventLoop& loop() { return system_.agent().loop(); }
    void write(std::uint32_t number) {
        entry_.key = keyOf(number);
        entry_.priority = entry_.priority + 1;
        system_.change(entry_);
    }

private:
    WholeSystem<B> system_{
        {.capacityCeiling = std::uint64_t{1} << 20U, .counters = 8, .policers = 8},
        [](auto& agent) { return agent.v6Table(kUnit.value); }};
    VornPolicyCpu::PolicyCpuV6TcamEntryEntry entry_;
};

/// A process has one agent.
FullTable& theTable() {
    static FullTable table;
    return table;
}

void wholeChange(benchmark::State& state) {
    FullTable& table = theTable();
    inRounds(
        state, [&](std::uint32_t number) { table.write(number); }, [] {});
}
BENCHMARK(wholeChange)->UseManualTime();

/// `rest`: what a loop with nothing else to do lets the writer do, between two rounds; not timed,
/// as no change waits for it.
template <class Rest>
void recorded(benchmark::State& state, const Rest& rest) {
    FullTable& table = theTable();
    const TestSupport::TempDir dir;
    std::optional<Recording::FileWriter> file;
    std::optional<Recording::Recorder> recorder;
    int files = 0;
    const auto begin = [&] {
        recorder.reset();
        file.reset();
        std::filesystem::remove(dir.file(std::to_string(files)));
        file.emplace(dir.file(std::to_string(++files)));
        recorder.emplace(table.loop(), *file);
        recorder->mounted({});
    };
    begin();
    const auto size = [&] { return std::filesystem::file_size(dir.file(std::to_string(files))); };
    inRounds(
        state, [&](std::uint32_t number) { table.write(number); },
        [&] {
            rest(*file);
            // The recordings of a long measurement do not fill the memory.
            constexpr std::uintmax_t kMost = std::uintmax_t{64} << 20U;
            if (size() >= kMost)
                begin();
        });
}

void recordedChange(benchmark::State& state) {
    recorded(state, [](Recording::FileWriter& file) { file.makeRoom(); });
}
BENCHMARK(recordedChange)->UseManualTime();

void recordedWithoutRest(benchmark::State& state) {
    recorded(state, [](Recording::FileWriter& /*file*/) {});
}
BENCHMARK(recordedWithoutRest)->UseManualTime();

void floorOfChange(benchmark::State& state) {
    static Floor<B> floor(kKeys);
    inRounds(
        state, [](std::uint32_t number) { floor.write(number); }, [] {});
}
BENCHMARK(floorOfChange)->UseManualTime();

}  // namespace
}  // namespace Bench
