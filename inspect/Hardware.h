// What the hardware side says it holds.
//
// One thread an object: it asks over the control socket.
#pragma once

#include <map>
#include <optional>

#include "inspect/Processes.h"

namespace Inspect {

struct Held {
    Json content;  ///< as Process::entryJson makes it
    std::uint64_t version = 0;

    bool operator==(const Held&) const = default;
};

/// The entry that hardware has for a key; nothing where it has none. Throws NotRunningError,
/// RefusedError.
std::optional<Held> heldFor(Peer& hardware, const EntryId& id);

using HeldEntries = std::map<EntryId, Held>;
/// All entries of a unit. Throws NotRunningError, RefusedError.
HeldEntries heldOn(Peer& hardware, std::uint16_t unit);

}  // namespace Inspect
