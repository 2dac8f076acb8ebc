// A directory of its own for a test, in memory, gone with the object.
#pragma once

#include <filesystem>
#include <string>

namespace TestSupport {

class TempDir {
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    std::string path() const { return path_.string(); }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

}  // namespace TestSupport
