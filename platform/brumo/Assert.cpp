#include "platform/brumo/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Brumo {

void assertionFailed(std::string_view condition, std::string_view message, const char* file,
                     int line) {
    std::fprintf(stderr, "assertion failed: %.*s%s%.*s (%s:%d)\n",
                 static_cast<int>(condition.size()), condition.data(), message.empty() ? "" : ": ",
                 static_cast<int>(message.size()), message.data(), file, line);
    std::abort();
}

}  // namespace Brumo
