// Where the files of the group of tables lie that this hardware side programs.
#pragma once

#include <string>

#include "platform/asic/Constants.h"
#include "platform/kivshimo/Paths.h"
#include "types/Constants.h"

namespace HwSide {

struct Group {
    std::string root;  ///< of the shared-memory tables

    std::string agentBell() const { return Asic::Constants::agentDoorbell(root); }
    std::string ownBell() const { return Asic::Constants::hardwareDoorbell(root); }
    std::string controlSocket() const { return root + "/hwd.sock"; }

    std::string announcementsFile() const {
        return KivShimo::tableFile(
            root, Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName()));
    }
    /// Relative to the root.
    static std::string acknowledgementsPath() {
        return Asic::Constants::acknowledgementsPath(VornPolicyCpu::canonicalGroupName());
    }
    template <class Types>
    std::string changeLogFile() const {
        return KivShimo::tableFile(root, VornPolicyCpu::Constants<Types>::tableEntryLogShimoPath());
    }
    template <class Types>
    std::string configFile(Asic::UnitId unit) const {
        return KivShimo::tableFile(root, VornPolicyCpu::Constants<Types>::configShimoPath(unit));
    }
};

}  // namespace HwSide
