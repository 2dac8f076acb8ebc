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
};
inline constexpr std::array<std::string_view, 9> kWaitCauses{
    "dependency", "resource", "logFull",       "earlierChange", "earlierChanges",
    "removeAll",  "pause",    "announcements", "turn"};

/// Numbers of changes by what they wait for.
using WaitCounts = std::array<std::size_t, kWaitCauses.size()>;

/// Of all staged changes, by table. Costs by their number.
std::map<Asic::SwTableId, WaitCounts> waitCounts(const Tables& tables);
/// The age of the oldest staged change; 0 when there is none. Costs by the number of things waited
/// for.
double oldestStaged_s(const Tables& tables);

/// A choice of changes; what is not given matches any.
struct ChangeFilter {
    std::optional<Asic::SwTableId> table;
    std::optional<std::uint16_t> unit;
    std::optional<std::string> key;
};

class ChangesUnderWay {
public:
    explicit ChangesUnderWay(const Tables& tables);

    /// {"total", "changes"}: the oldest first, at most `limit`.
    Json list(const ChangeFilter& filter, std::size_t limit) const;
    /// {"total", "changes", "stages", "links", "chain", "root", "cycle"} of one key: the chain
    /// leads from its last staged change to the root. No more than kMostShown of each are shown, of
    /// the chain both ends. "chain" and "root" are empty and null when no change of it is staged.
    static constexpr std::size_t kMostShown = 100;
    Json explain(Asic::SwTableId table, std::uint16_t unit, const std::string& key) const;

private:
    /// A change, queued or in the log.
    struct Item {
        const Asic::OrderedSwTable* table;
        const Asic::OrderedSwTable::EntryHandle* handle;
        std::optional<Asic::QueuedChange> queued;
    };

    std::vector<Item> chosen(const ChangeFilter& filter) const;
    Json waitsFor(const Asic::QueuedChange& change) const;
    Json chainJson(const Asic::WaitChain& chain) const;
    Json waitsForHardware(const Item& item) const;
    Json changeJson(const Item& item) const;
    Json stagesJson(const Item& item) const;

    const Tables& tables_;
    Asic::QueueView queue_;
};

/// The name of a table of the group; its number for others.
std::string tableName(Asic::SwTableId table);
/// Nothing for other names than those of the group's tables.
std::optional<Asic::SwTableId> tableNamed(std::string_view name);
/// The state of a request to a resource table.
std::string_view resourceStateText(Asic::EntryState state);

}  // namespace Agent
