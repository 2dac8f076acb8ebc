// Reclaiming what the hardware side has consumed: change records, and values in deletion.
#pragma once

#include "entrylog/EntryLog.h"
#include "entrylog/Journaling.h"

namespace VornPolicyCpu {

template <class B>
void EntryLog<B>::cleanupEntryLog(Asic::LogVersion version) {
    Traces<B>::entryLog(8, " version {}", version);
    if (cleanedUpTo_.value != 0 && cleanedUpTo_ > version) {
        // What lies between is reclaimed already: visiting it again finds nothing.
        cleanedUpTo_ = version;
        return;
    }
    // The first cleanup may follow a restart, with records left at any version: it walks the whole
    // log, and corruption ends its walk. A later one looks single versions up, and goes on; also
    // over what such a walk has left.
    const bool isWalk = cleanedUpTo_.value == 0;
    auto next = versionAtOrAfter(std::min(cleanedUpTo_, leftBehind_));
    if (leftBehind_ <= version)
        leftBehind_ = kNothingLeft;
    while (next.has_value() && *next <= version) {
        const Asic::LogVersion current = *next;
        const auto record = changeRecord(current);
        if (record.has_value()) {
            cleanUp(*record);
        } else {
            tableEntryLog_->entryLogConfigDel(current);  // nobody can read it any more
            recordsLostUpTo_ = std::max(recordsLostUpTo_, current);
            if (isWalk) {
                leftBehind_ = current;
                break;
            }
        }
        if (current == version)
            break;
        next = versionAtOrAfter({current.value + 1});
    }
    cleanedUpTo_ = version;
    dropDeletedOfLostRecords(version);
}

/// What a lost record would have reclaimed is found by its value.
template <class B>
void EntryLog<B>::dropDeletedOfLostRecords(Asic::LogVersion version) {
    if (recordsLostUpTo_.value == 0 || version < recordsLostUpTo_)
        return;
    recordsLostUpTo_ = {};
    for (const auto& unit : tableConfigShimo_) {
        ConfigTable& config = *unit.second;
        config.swTableEntriesForEachWhole(
            [&](const ConfigValue& value) { dropDeleted(config, value, version); });
    }
}

/// Drops a value that was deleted at or before `version`, which the hardware side has consumed.
template <class B>
void EntryLog<B>::dropDeleted(ConfigTable& config, const ConfigValue& value,
                              Asic::LogVersion version) {
    if (value.inDeletion && value.version <= version)
        config.swTableEntriesDel(value.key());
}

template <class B>
std::optional<Asic::LogVersion> EntryLog<B>::versionAtOrAfter(Asic::LogVersion version) const {
    if (tableEntryLog_ == nullptr)
        return std::nullopt;
    return tableEntryLog_->entryLogConfigVersionAtOrAfter(version);
}

/// The record of a version; nothing when it cannot be read, which is reported.
template <class B>
auto EntryLog<B>::changeRecord(Asic::LogVersion version) const -> std::optional<Record> {
    try {
        return tableEntryLog_->entryLogConfig(version);
    } catch (const KivShimo::CorruptionError& error) {
        tableEntryLog_->doCorruptionDetected(error.what());
        return std::nullopt;
    }
}

/// Takes a record out of the log, and with it the values whose deletion it records. The record of a
/// write takes one store, and needs no journal.
template <class B>
void EntryLog<B>::cleanUp(const Record& record) {
    const auto config = tableConfigShimo(record.unitId);
    if (config == nullptr || record.operation == LogOperation::entryWritten) {
        tableEntryLog_->entryLogConfigDel(record.version);
        if (config == nullptr) {
            Traces<B>::entryLog.in("cleanupEntryLog", 3, " configShimo not found for unitId: {}",
                                   record.unitId);
        }
        return;
    }
    KivShimo::JournalWriter& journal = tableEntryLog_->journal();
    beginSealed(kSealedReclaim, record.version, record.unitId, nullptr);
    journal.valueIs(record);
    journal.seal();
    tableEntryLog_->entryLogConfigDel(record.version);
    reclaim(record, *config);
    journal.done();
}

/// A value that was written again after the deletion has another version, and stays.
template <class B>
void EntryLog<B>::reclaim(const Record& record, ConfigTable& config) {
    const auto operation = static_cast<unsigned>(record.operation);
    if ((operation & static_cast<unsigned>(LogOperation::entryDeleted)) != 0) {
        const auto stored = valueIn(config, record.key);
        if (stored.has_value() && stored->version == record.version) {
            config.swTableEntriesDel(record.key);
        }
    } else if ((operation & static_cast<unsigned>(LogOperation::allDeleted)) != 0) {
        Traces<B>::entryLog.in("cleanupEntryLog", 3, " deleteing all entries for unitId: {}",
                               record.unitId);
        const bool isWhole = forEachValue(config, [&](const ConfigValue& value) {
            if (value.version == record.version)
                config.swTableEntriesDel(value.key());
        });
        // The record goes, so those behind the corruption are found by their values.
        if (!isWhole)
            recordsLostUpTo_ = std::max(recordsLostUpTo_, record.version);
    }
}

}  // namespace VornPolicyCpu
