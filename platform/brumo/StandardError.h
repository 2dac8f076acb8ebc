// Lines for whoever keeps the log of the process: standard error.
//
// Where standard error is connected to the journal, each line tells its priority, as
// sd-daemon(3) has it: "<4>text". Elsewhere people read it, and it is left out. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace Brumo {

/// The numbers are syslog's.
enum class Priority { critical = 2, error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

/// Writes `text` and the end of its line at once; a text of several lines has a priority on each.
void writeToStandardError(Priority priority, std::string_view text);

/// What is written of a text; `toJournal`: with priorities.
std::string linesOf(Priority priority, std::string_view text, bool toJournal);

/// Whether a descriptor is what `stream` names by "DEVICE:INODE", as JOURNAL_STREAM does of the
/// connection to the journal. A text that says something else, and none (nullptr), names nothing.
bool isStream(int descriptor, const char* stream);

}  // namespace Brumo
