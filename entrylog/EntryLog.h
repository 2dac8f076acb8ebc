// The entry log of a table: what of it survives the agent.
//
// It is the only writer of the table's persisted state: per unit the committed value of every key,
// and per table one change log, in which every change is one record with a new version. The
// hardware side reads the log in version order and acknowledges versions; cleanup then reclaims the
// records, and the values of deleted keys.
//
// Event thread only. The interface of the family owns it; tables refer to it.
//
// What always holds:
//  1. Versions are handed out in strictly increasing order, one an accepted change, shared by all
//     units; a suppressed write and an ignored delete take none.
//  2. A change is visible to readers in this order: value, record, published version, announcement.
//  3. A key in deletion keeps its value, marked, until the record of its deletion is reclaimed.
//  4. A change is all or nothing: it is in the change log's journal from before its first store
//     until it is announced, and the next mount finishes what a killed process has begun.
//  5. Corruption found while reading goes to the table's corruption handler and reads as the
//     default value. A count ends there, and so do the walks of a cleanup, after which deletions
//     without a record are found by their values; every other walk goes on behind it.
#pragma once

#include <map>
#include <optional>
#include <type_traits>

#include "catalogue/Binding.h"
#include "platform/asic/EntryLogBase.h"
#include "types/Shimo.h"

namespace VornPolicyCpu {

template <class B>
class EntryLog final : public Asic::EntryLogBase {
public:
    using Types = typename B::Types;
    using Key = typename B::Key;
    using LogEntry = typename B::LogEntry;
    using ResourceKeys = typename B::ResourceKeys;
    using ConfigTable = ConfigShimo<Types>;
    using ChangeLog = EntryLogShimo<Types>;
    using ConfigValue = typename ConfigTable::Value;
    using Spot = typename ConfigTable::Spot;
    using Record = typename ChangeLog::Record;
    using NeededPtr = Brumo::Ptr<const Asic::NeededEntry>;

    static constexpr Kiv::AttributeId kTableConfigShimo = 1;

    /// Mounts the change log. Throws KivShimo::MountError.
    EntryLog(Asic::SwTableId tableId, Brumo::Ptr<Regdb::EntityManager> entityManager,
             Brumo::Ptr<Asic::GroupInterface> groupInterface, Brumo::String agentName);

    const Kiv::TypeData& typeData() const override;

    // Mounting.

    /// Mounts the change log; construction does it.
    void mountShimoChangeLog();
    /// Mounts a unit's configuration and drops what was deleted at or before `logVersion`, up to
    /// which the hardware side has consumed the log (0: nothing is dropped).
    void mountShimoConfig(Asic::UnitId unitId, Asic::LogVersion logVersion);
    void tableConfigShimoIs(Asic::UnitId unitId, Brumo::Ptr<ConfigTable> configShimo);
    void tableConfigShimoDel(Asic::UnitId unitId);
    void tableConfigShimoDelAll();
    /// Null when the unit's configuration is not mounted.
    Brumo::Ptr<ConfigTable> tableConfigShimo(Asic::UnitId unitId) const;
    bool tableConfigShimoHas(Asic::UnitId unitId) const {
        return tableConfigShimo_.contains(unitId);
    }
    /// Null when it could not be mounted.
    const Brumo::Ptr<ChangeLog>& tableEntryLog() const { return tableEntryLog_; }
    /// Records in the change log.
    std::size_t entryLogConfigs() const {
        return tableEntryLog_ == nullptr ? 0 : tableEntryLog_->entryLogConfigs();
    }

    /// How many of them it is made for; 0 when it could not be mounted.
    std::size_t entryLogConfigCapacity() const {
        return tableEntryLog_ == nullptr ? 0 : tableEntryLog_->entryLogConfigCapacity();
    }

    // Changes. REQUIRES: the unit's configuration is mounted; no more than
    // KivShimo::Journal::kMostNeeded tables are needed.

    /// Writes an entry and returns the version of the write; with `suppressIdenticalWrites` and an
    /// equal entry in the log, writes nothing and returns the version of the earlier write.
    /// REQUIRES: entryHasRoom() of the key; a value that finds no room is lost, its record is not.
    Asic::LogVersion entryIs(const LogEntry& logEntry, const ResourceKeys& rsrcKeys,
                             const NeededPtr& neededEntry, Asic::UnitId unitId,
                             const Brumo::Ptr<Asic::SwTableStats>& stats,
                             bool suppressIdenticalWrites);
    /// Deletes a key and returns the version of the deletion; 0 when the log holds no value for it.
    Asic::LogVersion entryDel(const Key& key, const NeededPtr& neededEntry, Asic::UnitId unitId);
    /// Deletes all entries of a unit and returns the version of the deletion.
    Asic::LogVersion tableDel(const NeededPtr& neededEntry, Asic::UnitId unitId);

    /// As KivShimo::Map::prefetch, of the unit's value, if the unit is mounted.
    void prefetch(const Key& key, Asic::UnitId unitId) const;
    /// Whether a write of the key finds room: always, when the unit has a value for it already.
    bool entryHasRoom(const Key& key, Asic::UnitId unitId) const;

    // Reads.

    /// The stored log entry; the default when absent or in deletion.
    LogEntry entry(const Key& key, Asic::UnitId unitId) const;
    bool entryHas(const Key& key, Asic::UnitId unitId) const;
    /// Asks as entryHas does, and traces as it does: what `use` makes of the stored value; nothing
    /// when it is absent or in deletion.
    template <class Use>
    auto liveEntry(const Key& key, Asic::UnitId unitId, const Use& use) const
        -> std::optional<std::invoke_result_t<Use, const ConfigValue&>>;
    /// Also of a key in deletion.
    ResourceKeys entryRsrcKeys(const Key& key, Asic::UnitId unitId) const;
    /// Also of a key in deletion: the version of its deletion. 0 when absent.
    Asic::LogVersion entryLogVersion(const Key& key, Asic::UnitId unitId) const;
    /// Live keys. REQUIRES: the unit's configuration is mounted.
    std::uint32_t entrys(Asic::UnitId unitId) const;
    std::uint32_t entrysInDeletion(Asic::UnitId unitId) const;
    /// The stored value, in deletion or not; nothing when absent.
    std::optional<ConfigValue> configEntry(const Key& key, Asic::UnitId unitId) const;

    // Cleanup.

    /// Reclaims the records up to `version`, which the hardware side has consumed, and the values
    /// whose deletion they record. Takes time by the records there are, whatever the version.
    void cleanupEntryLog(Asic::LogVersion version);
    /// The target of the last cleanup; may move backwards.
    Asic::LogVersion cleanedUpTo() const { return cleanedUpTo_; }

private:
    void handleInitialized();
    Brumo::Ptr<ConfigTable> mountedConfig(Asic::UnitId unitId,
                                          std::optional<std::uint64_t> pendingKey = std::nullopt);

    // A change: sealed in the journal, carried out, announced. Each can be repeated.

    void beginSealed(KivShimo::JournalOperation operation, Asic::LogVersion version,
                     Asic::UnitId unitId, const NeededPtr& neededEntry);
    static Record recordOf(const LogEntry& logEntry, Asic::LogVersion version, Asic::UnitId unitId,
                           LogOperation operation);
    void deleteAll(ConfigTable& config, Asic::LogVersion version, Asic::UnitId unitId);
    void publish(const Record& record);
    void changeValue(ConfigTable& config, const Spot& spot,
                     const KivShimo::Summed<ConfigValue>& value, const Record& record,
                     const NeededPtr& neededEntry);

    // Cleanup; what drops the deletions of lost records needs no seal, as it finds them by value.

    void cleanUp(const Record& record);
    void reclaim(const Record& record, ConfigTable& config);
    void dropDeleted(ConfigTable& config, const ConfigValue& value, Asic::LogVersion version);
    void dropDeletedOfLostRecords(Asic::LogVersion version);

    // What a process before has begun.

    void finish(const KivShimo::PendingChange& pending);
    void restoreVersion();
    Asic::LogVersion lastWithoutRecord() const;
    Asic::LogVersion lastVersionWithoutLog();
    void announceWhatWasNot(const std::optional<KivShimo::PendingChange>& pending);

    std::optional<Asic::LogVersion> suppressed(const LogEntry& logEntry,
                                               const ResourceKeys& rsrcKeys, Asic::UnitId unitId,
                                               Asic::SwTableStats& stats) const;
    static bool isDefaultValue(const ConfigValue& value);
    std::optional<Asic::LogVersion> versionAtOrAfter(Asic::LogVersion version) const;
    static std::optional<ConfigValue> valueIn(ConfigTable& config, const Key& key);
    std::optional<Record> changeRecord(Asic::LogVersion version) const;
    /// Calls `visit` for each value of the unit; it may change or delete the value it was given.
    template <class Visit>
    bool forEachValue(ConfigTable& config, Visit&& visit) const;

    Brumo::Ptr<ChangeLog> tableEntryLog_;
    std::map<Asic::UnitId, Brumo::Ptr<ConfigTable>> tableConfigShimo_;
    Asic::LogVersion cleanedUpTo_;
    /// Up to here, records may be gone without having been cleaned up: the values whose deletion
    /// they recorded are looked for when the hardware side has come this far. 0: none are gone.
    Asic::LogVersion recordsLostUpTo_;
    static constexpr Asic::LogVersion kNothingLeft{~std::uint64_t{0}};
    /// Where the first cleanup has ended before its time.
    Asic::LogVersion leftBehind_ = kNothingLeft;
};

template <class B>
Brumo::Ptr<EntryLog<B>> entryLogFactory(Asic::SwTableId tableId,
                                        const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                                        const Brumo::Ptr<Asic::GroupInterface>& groupInterface,
                                        const Brumo::String& agentName) {
    return Brumo::make<EntryLog<B>>(tableId, entityManager, groupInterface, agentName);
}

}  // namespace VornPolicyCpu
