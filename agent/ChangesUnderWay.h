// The changes that are not answered yet, as the control socket shows them: what each does, how old
// it is, and what it waits for.
//
// Event thread only; made for one request.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/Tables.h"
#include "platform/asic/WaitChain.h"

namespace Agent {

using Json = nlohmann::ordered_json;

/// What a change can wait for, in the order of kWaitCauses.
enum class WaitCause : std::uint8_t {
    dependency,
    resource,
    logFull,
    earlierChange,
    earlierChanges,
    removeAll,
    pause,
    announcements,
    turn,
    hardware,
};
inline constexpr std::array<std::string_view, 10> kWaitCauses{
    "dependency", "resource", "logFull",       "earlierChange", "earlierChanges",
    "removeAll",  "pause",    "announcements", "turn",          "hardware"};

/// Numbers of changes by what they wait for.
using WaitCounts = std::array<std::size_t, kWaitCauses.size()>;

/// Of all staged changes.
struct QueueFigures {
    std::map<Asic::SwTableId, WaitCounts> waiting;
    double oldest_s = 0;  ///< age of the oldest one; 0 when there is none
};
QueueFigures queueFigures(const Tables& tables);

/// A choice of changes; what is not given matches any.
struct ChangeFilter {
    std::optional<std::string> table;
    std::optional<std::uint16_t> unit;
    std::optional<std::string> key;
};

class ChangesUnderWay {
public:
    explicit ChangesUnderWay(const Tables& tables);

    /// {"total", "changes"}: the oldest first, at most `limit`.
    Json list(const ChangeFilter& filter, std::size_t limit) const;
    /// {"changes", "chain", "root", "cycle"} of one key; "chain" and "root" are empty and null when
    /// no change of it is staged.
    Json explain(const std::string& table, std::uint16_t unit, const std::string& key) const;

private:
    /// A change, queued or in the log.
    struct Item {
        const Asic::OrderedSwTable* table;
        const Asic::OrderedSwTable::EntryHandle* handle;
        std::optional<Asic::QueuedChange> queued;
    };

    std::vector<Item> chosen(const ChangeFilter& filter) const;
    Json waitsFor(const Asic::QueuedChange& change) const;
    Json waitsForHardware(const Item& item) const;
    Json changeJson(const Item& item) const;

    const Tables& tables_;
    Asic::QueueView queue_;
};

/// The name of a table of the group; its number for others.
std::string tableName(Asic::SwTableId table);

}  // namespace Agent
