// A directory of files that are there whole or not at all.
//
// One thread, and nobody else writing below the directory.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace Vorn {

struct NewFile {
    std::string name;
    std::string_view content;
};

/// Makes the directory, or takes an empty one, and writes the files in this order; each gets its
/// name when all of it is written. After a failure nothing of it is left. Throws
/// Inspect::QuestionError where something else stands in its place, std::system_error with the path
/// where it cannot be written.
void writeNewDirectory(const std::filesystem::path& directory, const std::vector<NewFile>& files);

}  // namespace Vorn
