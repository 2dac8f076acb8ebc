// Changes that are all or nothing: sealed before their first store, finished by the next mount.
#pragma once

#include "entrylog/EntryLog.h"
#include "entrylog/ShimoManager.h"

namespace VornPolicyCpu {

/// What the change log's journal may hold, and the content that goes with it.
inline constexpr KivShimo::JournalOperation kSealedValue = 16;      ///< the configuration value
inline constexpr KivShimo::JournalOperation kSealedDeleteAll = 17;  ///< none
inline constexpr KivShimo::JournalOperation kSealedReclaim = 18;    ///< the change record

template <class B>
void EntryLog<B>::beginSealed(KivShimo::JournalOperation operation, Asic::LogVersion version,
                              Asic::UnitId unitId, const NeededPtr& neededEntry) {
    KivShimo::JournalWriter& journal = tableEntryLog_->journal();
    journal.begin(operation, unitId.value, version.value);
    if (neededEntry == nullptr)
        return;
    for (const Asic::TableVersion& needed : *neededEntry)
        journal.needs(needed.tableId.whole(), needed.version.value);
}

/// The record of one key's write or deletion.
template <class B>
auto EntryLog<B>::recordOf(const LogEntry& logEntry, Asic::LogVersion version, Asic::UnitId unitId,
                           LogOperation operation) -> Record {
    Record record;
    record.version = version;
    record.head = logEntry.head;
    record.key = logEntry.key;
    record.word = logEntry.word();
    record.unitId = unitId;
    record.operation = operation;
    return record;
}

/// Values in deletion keep the version of theirs; so this can be repeated.
template <class B>
void EntryLog<B>::deleteAll(ConfigTable& config, Asic::LogVersion version, Asic::UnitId unitId) {
    config.swTableEntriesForEachWhole([&](ConfigValue value) {
        if (value.inDeletion)
            return;
        value.version = version;
        value.inDeletion = true;
        config.swTableEntriesIs(value);
    });
    Record record;
    record.version = version;
    record.unitId = unitId;
    record.operation = LogOperation::allDeleted;
    publish(record);
}

/// Readers take up a version when it is published, so its record must be there by then.
///
/// A full log gives up its oldest record: the hardware side, which has not come to it yet, finds it
/// gone and takes everything from the configurations. Only changes that do not wait for room come
/// this far, and only while the hardware side is away.
template <class B>
void EntryLog<B>::publish(const Record& record) {
    if (!tableEntryLog_->entryLogConfigIs(record)) {
        const auto oldest = tableEntryLog_->entryLogConfigInPlaceOf(record.version);
        Traces<B>::entryLog(1, " no room in change log for version: {}, given up: {}",
                            record.version, oldest);
        tableEntryLog_->entryLogConfigDel(oldest);
        recordsLostUpTo_ = std::max(recordsLostUpTo_, oldest);
        tableEntryLog_->entryLogConfigIs(record);
    }
    tableEntryLog_->collectionControl().scratchpadIs(record.version.value);
}

/// Finishes what the process before has sealed, if it has: afterwards the files are as if the
/// change had been carried out at once. Announcing it, and the end of the seal, are left to the
/// caller.
template <class B>
void EntryLog<B>::finish(const KivShimo::PendingChange& pending) {
    const auto unitId = static_cast<std::uint16_t>(pending.unit);
    const Asic::LogVersion version{pending.version};
    Traces<B>::entryLog(2, " finishing version: {} of unitId: {}", version, unitId);
    if (pending.operation == kSealedValue) {
        if (const auto value = pending.value<ConfigValue>(); value.has_value()) {
            const auto config = mountedConfig({unitId}, KivShimo::tornKeyOf(value->key()));
            config->swTableEntriesJournaledIs(config->swTableEntriesSpot(value->entryKey),
                                              {KivShimo::Words(*value)});
            return publish(recordOf(
                value->logEntry, value->version, {unitId},
                value->inDeletion ? LogOperation::entryDeleted : LogOperation::entryWritten));
        }
    } else if (pending.operation == kSealedDeleteAll) {
        return deleteAll(*mountedConfig({unitId}), version, {unitId});
    } else if (pending.operation == kSealedReclaim) {
        if (const auto record = pending.value<Record>(); record.has_value()) {
            tableEntryLog_->entryLogConfigDel(record->version);
            return reclaim(*record, *mountedConfig({unitId}));
        }
    }
    tableEntryLog_->doCorruptionDetected("pending change of another kind dropped");
}

/// Versions never repeat: neither those whose records outlived the published number, nor, after
/// that has rotted, those that the hardware side has heard of.
template <class B>
void EntryLog<B>::restoreVersion() {
    KivShimo::CollectionControl& control = tableEntryLog_->collectionControl();
    const bool isRotten = control.scratchpadRotten();
    Asic::LogVersion last = tableEntryLog_->entryLogConfigHighest();
    if (isRotten)
        last = std::max(last, lastVersionWithoutLog());
    if (isRotten || control.scratchpad() < last.value)
        control.scratchpadIs(std::max(control.scratchpad(), last.value));
    tableVersionRestored({control.scratchpad()});
}

/// The last version that anything but the change log knows of: what the hardware side has heard of,
/// and the values of all units that have left a configuration.
template <class B>
Asic::LogVersion EntryLog<B>::lastVersionWithoutLog() {
    Asic::LogVersion last;
    if (groupInterface() != nullptr)
        last = groupInterface()->announcedVersion(tableId());
    const std::string base = Constants<Types>::configShimoPathBase();
    for (const std::string& path : shimoManagerOf(*entityManager())->entitiesBelow(base)) {
        const auto unit = Asic::Constants::getUnitIdFromConfigPath(path);
        if (!unit.has_value())
            continue;
        mountedConfig(*unit)->swTableEntriesForEachWhole(
            [&](const ConfigValue& value) { last = std::max(last, value.version); });
    }
    return last;
}

/// A process that was killed between publishing changes and announcing them left them unannounced.
/// What the last of them needed is in the journal; for earlier ones, which had found no room among
/// the announcements, everything announced before is enough. Of those whose records a full log has
/// given up meanwhile, or that were rotten, the last is announced: the hardware side finds no
/// record and takes everything from the configurations.
template <class B>
void EntryLog<B>::announceWhatWasNot(const std::optional<KivShimo::PendingChange>& pending) {
    const auto& group = groupInterface();
    if (group == nullptr)
        return;
    Asic::LogVersion announced = group->announcedUpTo(tableId(), tableVersion());
    while (announced < tableVersion()) {
        const Asic::LogVersion next{announced.value + 1};
        const auto there = versionAtOrAfter(next);
        announced = !there.has_value() ? tableVersion()
                    : *there == next   ? next
                                       : Asic::LogVersion{there->value - 1};
        auto needed = group->everythingAnnounced();
        if (pending.has_value() && pending->version == announced.value) {
            needed = Brumo::make<Asic::NeededEntry>();
            for (const KivShimo::JournalNeeded& each : pending->needed)
                needed->add(
                    {Asic::SwTableId(static_cast<std::uint32_t>(each.tableId)), {each.version}});
        }
        group->addLogEntry(tableId(), announced, needed);
    }
    group->announcedVersionRestored(tableId(), tableVersion());
}

}  // namespace VornPolicyCpu
