// Which files there are.
#include "inspect/Readers.h"

#include <algorithm>
#include <filesystem>

namespace Inspect {

bool isThere(const std::string& file) {
    std::error_code error;
    const auto status = std::filesystem::symlink_status(file, error);
    if (status.type() == std::filesystem::file_type::not_found)
        return false;
    if (error)
        throw KivShimo::MountError(file, "look for", error.message());
    return true;
}

std::vector<std::string> tableFilesIn(const std::string& folder) {
    std::vector<std::string> files;
    std::error_code error;
    std::filesystem::directory_iterator file(folder, error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        if (file->path().extension() == KivShimo::kTableSuffix)
            files.push_back(file->path().string());
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw KivShimo::MountError(folder, "list", error.message());
    std::ranges::sort(files);
    return files;
}

std::vector<std::uint16_t> unitsOf(const HwSide::Group& group, Table table) {
    const std::string anyFile =
        withTypes(table, [&]<class Types>() { return group.configFile<Types>(Asic::UnitId{0}); });
    std::vector<std::uint16_t> units;
    for (const std::string& file : tableFilesIn(std::filesystem::path(anyFile).parent_path())) {
        const auto unit =
            Asic::Constants::getUnitIdFromConfigPath(std::filesystem::path(file).stem().string());
        if (unit)
            units.push_back(unit->value);
    }
    std::ranges::sort(units);
    return units;
}

std::string resourceFolder(const HwSide::Group& group, std::string_view library) {
    return group.root + "/resources/" + std::string(library);
}

}  // namespace Inspect
