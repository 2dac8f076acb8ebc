// Which files there are.
#include "inspect/Readers.h"

#include <algorithm>
#include <filesystem>

namespace Inspect {

std::vector<std::uint16_t> unitsOf(const HwSide::Group& group, Table table) {
    const std::string anyFile =
        withTypes(table, [&]<class Types>() { return group.configFile<Types>(Asic::UnitId{0}); });
    std::vector<std::uint16_t> units;
    for (const Asic::UnitId unit :
         HwSide::unitsIn(std::filesystem::path(anyFile).parent_path().string()))
        units.push_back(unit.value);
    return units;
}

std::string resourceFolder(const HwSide::Group& group, std::string_view library) {
    return group.root + "/resources/" + std::string(library);
}

}  // namespace Inspect
