// The set of versions that a change needs the hardware to hold before it is programmed itself.
#pragma once

#include <string>
#include <vector>

#include "platform/asic/Versions.h"
#include "platform/brumo/Ptr.h"

namespace Asic {

/// One version a table: needing 5 and 9 of a table is needing 9. Iterates in order of addition.
/// Event thread only.
class NeededEntry final : public Brumo::RefCounted {
public:
    /// Version 0 of a table is no need and is not kept.
    void add(const TableVersion& needed) {
        if (needed.version.value == 0)
            return;
        for (TableVersion& held : versions_) {
            if (held.tableId != needed.tableId)
                continue;
            if (held.version < needed.version)
                held.version = needed.version;
            return;
        }
        versions_.push_back(needed);
    }
    void add(const NeededEntry& others) {
        for (const TableVersion& needed : others)
            add(needed);
    }

    bool empty() const { return versions_.empty(); }
    std::size_t size() const { return versions_.size(); }
    std::vector<TableVersion>::const_iterator begin() const { return versions_.begin(); }
    std::vector<TableVersion>::const_iterator end() const { return versions_.end(); }

    std::string toText() const {
        std::string text = "{";
        for (const TableVersion& needed : versions_) {
            if (text.size() > 1)
                text += ", ";
            text += needed.tableId.toText() + "@" + needed.version.toText();
        }
        return text + "}";
    }

private:
    std::vector<TableVersion> versions_;
};

}  // namespace Asic
