// From a policy to the entries that the tables are to hold.
//
// Plain values: any thread. Keys are made of names alone: the same policy gives the same keys in
// every process, and a change of a rule's fields changes its entry, not its key. An entry that
// stands for one value of a list has that value in its name.
#pragma once

#include <string>
#include <vector>

#include "agent/Policy.h"

namespace Agent {

template <class Entry>
struct Named {
    std::string name;  ///< in full: "bgp source=192.0.2.1/32"
    Entry entry;
};

using ActionEntry = ActionTypes::Entry;
using V4Entry = V4Types::Entry;
using V6Entry = V6Types::Entry;

/// The entries of a policy, in the order of the file. Request keys are for unit 0.
struct CompiledPolicy {
    std::string file;
    std::vector<Named<ActionEntry>> actions;
    std::vector<Named<V4Entry>> ipv4;
    std::vector<Named<V6Entry>> ipv6;
};

/// Reports names that are not known, used twice or collide, and tables that overflow.
CompiledPolicy compilePolicy(const Policy& policy, PolicyErrors& errors);

/// Reads and compiles a file. Throws PolicyError with all that is wrong with it.
CompiledPolicy loadPolicy(const std::string& path);
/// The same from text; `file` is what messages call it.
CompiledPolicy policyFromText(const std::string& text, const std::string& file);

/// The action with its resource requests made for a unit.
ActionEntry forUnit(ActionEntry action, Asic::UnitId unit);

}  // namespace Agent
