// The changes of `./dev bench` in fixed numbers, for counting their instructions under callgrind:
// instructions NAME. Only the loop of the name is counted, not what makes the table.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>

#include "bench/FullActions.h"
#include "bench/FullLog.h"
#include "bench/NeverDone.h"
#include "recording/File.h"
#include "recording/Recorder.h"

namespace {

using namespace Bench;
using Matches = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;
using Match = VornPolicyCpu::PolicyCpuV6TcamEntryEntry;

constexpr std::uint32_t kFewKeys = 1024;
constexpr std::uint32_t kChanges = 2048;

WholeSystem<Matches> smallSystem() {
    return {{.capacityCeiling = std::uint64_t{1} << 15U, .counters = 8, .policers = 8},
            [](auto& agent) { return agent.v6Table(kUnit.value); }};
}

/// An entry of a few keys; another one each time.
const Match& nextMatch() {
    static Match entry;
    entry.key = keyOf(entry.priority % kFewKeys);
    entry.priority = entry.priority + 1;
    return entry;
}

template <class Change>
void counted(const Change& change) {
    CALLGRIND_TOGGLE_COLLECT;
    for (std::uint32_t i = 0; i < kChanges; ++i)
        change(i);
    CALLGRIND_TOGGLE_COLLECT;
}

void entryIs() {
    FullLog log({.keys = kFewKeys, .logSlots = std::uint64_t{1} << 15U});
    counted([&](std::uint32_t i) { log.write(i % kFewKeys); });
}

void wholeChange() {
    auto system = smallSystem();
    for (std::uint32_t i = 0; i < kFewKeys; ++i)
        system.change(nextMatch());
    counted([&](std::uint32_t) { system.change(nextMatch()); });
}

void recordedChange() {
    auto system = smallSystem();
    for (std::uint32_t i = 0; i < kFewKeys; ++i)
        system.change(nextMatch());
    const TestSupport::TempDir dir;
    Recording::FileWriter file(dir.file("recording"));
    Recording::Recorder recorder(system.agent().loop(), file);
    recorder.mounted({});
    counted([&](std::uint32_t) { system.change(nextMatch()); });
}

void wholeActionChange() {
    constexpr std::uint32_t kSharing = 64;
    FullActions actions(kSharing, kFewKeys);
    counted([&](std::uint32_t i) { actions.system().change(actions.entryOf(i % kFewKeys)); });
}

void entryRead() {
    auto system = smallSystem();
    for (std::uint32_t i = 0; i < kFewKeys; ++i)
        system.change(nextMatch());
    std::uint64_t sum = 0;
    counted(
        [&](std::uint32_t i) { sum += system.table()->entryRead(keyOf(i % kFewKeys)).priority; });
    std::printf("sum %llu\n", static_cast<unsigned long long>(sum));
}

/// Up to the commit.
void writeWhileOthersWait() {
    constexpr std::uint32_t kWaiting = 10000;
    auto system = smallSystem();
    const auto never = Brumo::make<NeverDone>();
    Match waiting;
    for (std::uint32_t i = 0; i < kWaiting; ++i) {
        waiting.key = keyOf(kFewKeys + i);
        system.table()->entryWrite(waiting.key, waiting, never);
    }
    system.settle();
    counted([&](std::uint32_t) {
        const Match& entry = nextMatch();
        system.table()->entryWrite(entry.key, entry, nullptr);
        system.agent().settle();
    });
}

const std::map<std::string, std::function<void()>> kRows{
    {"entryIs", entryIs},
    {"wholeChange", wholeChange},
    {"recordedChange", recordedChange},
    {"wholeActionChange", wholeActionChange},
    {"entryRead", entryRead},
    {"writeWhileOthersWait", writeWhileOthersWait},
};

}  // namespace

int main(int argc, char** argv) {
    const auto row = argc == 2 ? kRows.find(argv[1]) : kRows.end();
    if (row == kRows.end()) {
        std::fputs("usage: instructions NAME; names:", stderr);
        for (const auto& [name, run] : kRows)
            std::fprintf(stderr, " %s", name.c_str());
        std::fputs("\n", stderr);
        return 2;
    }
    row->second();
    std::printf("changes %u\n", kChanges);
    return 0;
}
