#include "tests/model/Commands.h"

#include <array>
#include <ostream>

#include <fmt/format.h>

namespace ModelTests {

namespace {

std::string options(const Command& command) {
    static constexpr std::array<const char*, 4> kCallbacks{"", " then-write", " then-remove",
                                                           " then-remove-all"};
    std::string text;
    if (command.dependency != 0)
        text += fmt::format(" after-handle {}", command.dependency);
    return text + kCallbacks.at(command.callback);
}

std::string resourceOf(const Command& command) {
    return fmt::format("{} {}", command.family == 0 ? "counter" : "policer", command.key + 1);
}

}  // namespace

std::string textOf(const Command& c) {
    static constexpr std::array<const char*, 3> kFamilies{"action", "match", "match6"};
    const std::string table = fmt::format("{}/unit{}", kFamilies.at(c.family), c.unit + 1);
    switch (c.op) {
        case Op::write:
            return fmt::format("write {} key {} counter {} policer {} variant {}{}", table, c.key,
                               c.counter, c.policer, c.variant, options(c));
        case Op::remove:
            return fmt::format("remove {} key {}{}", table, c.key, options(c));
        case Op::removeAll:
            return fmt::format("remove-all {}{}", table, options(c));
        case Op::turn:
            return "turn";
        case Op::settle:
            return "settle";
        case Op::acknowledge:
            return fmt::format("acknowledge {} {}/8", c.family == 0 ? "actions" : "matches",
                               c.amount);
        case Op::acknowledgeResources:
            return "acknowledge-resources";
        case Op::move:
            return "move " + resourceOf(c);
        case Op::fail:
            return "fail " + resourceOf(c);
        case Op::recover:
            return "recover " + resourceOf(c);
        case Op::cleanup:
            return fmt::format("cleanup {} {}/8 + {}", c.family == 0 ? "actions" : "matches",
                               c.amount, c.variant);
        case Op::openWalk:
            return c.callback == 0 ? fmt::format("walk {}", table)
                                   : fmt::format("walk {} from key {}", table, c.key);
        case Op::stepWalk:
            return fmt::format("step-walk {}", table);
        case Op::update:
            return fmt::format("update {} key {}", table, c.key);
        case Op::clearTable:
            return fmt::format("clear {} {}", table, c.callback == 0 ? "keeping uses" : "");
        case Op::pause:
            return "pause";
        case Op::resume:
            return "resume";
        case Op::restart:
            return "restart";
    }
    return "?";
}

std::string textOf(const Sequence& sequence) {
    std::string text = fmt::format("{} unit(s), {} match table\n", sequence.twoUnits ? 2 : 1,
                                   sequence.v6 ? "IPv6" : "IPv4");
    for (const Command& command : sequence.commands)
        text += "  " + textOf(command) + "\n";
    return text;
}

std::string textOf(const Reached& r) {
    return fmt::format(
        "{} commits, {} answers, {} failed for a resource, {} for a dependency, {} updates, {} "
        "with "
        "a failed resource, {} tables cleared, {} restarts",
        r.commits, r.answers, r.resolveFailures, r.dependencyFailures, r.updates,
        r.updatesWithFailure, r.clears, r.restarts);
}

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << textOf(command);
}

std::ostream& operator<<(std::ostream& out, const Sequence& sequence) {
    return out << "\n" << textOf(sequence);
}

}  // namespace ModelTests
