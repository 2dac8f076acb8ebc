// The control socket's values as JSON: packets, entries, actions and verdicts.
//
// Any thread. Fields of an entry that match anything are left out.
#pragma once

#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "hwside/Packet.h"
#include "hwside/Tcam.h"

namespace HwSide {

using Json = nlohmann::ordered_json;

/// A request that cannot be answered; the text says which member is wrong and what was expected.
class RequestError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A packet as requests describe it. `src` and `dst` are needed; the others are `proto` (name or
/// number), `sport`, `dport`, `tcp-flags`, `icmp-type`, `icmp-code`, `ttl`, `dscp`, `fragment`
/// ("none", "first", "later") and `df`. What the protocol has and the request leaves out is 0, the
/// time to live 64; null says that the packet ends before the field.
/// Throws RequestError, also for members that contradict each other.
Packet packetFromJson(const Json& object);
Json packetToJson(const Packet& packet);

Json entryJson(const ActionTypes::LogEntry& action);
Json entryJson(const V4Types::LogEntry& entry);
Json entryJson(const V6Types::LogEntry& entry);
/// Null where nothing matched.
Json verdictJson(const std::optional<Verdict>& verdict);

}  // namespace HwSide
