// The set of versions that a change needs the hardware to hold before it is programmed itself.
#pragma once

#include <array>
#include <cstddef>
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
        for (TableVersion* held = all(); held != all() + size_; ++held) {
            if (held->tableId != needed.tableId)
                continue;
            if (held->version < needed.version)
                held->version = needed.version;
            return;
        }
        append(needed);
    }
    void add(const NeededEntry& others) {
        for (const TableVersion& needed : others)
            add(needed);
    }

    bool empty() const { return size_ == 0; }
    std::size_t size() const { return size_; }
    const TableVersion* begin() const { return many_.empty() ? few_.data() : many_.data(); }
    const TableVersion* end() const { return begin() + size_; }

    std::string toText() const {
        std::string text = "{";
        for (const TableVersion& needed : *this) {
            if (text.size() > 1)
                text += ", ";
            text += needed.tableId.toText() + "@" + needed.version.toText();
        }
        return text + "}";
    }

private:
    TableVersion* all() { return many_.empty() ? few_.data() : many_.data(); }
    void append(const TableVersion& needed) {
        if (size_ < few_.size()) {
            few_[size_++] = needed;
            return;
        }
        if (many_.empty())
            many_.assign(few_.begin(), few_.end());
        many_.push_back(needed);
        ++size_;
    }

    /// As many as most changes need, which then take no memory of their own.
    std::array<TableVersion, 3> few_{};
    std::vector<TableVersion> many_;  ///< all of them, once they are more
    std::size_t size_ = 0;
};

}  // namespace Asic
