// Agent and hardware side as two processes: how many changes a second go through, and how long one
// takes on an idle system, beside the barest exchanges between two processes.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "bench/Rounds.h"
#include "bench/WholeSystem.h"

namespace Bench {
namespace {

using B = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;
using Clock = std::chrono::steady_clock;  // the same one in all processes
using Clock_ns = std::chrono::nanoseconds;

std::int64_t now_ns() {
    return std::chrono::duration_cast<Clock_ns>(Clock::now().time_since_epoch()).count();
}

void check(bool holds, const char* what) {
    if (!holds)
        throw std::system_error(errno, std::generic_category(), what);
}

constexpr std::chrono::seconds kPatience{10};

/// A wait for the other process by looking again and again. Ends it when it takes too long: the
/// other process has failed, and the measurement must not hang.
class Waiting {
public:
    explicit Waiting(const char* what) : what_(what) {}

    /// In each turn. Few of them look at the clock, so that this is not what is measured.
    void goesOn() {
        constexpr std::uint64_t kTurnsByClock = std::uint64_t{1} << 16U;
        if (++turns_ % kTurnsByClock != 0)
            return;
        if (turns_ == kTurnsByClock) {
            end_ = Clock::now() + kPatience;
        } else if (Clock::now() > end_) {
            throw std::runtime_error(std::string("waited in vain for ") + what_);
        }
    }

private:
    const char* what_;
    std::uint64_t turns_ = 0;
    Clock::time_point end_;
};

/// Does what it is told in another process, until the object ends.
class OtherProcess {
public:
    explicit OtherProcess(const std::function<void()>& work) : pid_(fork()) {
        check(pid_ >= 0, "fork");
        if (pid_ != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            work();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "the other process: %s\n", error.what());
        }
        _exit(1);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;
    ~OtherProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_;
};

/// Words that both processes see.
struct Shared {
    alignas(64) std::atomic<std::uint64_t> ping{0};
    alignas(64) std::atomic<std::uint64_t> pong{0};
    alignas(64) std::atomic<std::int64_t> seen_ns{0};  ///< when the other side saw the last change
};
struct Unmap {
    void operator()(Shared* shared) const { munmap(shared, sizeof(Shared)); }
};
std::unique_ptr<Shared, Unmap> sharedWords() {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    check(memory != MAP_FAILED, "mmap");
    return std::unique_ptr<Shared, Unmap>(new (memory) Shared);
}

/// Nanoseconds of each single exchange, and what they come to.
class Latencies {
public:
    void add(std::int64_t ns) { all_.push_back(ns); }
    void report(benchmark::State& state, const char* name) {
        std::sort(all_.begin(), all_.end());
        for (const auto& [suffix, share] :
             {std::pair{"p50", 0.5}, std::pair{"p99", 0.99}, std::pair{"p99.9", 0.999}}) {
            const auto at = static_cast<std::size_t>(share * static_cast<double>(all_.size() - 1));
            state.counters[std::string(name) + suffix] = static_cast<double>(all_[at]);
        }
    }

private:
    std::vector<std::int64_t> all_;
};

// The barest exchanges: a word there and a word back.

void sharedMemoryPingPong(benchmark::State& state) {
    const auto shared = sharedWords();
    const OtherProcess other([&] {
        for (std::uint64_t last = 0;;) {
            const std::uint64_t ping = shared->ping.load(std::memory_order_acquire);
            if (ping != last)
                shared->pong.store(last = ping, std::memory_order_release);
        }
    });
    Latencies latencies;
    std::uint64_t number = 0;
    for (auto _ : state) {
        const std::int64_t start = now_ns();
        shared->ping.store(++number, std::memory_order_release);
        Waiting answer("the answer to a ping");
        while (shared->pong.load(std::memory_order_acquire) != number)
            answer.goesOn();
        latencies.add(now_ns() - start);
    }
    latencies.report(state, "");
}
BENCHMARK(sharedMemoryPingPong)->Iterations(20000);

void datagramPingPong(benchmark::State& state) {
    std::array<int, 2> ends{};
    check(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
    const KivShimo::detail::Descriptor own(ends[0]);
    const KivShimo::detail::Descriptor others(ends[1]);
    const timeval patience{kPatience.count(), 0};
    check(setsockopt(own.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) == 0,
          "setsockopt");
    const OtherProcess other([&] {
        char byte = 0;
        while (recv(others.fd(), &byte, 1, 0) == 1 && send(others.fd(), &byte, 1, 0) == 1) {
        }
    });
    Latencies latencies;
    char byte = 0;
    for (auto _ : state) {
        const std::int64_t start = now_ns();
        check(send(own.fd(), &byte, 1, 0) == 1 && recv(own.fd(), &byte, 1, 0) == 1,
              "waiting for the answer to a datagram");
        latencies.add(now_ns() - start);
    }
    latencies.report(state, "");
}
BENCHMARK(datagramPingPong)->Iterations(20000);

// The whole way of changes.

constexpr std::chrono::milliseconds kForEver{-1};

/// False when nobody has rung in time.
bool wait(const KivShimo::Doorbell& bell, std::chrono::milliseconds patience) {
    pollfd ring{bell.fd(), POLLIN, 0};
    const int rung = poll(&ring, 1, static_cast<int>(patience.count()));
    check(rung >= 0 || errno == EINTR, "poll");
    return rung != 0;
}

/// The other process: follows, and notes when it has read something.
[[noreturn]] void followForEver(const std::string& root, Shared& shared, bool sleeps) {
    KivShimo::AckMapWriter acks(
        root, Asic::Constants::acknowledgementsPath(VornPolicyCpu::canonicalGroupName()));
    KivShimo::Doorbell bell(Asic::Constants::hardwareDoorbell(root));
    Follower<B> follower(root, acks);
    KivShimo::Waker agent = follower.waker(Asic::Constants::agentDoorbell(root));
    shared.ping.store(1);
    const auto work = [&] {
        const std::uint64_t before = follower.read();
        follower.follow([&] { shared.seen_ns.store(now_ns(), std::memory_order_release); });
        if (follower.read() == before)
            return false;
        agent.published();
        return true;
    };
    while (true) {
        if (work() || !sleeps)
            continue;
        bell.drain();
        follower.sleeper().asleep();
        if (!work())
            wait(bell, kForEver);
        follower.sleeper().awake();
    }
}

/// An agent with a hardware side in another process.
class TwoSides {
public:
    explicit TwoSides(bool sleeps)
        : bell_(Asic::Constants::agentDoorbell(agent_.root())),
          other_([&] { followForEver(agent_.root(), *shared_, sleeps); }),
          sleeps_(sleeps) {
        Waiting start("the other process to start");
        while (shared_->ping.load() == 0)
            start.goesOn();
        group_->acknowledgementsArrived();
    }
    /// Waits for answers until no more than `most` are to come.
    void waitForAnswers(std::uint64_t most) {
        agent_.settle();
        Waiting answers("the answers to changes");
        while (written_ - answered_ > most) {
            takeUp();
            answers.goesOn();
            if (!sleeps_ || written_ - answered_ <= most)
                continue;
            bell_.drain();
            if (group_->sleepPrepared() && !wait(bell_, kPatience))
                throw std::runtime_error("waited in vain for the hardware side's bell");
            group_->awake();
        }
    }
    void write(std::uint32_t number) {
        entry_.key = keyOf(number);
        entry_.priority = entry_.priority + 1;
        table_->entryWriteWithResponseHandler(entry_.key, entry_, nullptr,
                                              [this](const auto&) { ++answered_; });
        ++written_;
    }
    /// Of the last change.
    std::int64_t seen_ns() const { return shared_->seen_ns.load(std::memory_order_acquire); }

private:
    void takeUp() {
        group_->acknowledgementsArrived();
        agent_.settle();
    }

    std::unique_ptr<Shared, Unmap> shared_ = sharedWords();
    TestSupport::InProcessAgent agent_{
        {.capacityCeiling = std::uint64_t{1} << 20U, .counters = 8, .policers = 8}};
    Brumo::Ptr<B::SwTable> table_ = agent_.v6Table(kUnit.value);
    Brumo::Ptr<Asic::GroupInterface> group_ = agent_.group();
    KivShimo::Doorbell bell_;
    OtherProcess other_;
    bool sleeps_;
    VornPolicyCpu::PolicyCpuV6TcamEntryEntry entry_;
    std::uint64_t written_ = 0;
    std::uint64_t answered_ = 0;
};

void changesThroughTwoProcesses(benchmark::State& state) {
    constexpr std::uint64_t kInFlight = 64;
    TwoSides sides(false);
    inRounds(
        state,
        [&](std::uint32_t number) {
            sides.write(number);
            sides.waitForAnswers(kInFlight);
        },
        [&] { sides.waitForAnswers(0); });
}
BENCHMARK(changesThroughTwoProcesses)->UseManualTime();

void latency(benchmark::State& state, bool sleeps) {
    TwoSides sides(sleeps);
    Latencies seen;
    Latencies answered;
    std::size_t at = 0;
    for (auto _ : state) {
        sides.write(randomOrder()[at++ % randomOrder().size()]);
        const std::int64_t start = now_ns();
        sides.waitForAnswers(0);
        answered.add(now_ns() - start);
        seen.add(sides.seen_ns() - start);
    }
    seen.report(state, "seen ");
    answered.report(state, "answered ");
}

void latencySpinning(benchmark::State& state) {
    latency(state, false);
}
BENCHMARK(latencySpinning)->Iterations(20000);

void latencySleeping(benchmark::State& state) {
    latency(state, true);
}
BENCHMARK(latencySleeping)->Iterations(20000);

}  // namespace
}  // namespace Bench
