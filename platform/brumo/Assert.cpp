#include "platform/brumo/Assert.h"

#include <cstdlib>

#include <fmt/format.h>

#include "platform/brumo/StandardError.h"

namespace Brumo {

void assertionFailed(std::string_view condition, std::string_view message, const char* file,
                     int line) {
    writeToStandardError(Priority::critical,
                         fmt::format("assertion failed: {}{}{} ({}:{})", condition,
                                     message.empty() ? "" : ": ", message, file, line));
    std::abort();
}

}  // namespace Brumo
