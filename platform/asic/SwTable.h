// Software tables as the framework sees them: what all tables are, and the handles of changes.
//
// Event thread only, but for what is read-only after construction.
//
// What always holds:
//  1. A handle knows its table's identity for as long as it lives, its table only while that lives.
//  2. An entry state leaves `created` exactly once for good; observers of the handle learn it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/asic/CanonicalTableName.h"
#include "platform/asic/RecorderHook.h"
#include "platform/asic/SwTableStats.h"
#include "platform/asic/Versions.h"
#include "platform/brumo/Ptr.h"
#include "platform/kiv/Entity.h"

namespace Asic {

class OrderedSwTableSet;

/// Base of all software tables.
class SwTableBase : public Kiv::Entity {
public:
    /// States of a change, and of a request to a resource table.
    enum class EntryState : std::uint8_t {
        created = 0,    ///< not committed yet; a resource: pending
        written = 1,    ///< in the entry log, waiting for the hardware side; a resource: pending
        undefined = 2,  ///< never used
        exhausted = 3,  ///< a resource: none was left; a dependency: failed
        complete = 4,   ///< done; a resource: allocated
        failed = 5,     ///< answered with failure
        resourceFailed = 6,  ///< a resource: lost; a dependency: failed
    };
};

using EntryState = SwTableBase::EntryState;

/// What a change may wait for: the handle of another table's change.
class DependencyEntryHandle : public Kiv::Entity {
public:
    /// Attributes that handles publish; the old value is an EntryState.
    static constexpr Kiv::AttributeId kEntryState = 1;

    EntryState entryState() const { return entryState_; }
    void entryStateIs(EntryState state) {
        if (state == entryState_)
            return;
        const EntryState old = entryState_;
        entryState_ = state;
        if (recorder() != nullptr) [[unlikely]]
            recordState(*this);
        publisher().publish(kEntryState, &old);
    }
    /// True for the states in which a change that waits for this one fails.
    bool failed() const {
        return entryState_ == EntryState::exhausted || entryState_ == EntryState::failed ||
               entryState_ == EntryState::resourceFailed;
    }

    virtual SwTableId tableId() const = 0;
    /// The version of the change in its table's log; version 0 before it is committed.
    virtual TableVersion entryTableVersion() const = 0;

    /// What a recorder calls the handle; 0 before it was told of it.
    std::uint64_t recordNumber() const { return recordNumber_; }
    void recordNumberIs(std::uint64_t number) const { recordNumber_ = number; }

private:
    EntryState entryState_ = EntryState::created;
    mutable std::uint64_t recordNumber_ = 0;
};

/// A table with a canonical name.
class NamedSwTable : public SwTableBase {
public:
    explicit NamedSwTable(Brumo::Ptr<const CanonicalTableName> name) : name_(std::move(name)) {}

    /// May be null.
    const Brumo::Ptr<const CanonicalTableName>& canonicalTableName() const { return name_; }

    virtual void doCreateHwTable() {}
    virtual void doCreateHwTableResponse() {}
    virtual void reconcile() {}

private:
    Brumo::Ptr<const CanonicalTableName> name_;
};

/// What a table family reports of itself.
class OrderedSwTableStatus final : public Kiv::Entity {
public:
    static constexpr Kiv::AttributeId kPendingHwWrites = 1;  ///< old value: bool

    explicit OrderedSwTableStatus(SwTableId tableId) : tableId_(tableId) {}

    SwTableId tableId() const { return tableId_; }
    /// Whether some change of the family has not been acknowledged by the hardware side.
    bool pendingHwWrites() const { return pendingHwWrites_; }
    void pendingHwWritesIs(bool pending) {
        if (pending == pendingHwWrites_)
            return;
        pendingHwWrites_ = pending;
        const bool old = !pending;
        publisher().publish(kPendingHwWrites, &old);
    }

private:
    SwTableId tableId_;
    bool pendingHwWrites_ = false;
};

/// The ordered software table of one unit.
class OrderedSwTable : public NamedSwTable {
public:
    /// Attributes that tables publish when their value really changes. The old value is of the
    /// attribute's type. Of a keyed collection it is what the key had before, null or invalid when
    /// that was nothing; there is none when the whole collection went.
    enum Attribute : Kiv::AttributeId {
        kSwTableHelper = 1,          ///< old value: Ptr to the helper
        kTransientAddEntry,          ///< old value: Ptr to the key's wrapper
        kTransientRemoveEntry,       ///< old value: Ptr to the key's wrapper
        kTransientVersionForKey,     ///< old value: the key's EntryVersion
        kTransientRemoveAllVersion,  ///< old value: MajorVersion
        kEntryLog,
        kGroupResolver,
        kEntryHandleInLog,  ///< "old value": the new back element's std::uint32_t number
        kLinkage,           ///< old value: Ptr to the linkage
        kStatus,
    };

    class EntryHandle;
    /// Called once, when a change completes or fails. May call back into the table.
    using ResponseHandler = std::function<void(const Brumo::Ptr<const EntryHandle>&)>;

    OrderedSwTable(Brumo::Ptr<const CanonicalTableName> name, SwTableId tableId, UnitId unit,
                   OrderedSwTableSet* tableSet)
        : NamedSwTable(std::move(name)), tableId_(tableId), unitId_(unit), tableSet_(tableSet) {}

    /// The hardware side has consumed the table's log up to `version`.
    virtual void tableStatusVersion(LogVersion version) = 0;
    /// Whether changes are staged, or committed and not yet acknowledged.
    virtual bool hasPendingHwWrites() const = 0;
    /// The last version that the table's log has handed out.
    virtual LogVersion logVersion() const = 0;

    /// For inspection: keys with a staged change (also one that failed with what it depended on)
    /// and remove-alls; and committed changes whose handle has not been answered.
    virtual std::size_t stagedCount() const { return 0; }
    virtual std::size_t inLogCount() const { return 0; }
    /// Visits the handles of committed changes that the hardware side has not acknowledged, oldest
    /// first, until `visit` says false. It must not change the table.
    virtual void forEachHandleInLog(
        const std::function<bool(const EntryHandle&)>& /*visit*/) const {}

    SwTableId tableId() const { return tableId_; }
    UnitId unitId() const { return unitId_; }
    /// The family's set that this table belongs to; null once that has gone.
    OrderedSwTableSet* tableSet() const { return tableSet_; }
    void tableSetDel() { tableSet_ = nullptr; }
    /// Null before statsIs().
    const Brumo::Ptr<SwTableStats>& stats() const { return stats_; }
    /// Creates the statistics.
    void statsIs() { stats_ = Brumo::make<SwTableStats>(); }
    const Brumo::Ptr<OrderedSwTableStatus>& status() const { return status_; }
    void statusIs(Brumo::Ptr<OrderedSwTableStatus> status) {
        status_ = std::move(status);
        publisher().publish(kStatus);
    }

private:
    SwTableId tableId_;
    UnitId unitId_;
    OrderedSwTableSet* tableSet_;
    Brumo::Ptr<SwTableStats> stats_;
    Brumo::Ptr<OrderedSwTableStatus> status_;
};

/// The handle of one change.
class OrderedSwTable::EntryHandle : public DependencyEntryHandle {
public:
    static constexpr Kiv::AttributeId kLogVersion = 2;  ///< old value: LogVersion
    static constexpr Kiv::AttributeId kSwTable = 3;     ///< old value: pointer to the table

    explicit EntryHandle(EntryVersion version) : entryVersion_(version) {}

    EntryVersion entryVersion() const { return entryVersion_; }
    LogVersion logVersion() const { return logVersion_; }
    void logVersionIs(LogVersion version) {
        if (version == logVersion_)
            return;
        const LogVersion old = logVersion_;
        logVersion_ = version;
        publisher().publish(kLogVersion, &old);
    }
    TableVersion entryTableVersion() const override { return {tableId(), logVersion_}; }

    /// For inspection: the key of the change, and what it does.
    virtual std::string keyText() const { return {}; }
    bool isRemove() const { return isRemove_; }
    void isRemoveIs(bool isRemove) { isRemove_ = isRemove; }
    /// The turns in which the change was staged and committed; 0 where it was not.
    std::chrono::nanoseconds stagedAt() const { return stagedAt_; }
    void stagedAtIs(std::chrono::nanoseconds time) { stagedAt_ = time; }
    std::chrono::nanoseconds committedAt() const { return committedAt_; }
    void committedAtIs(std::chrono::nanoseconds time) { committedAt_ = time; }

private:
    EntryVersion entryVersion_;
    LogVersion logVersion_;
    std::chrono::nanoseconds stagedAt_{0};
    std::chrono::nanoseconds committedAt_{0};
    bool isRemove_ = false;
};

}  // namespace Asic
