// Constants of each table: where its shared-memory tables lie, relative to the root of all.
#pragma once

#include <string>

#include "platform/asic/Constants.h"
#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace VornPolicyCpu {

/// The canonical name of the group that all tables of this library belong to.
inline const std::string& canonicalGroupName() {
    static const std::string name =
        Asic::Constants::canonicalizeGroupName("VornPolicyCpuGroup", "VornPolicyCpu");
    return name;
}

/// The collections of the shared-memory tables, and how much each holds.
inline constexpr const char* kSwTableEntries = "swTableEntries";
inline constexpr std::uint64_t kSwTableEntriesCapacity = 65536;
inline constexpr const char* kEntryLogConfig = "entryLogConfig";
inline constexpr std::uint64_t kEntryLogConfigCapacity = 1000000;

template <TableTypes Types>
struct Constants {
    static std::string configShimoPath(Asic::UnitId unitId) {
        return Asic::Constants::tableConfigPath(canonicalGroupName(), Types::kName, unitId);
    }
    static std::string tableEntryLogShimoPath() {
        return Asic::Constants::entryLogPath(canonicalGroupName(), Types::kName);
    }
    /// The type names under which the tables are mounted.
    static std::string configShimoType() {
        return "VornPolicyCpu::" + std::string(Types::kName) + "ConfigShimo";
    }
    static std::string entryLogShimoType() {
        return "VornPolicyCpu::" + std::string(Types::kName) + "EntryLogShimo";
    }
};

using PolicyCpuTcamActionConstants = Constants<PolicyCpuTcamActionTypes>;
using PolicyCpuV4TcamEntryConstants = Constants<PolicyCpuV4TcamEntryTypes>;
using PolicyCpuV6TcamEntryConstants = Constants<PolicyCpuV6TcamEntryTypes>;

}  // namespace VornPolicyCpu
