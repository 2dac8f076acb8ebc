// Constants of each table: its group, and where its shared-memory tables lie, relative to the root
// of all.
#pragma once

#include <string>
#include <string_view>

#include "platform/asic/Constants.h"
#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace VornPolicyCpu {

/// Where the tables of this library belong.
inline constexpr std::string_view kGroupName = "VornPolicyCpuGroup";
inline constexpr std::string_view kAgentName = "VornPolicyCpu";
inline constexpr std::string_view kTableNamespace = "VornPolicyCpu";

/// The name of one of a table's classes as registries and mounts know it.
template <TableTypes Types>
std::string qualifiedClassName(std::string_view role) {
    return std::string(kTableNamespace) + "::" + std::string(Types::kName) + std::string(role);
}

/// The canonical name of the group that all tables of this library belong to.
inline const std::string& canonicalGroupName() {
    static const std::string name = Asic::Constants::canonicalizeGroupName(kGroupName, kAgentName);
    return name;
}

/// The collections of the shared-memory tables, and how much each holds.
inline constexpr const char* kSwTableEntries = "swTableEntries";
inline constexpr std::uint64_t kSwTableEntriesCapacity = 65536;
inline constexpr const char* kEntryLogConfig = "entryLogConfig";
inline constexpr std::uint64_t kEntryLogConfigCapacity = 1000000;

template <TableTypes Types>
struct Constants {
    /// Below it, the configurations lie by unit.
    static std::string configShimoPathBase() {
        return Asic::Constants::canonicalGroupTableConfigShimoPathBase(canonicalGroupName()) + "/" +
               std::string(Types::kName);
    }
    static std::string configShimoPath(Asic::UnitId unitId) {
        return Asic::Constants::tableConfigPath(canonicalGroupName(), Types::kName, unitId);
    }
    static std::string tableEntryLogShimoPath() {
        return Asic::Constants::entryLogPath(canonicalGroupName(), Types::kName);
    }
    /// The type names under which the tables are mounted.
    static std::string configShimoType() { return qualifiedClassName<Types>("ConfigShimo"); }
    static std::string entryLogShimoType() { return qualifiedClassName<Types>("EntryLogShimo"); }
};

using PolicyCpuTcamActionConstants = Constants<PolicyCpuTcamActionTypes>;
using PolicyCpuV4TcamEntryConstants = Constants<PolicyCpuV4TcamEntryTypes>;
using PolicyCpuV6TcamEntryConstants = Constants<PolicyCpuV6TcamEntryTypes>;

}  // namespace VornPolicyCpu
