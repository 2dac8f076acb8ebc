// What a load of a policy would change, as the control socket shows it.
//
// Event thread only.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/TableDifference.h"

namespace Agent {

using Json = nlohmann::ordered_json;

/// "total" writes and removes, of which at most kMostListed are listed, and how many entries stay
/// as they are.
inline constexpr std::size_t kMostListed = 10000;
inline Json noDifference() {
    return {{"unchanged", std::size_t{0}},
            {"total", std::size_t{0}},
            {"write", Json::array()},
            {"remove", Json::array()}};
}

/// Adds what one table is to change. A write that "isNew" has nothing under its key before it.
template <class Types>
void addDifference(Json& json, const TableDifference<Types>& difference, Asic::UnitId unit) {
    const auto count = [&](const char* name, std::size_t more) {
        json[name] = json[name].template get<std::size_t>() + more;
    };
    count("unchanged", difference.unchanged);
    count("total", difference.writes.size() + difference.stale.size());
    const auto hasRoom = [&] { return json["write"].size() + json["remove"].size() < kMostListed; };
    for (const auto& write : difference.writes) {
        if (!hasRoom())
            return;
        json["write"].push_back({{"table", Types::kName},
                                 {"unit", unit.value},
                                 {"key", write.entry.key.toText()},
                                 {"name", write.wanted->name},
                                 {"isNew", !write.before.has_value()}});
    }
    for (const auto& key : difference.stale) {
        if (!hasRoom())
            return;
        json["remove"].push_back(
            {{"table", Types::kName}, {"unit", unit.value}, {"key", key.toText()}});
    }
}

}  // namespace Agent
