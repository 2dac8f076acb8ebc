// One step of a random sequence, and how it reads when a sequence fails.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace ModelTests {

enum class Op : std::uint8_t {
    write,
    remove,
    removeAll,
    turn,
    settle,
    acknowledge,
    acknowledgeResources,
    move,
    fail,
    recover,
    cleanup,
    openWalk,
    stepWalk,
    update,
    clearTable,
    pause,
    resume,
    restart,
};

/// Small numbers whose meaning depends on the operation.
struct Command {
    Op op = Op::turn;
    unsigned family = 0;      ///< 0: the action table, 1: a match table
    unsigned unit = 0;        ///< of the units that the sequence has
    unsigned key = 0;         ///< one less than the resource of a move, a failure and a recovery
    unsigned counter = 0;     ///< 0: none
    unsigned policer = 0;     ///< 0: none
    unsigned variant = 0;     ///< content; 1: commit though it failed; 2: refuse updates
    unsigned dependency = 0;  ///< 0: none, n: the n-th latest handle
    unsigned callback = 0;    ///< what the response handler does: 1 write, 2 remove, 3 remove-all
    unsigned amount = 0;      ///< how far, in eighths
};

struct Sequence {
    bool twoUnits = false;
    bool v6 = false;
    std::vector<Command> commands;
};

std::string textOf(const Command& command);
std::string textOf(const Sequence& sequence);
std::ostream& operator<<(std::ostream& out, const Command& command);
std::ostream& operator<<(std::ostream& out, const Sequence& sequence);

/// How often sequences have come to what is rare.
struct Reached {
    std::uint64_t commits = 0;
    std::uint64_t answers = 0;
    std::uint64_t resolveFailures = 0;
    std::uint64_t dependencyFailures = 0;
    std::uint64_t updates = 0;
    std::uint64_t updatesWithFailure = 0;
    std::uint64_t clears = 0;
    std::uint64_t restarts = 0;
};
std::string textOf(const Reached& reached);

/// Runs a sequence against real tables and the model. Returns what first went wrong and after which
/// command; empty when nothing did.
std::string run(const Sequence& sequence, Reached& reached);

}  // namespace ModelTests
