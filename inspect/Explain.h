// The whole story of one entry: staged, committed, announced, acknowledged, in hardware, and what
// it waits for.
//
// One thread; asks both processes where they run and reads the files in any case.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "inspect/Hardware.h"
#include "inspect/Processes.h"

namespace Inspect {

/// Where an entry stands, worst news first.
enum class Standing : std::uint8_t {
    rotten,       ///< its committed value does not verify
    cycle,        ///< what it waits for waits for it
    waits,        ///< staged, not committed
    failed,       ///< could not be committed; what was committed before stays
    missing,      ///< acknowledged, but hardware has something else
    underWay,     ///< committed, not acknowledged
    unconfirmed,  ///< acknowledged, and the hardware side cannot be asked
    inHardware,
    removed,
    absent,
};
std::string_view standingText(Standing standing);

struct Explanation {
    EntryId id;
    std::string name;
    Standing standing = Standing::absent;
    std::string verdict;  ///< one line

    bool agentRuns = false;
    std::string agentSilence;            ///< why the agent did not tell; empty where it did
    Json changes = Json::array();        ///< of the key, as the agent tells them
    Json staged;                         ///< the newest change that is not committed; null: none
    std::optional<std::string> failure;  ///< why the last change failed, where one did
    Json chain = Json::array();          ///< from the oldest of them to the root
    std::optional<std::string> root;     ///< what all wait for
    bool isCycle = false;
    Json stages = Json::array();     ///< time in each stage
    std::optional<double> oldest_s;  ///< age of the table's oldest unacknowledged change

    std::optional<Entry> committed;
    std::uint64_t published = 0;
    std::optional<std::uint64_t> acknowledged;
    std::uint64_t before = 0;                  ///< unacknowledged changes before the entry's own
    std::optional<std::uint64_t> announcedAt;  ///< position, of what is not consumed yet
    std::vector<std::string> needs;  ///< versions that hardware has to have first and has not
    bool pauseRequested = false;

    bool hardwareRuns = false;
    std::string hardwareSilence;
    std::optional<Held> held;

    std::vector<Damage> damages;
};

Explanation explain(System& system, const EntryId& id);
Json toJson(const Explanation& explanation);

}  // namespace Inspect
