// A policy's entries beside the stored ones.
#include "inspect/PolicyDiff.h"

#include <map>

namespace Inspect {

namespace {

constexpr std::array<const char*, kTables.size()> kPolicyLists{"actions", "ipv4", "ipv6"};

/// What of a wanted entry can be compared.
Json comparable(Table table, Json wanted) {
    if (table == Table::action) {
        wanted["name"] = storedName(table, wanted.at("name").get<std::string>());
        return wanted;
    }
    wanted.erase("name");
    return wanted;
}

/// The same of a stored one.
Json comparable(const Entry& stored) {
    Json content = stored.content;
    if (stored.id.table == Table::action) {
        content["counted"] = !stored.counterRequest.empty();
        content["policed"] = !stored.policerRequest.empty();
        content.erase("counter");
        content.erase("policer");
    }
    return content;
}

/// Whether they say the same, in whatever order.
bool isSame(const Json& left, const Json& right) {
    return nlohmann::json(left) == nlohmann::json(right);
}

}  // namespace

PolicyDiff policyDiff(const State& state, const Json& policy,
                      const std::vector<std::uint16_t>& units, const Report& report) {
    PolicyDiff diff;
    for (const Table table : kTables) {
        const Json& wanted = policy.at(kPolicyLists.at(static_cast<std::size_t>(table)));
        for (const std::uint16_t unit : units) {
            std::map<std::string, Entry> stored;
            for (Entry& entry : state.entries(table, unit, report)) {
                if (!entry.inDeletion)
                    stored.emplace(entry.id.key, std::move(entry));
            }
            for (const Json& entry : wanted) {
                const auto key = entry.at("key").get<std::string>();
                const auto there = stored.find(key);
                const bool isNew = there == stored.end();
                if (!isNew && isSame(comparable(there->second), comparable(table, entry)))
                    ++diff.unchanged;
                else
                    diff.write.push_back(
                        {{table, unit, key}, entry.at("name").get<std::string>(), isNew});
                stored.erase(key);
            }
            for (const auto& [key, entry] : stored)
                diff.remove.push_back({entry.id, entry.name(), false});
        }
    }
    return diff;
}

}  // namespace Inspect
