#include "tests/support/TempDir.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

namespace TestSupport {

TempDir::TempDir() {
    std::string pattern = "/dev/shm/vorn-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;  // a leftover directory is no test failure
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace TestSupport
