// Entries, changes and states in the words that people read.
//
// Plain values: any thread.
#pragma once

#include <string>
#include <string_view>

#include "inspect/History.h"

namespace Inspect {

/// Without control characters, which a terminal would obey: each is a '?', a tab is a space.
std::string shown(std::string_view text);
/// A number, or "-" for null and for what is not there.
std::string numberText(const Json& object, const std::string& name);
/// Text; "" for null and for what is not there.
std::string stringIn(const Json& object, const std::string& name);
/// "12.3 s", "5 min", "2.1 h".
std::string ageText(double seconds);

/// "src 192.0.2.0/24 proto tcp dport 179" of a match entry; "any" where nothing is asked for.
std::string matchText(const Json& content);
/// "100 pps, burst 20" of an action; empty where it has no rate.
std::string rateText(const Json& content);
/// One line of any entry.
std::string entryText(const Json& content);
/// "removing", "under way" or "acked".
std::string_view placeOf(const Entry& entry, std::uint64_t acknowledged);

/// A change of the agent: "write v4 unit 1 key ...".
std::string changeText(const Json& change);
/// What a change of the log did: the entry, or how it differs from the one before.
std::string toldText(const ToldChange& told);

}  // namespace Inspect
