// Recordings as text that people read and write, and back.
//
// Any thread. A line is an event; an empty one says nothing. What comes out of the tables stands
// behind "= ". Whole recordings become text and the same bytes again. The lines, with what may be
// left out in brackets:
//
//   # TEXT                                      for people
//   start units=1,2 counters=N policers=N [capacity=N] [on-own-files] [time=NS]
//   file PATH size=N                            and a line "  OFFSET HEX…" for each of its parts
//   write #NUMBER TABLE UNIT KEY [FIELD=VALUE…] [after=#NUMBER] [handler]
//   remove #NUMBER TABLE UNIT KEY [after=#NUMBER] [handler]
//   remove-all #NUMBER TABLE UNIT [after=#NUMBER] [handler]
//   turn
//   look map=N log=none|this|another [consumed=N] [pause] [call=N] [moved] [TABLE=VERSION…]
//   move|fail|restore POOL KEY
//   sweep POOL
//   end
//   @ SECONDS                                   the time of what follows, since the start
//   = mounted [TABLE=VERSION…]
//   = own #NUMBER TABLE KEY                     KEY is ? where it is not known
//   = #NUMBER STATE [version=N]
//   = counter|policer KEY STATE [update=N] [index=N]
//   answer #NUMBER {                            what the handler does, until
//   } [#NUMBER]
//
// A look with `moved` names the tables that moved since the one before. A change that waits for
// something that is not recorded has after=#foreign.
#pragma once

#include <string>
#include <string_view>

#include "recording/File.h"

namespace Recording {

/// One line, or several of a file, each with its end.
std::string textOf(const Event& event);
/// The first line without its end.
std::string firstLineOf(const Event& event);
/// All of them, with times and with what handlers do set in.
std::string textOf(const Contents& contents);
/// Throws FormatError, which names the line.
Contents contentsOfText(std::string_view text);

}  // namespace Recording
