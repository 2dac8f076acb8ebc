// Names and paths that all members of a group agree on.
//
// Paths are relative to the root of the shared-memory tables, unless they say otherwise.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "platform/asic/Versions.h"

namespace Asic::Constants {

/// The name under which a group is known: its agent's name and its own.
inline std::string canonicalizeGroupName(std::string_view groupName, std::string_view agentName) {
    return std::string(agentName) + "." + std::string(groupName);
}

inline std::string groupPath(std::string_view canonicalGroupName) {
    return "asic/" + std::string(canonicalGroupName);
}

/// The change log of a table of the group.
inline std::string entryLogPath(std::string_view canonicalGroupName, std::string_view tableName) {
    return groupPath(canonicalGroupName) + "/entryLog/" + std::string(tableName);
}

/// Below this lie the configurations of all tables of the group.
inline std::string canonicalGroupTableConfigShimoPathBase(std::string_view canonicalGroupName) {
    return groupPath(canonicalGroupName) + "/tableConfig";
}

/// The configuration of a table of the group for one unit.
inline std::string tableConfigPath(std::string_view canonicalGroupName, std::string_view tableName,
                                   UnitId unit) {
    return canonicalGroupTableConfigShimoPathBase(canonicalGroupName) + "/" +
           std::string(tableName) + "/" + unit.toText();
}

/// The group's log of announcements to the hardware side.
inline std::string announcementsPath(std::string_view canonicalGroupName) {
    return groupPath(canonicalGroupName) + "/announcements";
}

/// The versions that the hardware side has acknowledged; the hardware side writes this file.
inline std::string acknowledgementsPath(std::string_view canonicalGroupName) {
    return "hwside/" + std::string(canonicalGroupName) + "/acknowledgements";
}

/// The socket on which the agent sleeps, and that of the hardware side; full paths.
inline std::string agentDoorbell(std::string_view root) {
    return std::string(root) + "/agent.bell";
}
inline std::string hardwareDoorbell(std::string_view root) {
    return std::string(root) + "/hwd.bell";
}

/// The unit of a configuration path; nothing when the path is of another form.
inline std::optional<UnitId> getUnitIdFromConfigPath(std::string_view path) {
    const auto slash = path.rfind('/');
    const std::string_view number = slash == std::string_view::npos ? path : path.substr(slash + 1);
    UnitId unit;
    const auto [end, error] =
        std::from_chars(number.data(), number.data() + number.size(), unit.value);
    if (error != std::errc{} || end != number.data() + number.size())
        return std::nullopt;
    return unit;
}

}  // namespace Asic::Constants
