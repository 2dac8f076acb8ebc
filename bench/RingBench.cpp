// What a message in the ring trace costs, and how much of it is reading the clock.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "platform/ringtrace/Ring.h"

namespace Bench {
namespace {

void ringRecord(benchmark::State& state) {
    const std::string file = "/dev/shm/vorn-bench-ring-" + std::to_string(getpid());
    RingTrace::Ring ring(file, 1024);
    std::filesystem::remove(file);  // what is mapped stays
    const RingTrace::MessageId id = ring.message("{} {} {} {}");
    std::int64_t number = 0;
    for (auto _ : state)
        ring.record(id, ++number, -1, 2, 3);
}
BENCHMARK(ringRecord);

void clockRead(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(std::chrono::system_clock::now());
}
BENCHMARK(clockRead);

}  // namespace
}  // namespace Bench
