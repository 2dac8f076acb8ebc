// What feature code may do with a table, as an abstract class: so that an agent which has loaded
// the library by path can use a table without a symbol of it.
//
// Event thread only. Keys and entries are copied; handles are shared with the caller.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "platform/asic/SwTable.h"

namespace VornPolicyCpu {

/// The latest change of a key, while it is staged.
template <class Entry>
struct StagedChange {
    Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle> handle;
    std::optional<Entry> entry;  ///< nothing for a remove
};

/// The operations of one table of one unit. `Types` is the table's type library.
template <class Types>
class TableOperations : public Asic::OrderedSwTable {
public:
    using Key = typename Types::Key;
    using Entry = typename Types::Entry;
    using HandlePtr = Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>;
    using DependencyPtr = Brumo::Ptr<const Asic::DependencyEntryHandle>;

    using Asic::OrderedSwTable::OrderedSwTable;

    /// Stages a write of `entry` under `key`, to be committed after `dependency` (may be null) and
    /// once the entry's resources are allocated. `handler` (may be empty) is called once, when the
    /// hardware side has acknowledged the change or the change has failed.
    virtual HandlePtr write(const Key& key, const Entry& entry, const DependencyPtr& dependency,
                            const ResponseHandler& handler) = 0;
    /// Stages a remove; a key that is not there is removed all the same.
    virtual HandlePtr remove(const Key& key, const DependencyPtr& dependency,
                             const ResponseHandler& handler) = 0;
    /// Stages the removal of all entries. Changes staged before it are committed before it, later
    /// ones after it. `handler` is called only when the removal fails with `dependency`; that it
    /// is done, the table tells (hasPendingHwWrites()).
    virtual void removeAll(const DependencyPtr& dependency, const ResponseHandler& handler) = 0;
    /// The staged or committed entry, or the default entry with a trace.
    virtual Entry read(const Key& key) const = 0;
    virtual bool has(const Key& key) const = 0;
    virtual std::uint32_t count() const = 0;
    /// For inspection: the key's change that is not committed, if there is one. One that failed
    /// with the change that it depended on stays staged until the key is changed again.
    virtual std::optional<StagedChange<Entry>> staged(const Key& key) const = 0;
    /// Visits staged writes, then committed entries. `visit` may change the table.
    virtual void forEach(const std::function<void(const Entry&)>& visit) const = 0;
};

}  // namespace VornPolicyCpu
