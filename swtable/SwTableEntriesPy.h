// The inspection view of a table: a list of its entries for tools, which they may annotate. The
// table's own logic does not consult it. Event thread only.
#pragma once

#include <string>
#include <vector>

#include "swtable/SwTable.h"

namespace VornPolicyCpu {

template <class B>
class SwTable<B>::SwTableEntries_py {
public:
    explicit SwTableEntries_py(const typename B::SwTable& table) : table_(table) {}

    /// As text: the staged entries, then the committed ones, then those that tools have put in,
    /// each group in its own order.
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        table_.forEach([&](const Entry& entry) { result.push_back(entry.toText()); });
        added_.forEach([&](const Key&, const Entry& entry) { result.push_back(entry.toText()); });
        return result;
    }

    void tableEntriesIs(const Entry& entry) { added_.insertOrReplace(entry.key, entry); }
    void tableEntriesDel(const Key& key) { added_.erase(key); }
    void tableEntriesDelAll() { added_.clear(); }

private:
    const typename B::SwTable& table_;
    Kiv::HashMap2018<Key, Entry> added_;
};

}  // namespace VornPolicyCpu
