// A policy as its file has it, each part with its place, before names become keys.
//
// Plain values: any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/PolicyErrors.h"
#include "types/PolicyCpuTcamAction.h"
#include "types/PolicyCpuV4TcamEntry.h"
#include "types/PolicyCpuV6TcamEntry.h"

namespace Agent {

using ActionTypes = VornPolicyCpu::PolicyCpuTcamActionTypes;
using V4Types = VornPolicyCpu::PolicyCpuV4TcamEntryTypes;
using V6Types = VornPolicyCpu::PolicyCpuV6TcamEntryTypes;

/// Entries that a table of one unit holds at most.
inline constexpr std::size_t kMaxEntries = 65536;

struct Policer {
    Position at;
    std::string name;     ///< of a shared policer; else that of its action
    bool shared = false;  ///< named by several actions, which share its budget
    VornPolicerLib::PolicerMode mode = VornPolicerLib::PolicerMode::none;
    std::uint64_t rate = 0;   ///< packets or bits a second
    std::uint64_t burst = 0;  ///< packets or bits
};

struct Action {
    Position at;
    std::string name;
    bool counted = false;
    std::string sharedCounter;  ///< empty: a counter of its own
    std::optional<Policer> policer;
    VornPolicyCpu::Disposition disposition = VornPolicyCpu::Disposition::permit;
};

/// One value of a match field.
template <class Entry>
struct Alternative {
    std::string text;  ///< the same for all ways to write the value
    Position at;
    std::function<void(Entry&)> apply;
};

/// A match field with its values: an entry for each of them.
template <class Entry>
struct Dimension {
    std::string_view field;
    bool listed = false;  ///< written as a list: the values are part of the entries' names
    std::vector<Alternative<Entry>> alternatives;
};

/// An item of `ipv4` or `ipv6`.
template <class Types>
struct Rule {
    Position at;
    std::string name;
    Position actionAt;
    std::string action;
    std::uint32_t priority = 0;
    std::vector<Dimension<typename Types::Entry>> dimensions;
};

struct Policy {
    std::vector<Action> actions;
    std::vector<Rule<V4Types>> ipv4;
    std::vector<Rule<V6Types>> ipv6;
};

}  // namespace Agent
