#include "hwside/Files.h"

#include <algorithm>
#include <filesystem>

#include "platform/asic/Constants.h"
#include "platform/kivshimo/Errors.h"
#include "platform/kivshimo/Paths.h"

namespace HwSide {

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

std::vector<Asic::UnitId> unitsIn(const std::string& folder) {
    std::vector<Asic::UnitId> units;
    for (const std::string& file : tableFilesIn(folder)) {
        const auto unit =
            Asic::Constants::getUnitIdFromConfigPath(std::filesystem::path(file).stem().string());
        if (unit)
            units.push_back(*unit);
    }
    std::ranges::sort(units);
    return units;
}

}  // namespace HwSide
