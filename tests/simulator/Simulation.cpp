#include "tests/simulator/Simulation.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>

#include <fmt/format.h>

#include "platform/brumo/Trace.h"
#include "tests/simulator/World.h"

namespace Simulator {

namespace {

constexpr std::size_t kShown = 30;
constexpr std::uint64_t kCompareEvery = 64;

/// The last steps, told when something goes wrong.
struct Told30 {
    std::uint64_t seed = 0;
    std::uint64_t done = 0;
    std::deque<Step> steps;

    void add(const Step& step) {
        ++done;
        steps.push_back(step);
        if (steps.size() > kShown)
            steps.pop_front();
    }
    std::string toText() const {
        std::string text = fmt::format("seed {}, step {}; the last steps:\n", seed, done);
        std::uint64_t number = done - steps.size();
        for (const Step& step : steps)
            text += fmt::format("  {:>6} {}\n", ++number, textOf(step));
        return text + fmt::format("again: ./dev simulate --seed {} --steps {}\n", seed, done);
    }
};

/// The simulation under way: an assertion of the engine ends the process.
const Told30* underWay = nullptr;

extern "C" void printUnderWay(int) {
    if (underWay != nullptr)
        std::fputs(underWay->toText().c_str(), stderr);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();
}

World::Sizes sizesOf(Random& random) {
    World::Sizes sizes{};
    sizes.slots = 8 + random.below(25);
    sizes.keys = static_cast<unsigned>(sizes.slots) / 2 + random.below(12);
    sizes.requests = 2 + random.below(7);
    sizes.pool = 2 + random.below(5);
    return sizes;
}

}  // namespace

void Figures::add(const Figures& more) {
    steps += more.steps;
    commits += more.commits;
    answers += more.answers;
    updates += more.updates;
    failures += more.failures;
    announcements += more.announcements;
    snapshots += more.snapshots;
    lostRecords += more.lostRecords;
    agentRestarts += more.agentRestarts;
    agentKills += more.agentKills;
    agentKillsTwice += more.agentKillsTwice;
    hardwareRestarts += more.hardwareRestarts;
    hardwareKills += more.hardwareKills;
    settled += more.settled;
}

std::string Figures::toText() const {
    return fmt::format(
        "{} steps: {} commits, {} answers, {} updates, {} changes failed; {} announcements, {} "
        "snapshots, {} records lost; agent restarted {}, killed {}, and in its recovery {}; "
        "hardware side restarted {}, killed {}; settled {}",
        steps, commits, answers, updates, failures, announcements, snapshots, lostRecords,
        agentRestarts, agentKills, agentKillsTwice, hardwareRestarts, hardwareKills, settled);
}

Outcome simulate(std::uint64_t seed, std::uint64_t steps) {
    const std::string filterBefore = Brumo::traceFilter();
    if (std::getenv("VORN_TRACE") == nullptr)
        Brumo::traceFilterIs("");
    Random random(seed);
    Told30 told{seed, 0, {}};
    underWay = &told;
    const auto handlerBefore = std::signal(SIGABRT, printUnderWay);
    Outcome outcome;
    std::string failure;
    try {
        World world(sizesOf(random));
        for (std::uint64_t done = 1; done <= steps && failure.empty(); ++done) {
            Step step = stepOf(random, world.sizes().keys, world.sizes().requests);
            told.add(step);
            failure = world.step(step);
            if (failure.empty() && done % kCompareEvery == 0)
                failure = world.compare();
        }
        if (failure.empty())
            failure = world.step({.act = Act::settle});
        outcome.figures = world.figures();
        outcome.digest = world.digest();
    } catch (const std::exception& error) {
        failure = fmt::format("thrown: {}", error.what());
    }
    if (!failure.empty())
        outcome.failure = failure + "\n" + told.toText();
    std::signal(SIGABRT, handlerBefore);
    underWay = nullptr;
    Brumo::traceFilterIs(filterBefore);
    return outcome;
}

}  // namespace Simulator
