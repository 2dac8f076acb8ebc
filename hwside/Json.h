// The control socket's values as JSON: packets and verdicts; entries are Process::entryJson.
//
// Any thread.
#pragma once

#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "hwside/Packet.h"
#include "hwside/Tcam.h"
#include "process/EntryJson.h"

namespace HwSide {

using Json = nlohmann::ordered_json;
using Process::entryJson;

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

/// Null where nothing matched.
Json verdictJson(const std::optional<Verdict>& verdict);

}  // namespace HwSide
