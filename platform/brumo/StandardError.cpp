#include "platform/brumo/StandardError.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

namespace Brumo {

bool isStream(int descriptor, const char* stream) {
    struct stat status {};
    return stream != nullptr && ::fstat(descriptor, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

std::string linesOf(Priority priority, std::string_view text, bool toJournal) {
    std::string lines;
    while (true) {
        const auto end = text.find('\n');
        if (toJournal)
            lines += fmt::format("<{}>", static_cast<int>(priority));
        lines += text.substr(0, end);
        lines += '\n';
        if (end == std::string_view::npos)
            return lines;
        text.remove_prefix(end + 1);
    }
}

void writeToStandardError(Priority priority, std::string_view text) {
    static const bool toJournal = isStream(STDERR_FILENO, std::getenv("JOURNAL_STREAM"));
    const std::string lines = linesOf(priority, text, toJournal);
    std::fwrite(lines.data(), 1, lines.size(), stderr);
}

}  // namespace Brumo
