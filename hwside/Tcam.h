// The hardware as this process has it: a model of a TCAM with an action behind every match entry.
//
// Used by one thread. Every unit has three tables: actions, IPv4 matches and IPv6 matches. A packet
// meets the matching entry of highest priority, of equal ones that of the lowest key.
//
// What always holds:
//  1. An entry is touched only when its content differs from what is held: programming the same
//     content again counts as unchanged.
//  2. A match entry names its action by key; an action that is not held leaves the match without
//     one (`unresolved` counts those).
//  3. The version kept beside an entry is that of the change that programmed or confirmed it last.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>

#include "hwside/Packet.h"
#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace HwSide {

using ActionTypes = VornPolicyCpu::PolicyCpuTcamActionTypes;
using V4Types = VornPolicyCpu::PolicyCpuV4TcamEntryTypes;
using V6Types = VornPolicyCpu::PolicyCpuV6TcamEntryTypes;

/// Program operations on one table of all units since the model was made.
struct ProgramCounters {
    std::uint64_t added = 0;
    std::uint64_t changed = 0;
    std::uint64_t unchanged = 0;  ///< asked for, but already held as it should be
    std::uint64_t removed = 0;

    /// Times that hardware was touched for an entry to be there.
    std::uint64_t programmed() const { return added + changed; }
    bool operator==(const ProgramCounters&) const = default;
};

enum class Programmed : std::uint8_t { added, changed, unchanged };

/// Whether an entry matches a packet; a packet of the other family never matches.
bool matches(const VornPolicyCpu::PolicyCpuV4TcamEntryLogEntry& entry, const Packet& packet);
bool matches(const VornPolicyCpu::PolicyCpuV6TcamEntryLogEntry& entry, const Packet& packet);

/// One table of one unit: the entries by key.
template <class Types>
class TcamTable {
public:
    using Key = typename Types::Key;
    using LogEntry = typename Types::LogEntry;
    struct Held {
        LogEntry entry;
        Asic::LogVersion version;
    };

    Programmed program(const LogEntry& entry, Asic::LogVersion version);
    bool remove(const Key& key);
    /// Removes the entries that the predicate (key, held) names; returns how many those were.
    std::size_t removeIf(const std::function<bool(const Key&, const Held&)>& isLost);

    const Held* find(const Key& key) const;
    std::size_t size() const { return entries_.size(); }
    /// In key order.
    const std::map<Key, Held>& entries() const { return entries_; }
    /// The winning entry for a packet; match tables only.
    const Held* match(const Packet& packet) const;

private:
    /// Match tables: the order in which entries are tried.
    struct Rank {
        std::uint32_t priority;
        Key key;
        const Held* held;

        bool operator<(const Rank& other) const {
            return priority != other.priority ? priority > other.priority : key < other.key;
        }
    };
    static constexpr bool kRanked = requires(const LogEntry& entry) { entry.priority; };

    void rank(const Key& key, const Held& held);
    void unrank(const Key& key, const Held& held);

    std::map<Key, Held> entries_;
    std::set<Rank> ranks_;  ///< derived from the entries
};

extern template class TcamTable<ActionTypes>;
extern template class TcamTable<V4Types>;
extern template class TcamTable<V6Types>;

/// What a packet meets.
struct Verdict {
    VornPolicyCpu::MatchKey key;
    std::string label;
    std::uint32_t priority = 0;
    VornPolicyCpu::PolicyCpuTcamActionEntryKey actionKey;
    Asic::LogVersion version;  ///< of the match entry
    /// Nothing where the entry's action is not programmed.
    std::optional<VornPolicyCpu::PolicyCpuTcamActionLogEntry> action;
};

class Tcam {
public:
    struct Unit {
        std::tuple<TcamTable<ActionTypes>, TcamTable<V4Types>, TcamTable<V6Types>> tables;

        template <class Types>
        TcamTable<Types>& table() {
            return std::get<TcamTable<Types>>(tables);
        }
        template <class Types>
        const TcamTable<Types>& table() const {
            return std::get<TcamTable<Types>>(tables);
        }
    };

    template <class Types>
    Programmed program(Asic::UnitId unit, const typename Types::LogEntry& entry,
                       Asic::LogVersion version) {
        const Programmed done = units_[unit].template table<Types>().program(entry, version);
        count(countersOf<Types>(), done);
        return done;
    }
    /// Whether there was such an entry.
    template <class Types>
    bool remove(Asic::UnitId unit, const typename Types::Key& key) {
        const auto at = units_.find(unit);
        if (at == units_.end() || !at->second.template table<Types>().remove(key))
            return false;
        ++countersOf<Types>().removed;
        return true;
    }
    /// Removes the unit's entries that were programmed before a version; returns how many.
    template <class Types>
    std::size_t clearBefore(Asic::UnitId unit, Asic::LogVersion version) {
        return removeIf<Types>([&](Asic::UnitId held, const auto&, Asic::LogVersion programmed) {
            return held == unit && programmed < version;
        });
    }
    /// Removes the entries of all units that the predicate (unit, key, version) names; returns how
    /// many.
    template <class Types, class Predicate>
    std::size_t removeIf(const Predicate& isLost) {
        std::size_t removed = 0;
        for (auto& [unit, tables] : units_) {
            removed += tables.template table<Types>().removeIf(
                [&, id = unit](const auto& key, const auto& held) {
                    return isLost(id, key, held.version);
                });
        }
        countersOf<Types>().removed += removed;
        return removed;
    }

    /// Nothing where no entry matches or the unit was never programmed.
    std::optional<Verdict> classify(Asic::UnitId unit, const Packet& packet) const;

    const std::map<Asic::UnitId, Unit>& units() const { return units_; }
    /// Entries of one table on all units.
    template <class Types>
    std::size_t entries() const {
        std::size_t count = 0;
        for (const auto& [unit, tables] : units_)
            count += tables.template table<Types>().size();
        return count;
    }
    template <class Types>
    const ProgramCounters& counters() const {
        return std::get<Counted<Types>>(counters_);
    }
    /// Match entries of all units whose action is not programmed.
    std::size_t unresolved() const;

    /// The version of a table that hardware was brought to, as whoever programs it says.
    template <class Types>
    void reachedIs(Asic::LogVersion version) {
        std::get<Counted<Types>>(counters_).reached = version;
    }
    template <class Types>
    Asic::LogVersion reached() const {
        return std::get<Counted<Types>>(counters_).reached;
    }

private:
    template <class Types>
    struct Counted : ProgramCounters {
        Asic::LogVersion reached;
    };

    template <class Types>
    ProgramCounters& countersOf() {
        return std::get<Counted<Types>>(counters_);
    }
    static void count(ProgramCounters& counters, Programmed done);

    std::map<Asic::UnitId, Unit> units_;
    std::tuple<Counted<ActionTypes>, Counted<V4Types>, Counted<V6Types>> counters_;
};

}  // namespace HwSide
