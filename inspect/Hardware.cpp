// Hardware content from the control socket's JSON.
#include "inspect/Hardware.h"

#include "inspect/Errors.h"

namespace Inspect {

namespace {

/// The lists of a unit in the answer to "tcam".
constexpr std::array<std::string_view, kTables.size()> kHeldLists{"actions", "v4", "v6"};

Held heldOf(Json content, const Json& version) {
    content.erase("version");
    return {std::move(content), version.is_number() ? version.get<std::uint64_t>() : 0};
}

}  // namespace

HeldEntries heldOn(Peer& hardware, std::uint16_t unit) {
    HeldEntries entries;
    const Json answer = hardware.ask({{"cmd", "tcam"}, {"unit", unit}});
    for (const Json& one : answer.at("units")) {
        for (const Table table : kTables) {
            for (const Json& entry : one.at(kHeldLists.at(static_cast<std::size_t>(table)))) {
                entries.emplace(EntryId{table, unit, entry.at("key").get<std::string>()},
                                heldOf(entry, entry.at("version")));
            }
        }
    }
    return entries;
}

std::optional<Held> heldFor(Peer& hardware, const EntryId& id) {
    const Json answer = hardware.ask(
        {{"cmd", "entry"}, {"table", fullName(id.table)}, {"unit", id.unit}, {"key", id.key}});
    const Json entry = answer.value("entry", Json());
    if (entry.is_null())
        return std::nullopt;
    return heldOf(entry, answer.value("version", Json()));
}

}  // namespace Inspect
