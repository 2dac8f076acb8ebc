// A ring trace as a trace in the Common Trace Format 1.8.3, which other people's tools read.
//
// Values in, values out: who reads the ring and who writes the files is the caller's concern.
//
// What always holds:
//  1. Events come in the order in which the messages were recorded, each under its own number.
//  2. An event's time is its message's, but never before the event before it, which readers refuse:
//     what was recorded after the clock had been set back stands at the latest time before, and
//     its own time in `recorded_ns`.
//  3. Messages that are missing are counted as discarded between the two that stand around them.
//  4. Texts are UTF-8; bytes that are none are U+FFFD, as in JSON documents.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/ringtrace/Ring.h"

namespace Inspect {

/// What a reader is told of a trace beside its events.
struct CtfOrigin {
    std::string host;
    std::string process;
    std::string file;
    std::array<std::uint32_t, 3> version{};  ///< of what writes the trace
    std::array<std::uint8_t, 16> uuid{};     ///< each trace needs its own
};

/// The two files of a trace.
struct CtfTrace {
    std::string metadata;         ///< in TSDL
    std::string stream;           ///< packets; empty where there are no messages
    std::uint64_t discarded = 0;  ///< messages missing before the newest
};

CtfTrace ctfTraceOf(const RingTrace::Reading& reading, const CtfOrigin& origin);

/// The name of an event made of a format: words of letters and digits, joined by '_'.
std::string ctfEventName(std::string_view format);

/// A literal of TSDL, in quotes, that stands for the text.
std::string tsdlString(std::string_view text);

}  // namespace Inspect
