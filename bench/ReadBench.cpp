// What reads of a full table cost: one key, all keys.
#include <absl/container/flat_hash_map.h>

#include "bench/Floor.h"
#include "bench/Rounds.h"
#include "bench/WholeSystem.h"
#include "entrylog/ShimoManager.h"

namespace Bench {
namespace {

using B = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;
using Entry = VornPolicyCpu::PolicyCpuV6TcamEntryEntry;
using Key = VornPolicyCpu::MatchKey;

Entry entryOf(std::uint32_t number) {
    Entry entry;
    entry.key = keyOf(number);
    entry.priority = number + 1;
    return entry;
}

B::SwTable& fullTable() {
    static WholeSystem<B> system{
        {.capacityCeiling = std::uint64_t{1} << 17U, .counters = 8, .policers = 8},
        [](auto& agent) { return agent.v6Table(kUnit.value); }};
    static const bool isFilled = [] {
        for (std::uint32_t number = 0; number < kKeys; ++number)
            system.change(entryOf(number));
        return true;
    }();
    static_cast<void>(isFilled);
    return *system.table();
}

struct KeyHash {
    std::size_t operator()(const Key& key) const { return absl::HashOf(key.rule, key.term); }
};

void entryRead(benchmark::State& state) {
    const B::SwTable& table = fullTable();
    inRounds(
        state,
        [&](std::uint32_t number) {
            const Entry entry = table.entryRead(keyOf(number));
            benchmark::DoNotOptimize(entry);
        },
        [] {});
}
BENCHMARK(entryRead)->UseManualTime();

void hashMapRead(benchmark::State& state) {
    static const auto entries = [] {
        absl::flat_hash_map<Key, Entry, KeyHash> all;
        for (std::uint32_t number = 0; number < kKeys; ++number)
            all[keyOf(number)] = entryOf(number);
        return all;
    }();
    inRounds(
        state,
        [&](std::uint32_t number) {
            const Entry entry = entries.find(keyOf(number))->second;
            benchmark::DoNotOptimize(entry);
        },
        [] {});
}
BENCHMARK(hashMapRead)->UseManualTime();

/// The counter `changes` is of what one iteration has done, here entries read.
void iteration(benchmark::State& state) {
    const B::SwTable& table = fullTable();
    for (auto _ : state) {
        std::uint64_t seen = 0;
        table.forEach([&](const Entry& entry) { seen += entry.priority != 0 ? 1 : 0; });
        if (seen != kKeys)
            state.SkipWithError("entries are missing");
    }
    state.counters["changes"] = kKeys;
}
BENCHMARK(iteration);

void floorOfIteration(benchmark::State& state) {
    static Floor<B> floor(kKeys);
    static const bool isFilled = [] {
        for (std::uint32_t number = 0; number < kKeys; ++number)
            floor.write(number);
        return true;
    }();
    static_cast<void>(isFilled);
    for (auto _ : state) {
        if (floor.readAll() != kKeys)
            state.SkipWithError("values are missing");
    }
    state.counters["changes"] = kKeys;
}
BENCHMARK(floorOfIteration);

/// A configuration that another process left, from its files to its index.
void mount(benchmark::State& state) {
    VornPolicyCpu::EntryLog<B>& log = *fullTable().entryLog();
    const auto version = log.tableVersion();
    const auto manager = VornPolicyCpu::shimoManagerOf(*log.entityManager());
    for (auto _ : state) {
        state.PauseTiming();
        log.tableConfigShimoDel(kUnit);
        manager->entityDel(VornPolicyCpu::Constants<B::Types>::configShimoPath(kUnit));
        state.ResumeTiming();
        log.mountShimoConfig(kUnit, version);
    }
    if (log.entrys(kUnit) != kKeys)
        state.SkipWithError("values are missing");
    state.counters["changes"] = kKeys;
}
BENCHMARK(mount);

}  // namespace
}  // namespace Bench
