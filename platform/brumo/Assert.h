// Assertions on invariants: a broken one ends the process with the text of its condition.
#pragma once

#include <string_view>

namespace Brumo {

/// Writes "assertion failed: CONDITION: MESSAGE (FILE:LINE)" to standard error and aborts.
[[noreturn]] void assertionFailed(std::string_view condition, std::string_view message,
                                  const char* file, int line);

/// Ends the process unless `holds`. `condition` is the condition's text as operators know it.
inline void require(bool holds, std::string_view condition, std::string_view message = {},
                    const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!holds) [[unlikely]] {
        assertionFailed(condition, message, file, line);
    }
}

}  // namespace Brumo
