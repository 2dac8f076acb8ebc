#include "agent/PolicyDifference.h"

#include "agent/TableDifference.h"

namespace Agent {

namespace {

template <class Types>
void add(Json& json, const VornPolicyCpu::TableOperations<Types>& table, Asic::UnitId unit,
         const std::vector<Named<typename Types::Entry>>& policy) {
    const auto difference = differenceOf(table, policy, unit, [](std::uint64_t) { return false; });
    json["unchanged"] = json["unchanged"].get<std::size_t>() + difference.unchanged;
    json["total"] =
        json["total"].get<std::size_t>() + difference.writes.size() + difference.stale.size();
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

}  // namespace

Json policyDifferenceJson(const CompiledPolicy& policy, const std::vector<UnitTables>& units) {
    Json json{{"unchanged", std::size_t{0}},
              {"total", std::size_t{0}},
              {"write", Json::array()},
              {"remove", Json::array()}};
    for (const UnitTables& unit : units) {
        add<ActionTypes>(json, *unit.actions, unit.unit, policy.actions);
        add<V4Types>(json, *unit.ipv4, unit.unit, policy.ipv4);
        add<V6Types>(json, *unit.ipv6, unit.unit, policy.ipv6);
    }
    return json;
}

}  // namespace Agent
