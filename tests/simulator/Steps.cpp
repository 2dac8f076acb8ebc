#include "tests/simulator/Steps.h"

#include <array>
#include <utility>

#include <fmt/format.h>

namespace Simulator {

namespace {

using ModelTests::Command;
using ModelTests::Op;

template <class T, std::size_t n>
T chosen(Random& random, const std::array<std::pair<unsigned, T>, n>& weighted) {
    unsigned sum = 0;
    for (const auto& [weight, value] : weighted)
        sum += weight;
    unsigned at = random.below(sum);
    for (const auto& [weight, value] : weighted) {
        if (at < weight)
            return value;
        at -= weight;
    }
    return weighted.back().second;
}

constexpr std::array<std::pair<unsigned, Op>, 14> kOps{{{300, Op::write},
                                                        {110, Op::remove},
                                                        {8, Op::removeAll},
                                                        {200, Op::turn},
                                                        {60, Op::settle},
                                                        {40, Op::move},
                                                        {15, Op::fail},
                                                        {20, Op::recover},
                                                        {5, Op::openWalk},
                                                        {15, Op::stepWalk},
                                                        {15, Op::update},
                                                        {2, Op::clearTable},
                                                        {2, Op::pause},
                                                        {8, Op::resume}}};

constexpr std::array<std::pair<unsigned, Act>, 11> kActs{{{7500, Act::command},
                                                          {900, Act::arrive},
                                                          {1500, Act::pump},
                                                          {15, Act::stopHardware},
                                                          {15, Act::restartHardware},
                                                          {10, Act::emptyHardware},
                                                          {15, Act::restartAgent},
                                                          {30, Act::killAgent},
                                                          {12, Act::killAgentTwice},
                                                          {15, Act::killHardware},
                                                          {15, Act::settle}}};

Command commandOf(Random& random, unsigned keys, unsigned requests) {
    Command command;
    command.op = chosen(random, kOps);
    command.family = random.below(3);
    command.unit = random.below(2);
    command.key = random.below(keys);
    if (command.op == Op::move || command.op == Op::fail || command.op == Op::recover) {
        command.family = random.below(2);
        command.key = random.below(requests);
    }
    command.counter = random.below(requests + 1);
    command.policer = random.below(requests + 1);
    // The lowest bit wants an entry committed whose resource has failed.
    command.variant = random.below(250) * 4 + (random.oneIn(5) ? 1 : 0);
    command.dependency = random.oneIn(3) ? random.below(8) : 0;
    command.callback = random.oneIn(12) ? random.below(4) : 0;
    if (command.op == Op::clearTable || command.op == Op::openWalk)
        command.callback = random.below(2);
    return command;
}

/// Mostly near: that is where the stores of one change are.
unsigned storesOf(Random& random) {
    constexpr std::array<unsigned, 4> kFar{8, 40, 150, 600};
    return 1 + random.below(kFar.at(random.below(4)));
}

}  // namespace

Step stepOf(Random& random, unsigned keys, unsigned requests) {
    Step step;
    step.act = chosen(random, kActs);
    switch (step.act) {
        case Act::command:
            step.command = commandOf(random, keys, requests);
            break;
        case Act::killAgent:
        case Act::killAgentTwice:
            for (unsigned left = 1 + random.below(4); left > 0; --left)
                step.commands.push_back(commandOf(random, keys, requests));
            step.commands.push_back({.op = random.oneIn(3) ? Op::turn : Op::settle});
            step.stores = storesOf(random);
            step.further = 1 + random.below(random.oneIn(2) ? 40 : 1000);
            step.amount = random.oneIn(2) ? 1000 : random.below(4);
            step.between = random.below(6);
            break;
        case Act::pump:
        case Act::killHardware:
            step.amount = random.oneIn(4) ? 1000 : random.below(6);
            step.stores = 1 + random.below(30);
            break;
        case Act::stopHardware:
            step.amount = 20 + random.below(200);
            break;
        default:
            break;
    }
    return step;
}

std::string textOf(const Step& step) {
    std::string commands;
    switch (step.act) {
        case Act::command:
            return ModelTests::textOf(step.command);
        case Act::arrive:
            return "the agent takes acknowledgements up";
        case Act::pump:
            return fmt::format("the hardware side takes {} announcements", step.amount);
        case Act::stopHardware:
            return fmt::format("the hardware side is away for {} steps", step.amount);
        case Act::restartHardware:
            return "the hardware side restarts";
        case Act::emptyHardware:
            return "the hardware side restarts, its hardware is empty";
        case Act::restartAgent:
            return "the agent restarts";
        case Act::killAgent:
        case Act::killAgentTwice:
            for (const Command& command : step.commands)
                commands += fmt::format("; {}", ModelTests::textOf(command));
            return fmt::format("the agent is killed before store {}{}, hardware side takes {}{}{}",
                               step.stores,
                               step.act == Act::killAgent
                                   ? std::string()
                                   : fmt::format(" and store {} of its recovery", step.further),
                               step.amount,
                               step.between == 1   ? ", restarts"
                               : step.between == 2 ? ", restarts empty"
                                                   : "",
                               commands);
        case Act::killHardware:
            return fmt::format("the hardware side is killed before store {} of {} announcements",
                               step.stores, step.amount);
        case Act::settle:
            return "everything settles";
    }
    return "?";
}

}  // namespace Simulator
