// Writing changes into an entry log and reading values back.
#pragma once

#include "entrylog/EntryLog.h"
#include "entrylog/Journaling.h"
#include "platform/brumo/Assert.h"

namespace VornPolicyCpu {

template <class B>
Asic::LogVersion EntryLog<B>::entryIs(const LogEntry& logEntry, const ResourceKeys& rsrcKeys,
                                      const NeededPtr& neededEntry, Asic::UnitId unitId,
                                      const Brumo::Ptr<Asic::SwTableStats>& stats,
                                      bool suppressIdenticalWrites) {
    const auto config = tableConfigShimo_.find(unitId);
    if (config == tableConfigShimo_.end()) [[unlikely]] {
        Brumo::require(false, "tableConfigShimoHas( unitId )",
                       fmt::format("Config shimo for unitId:{} is not created yet!", unitId));
    }
    if (suppressIdenticalWrites) {
        if (const auto earlier = suppressed(logEntry, rsrcKeys, unitId, *stats))
            return *earlier;
    }
    const Asic::LogVersion version = tableVersionInc(1);
    Traces<B>::entryLog(
        8, " logEntry: {} neededEntry: {} version: {} unitId: {} suppressIdenticalWrites: {}",
        logEntry, neededEntry, version, unitId, suppressIdenticalWrites);
    const auto spot = config->second->swTableEntriesSpot(logEntry.key);
    changeValue(*config->second, spot, {ConfigValue::wordsOf(logEntry, rsrcKeys, version)},
                recordOf(logEntry, version, unitId, LogOperation::entryWritten), neededEntry);
    return version;
}

template <class B>
void EntryLog<B>::changeValue(ConfigTable& config, const Spot& spot,
                              const KivShimo::Summed<ConfigValue>& value, const Record& record,
                              const NeededPtr& neededEntry) {
    KivShimo::JournalWriter& journal = tableEntryLog_->journal();
    beginSealed(kSealedValue, record.version, record.unitId, neededEntry);
    journal.valueIs(value);
    journal.seal();
    config.swTableEntriesJournaledIs(spot, value);
    publish(record);
    groupInterface()->addLogEntry(tableId(), record.version, neededEntry);
    journal.done();
}

template <class B>
void EntryLog<B>::prefetch(const Key& key, Asic::UnitId unitId) const {
    const auto config = tableConfigShimo_.find(unitId);
    if (config != tableConfigShimo_.end())
        config->second->swTableEntriesPrefetch(key);
}

template <class B>
bool EntryLog<B>::entryHasRoom(const Key& key, Asic::UnitId unitId) const {
    const auto config = tableConfigShimo(unitId);
    return config == nullptr || config->swTableEntriesHasRoomFor(key);
}

/// Such a value says no more than an absent one.
template <class B>
bool EntryLog<B>::isDefaultValue(const ConfigValue& value) {
    return value.version.value == 0 && !value.inDeletion && value.key().isEq(Key{}) &&
           value.logEntry.isEq(LogEntry{}) && value.rsrcKeys.isEq(ResourceKeys{});
}

/// The version of an earlier write that is identical to this one; nothing when it is to be written.
template <class B>
std::optional<Asic::LogVersion> EntryLog<B>::suppressed(const LogEntry& logEntry,
                                                        const ResourceKeys& rsrcKeys,
                                                        Asic::UnitId unitId,
                                                        Asic::SwTableStats& stats) const {
    const auto stored = configEntry(logEntry.key, unitId);
    if (!stored.has_value() || stored->inDeletion || isDefaultValue(*stored))
        return std::nullopt;
    if (!stored->logEntry.isEq(logEntry) || !stored->rsrcKeys.isEq(rsrcKeys)) {
        Traces<B>::entryLog.in(
            "entryIs", 3,
            "Not Suppressing write because entry or resource key is different  for key: {}",
            rsrcKeys);
        stats.suppressCheckDiffCntInc(1);
        return std::nullopt;
    }
    stats.suppressedWriteCntInc(1);
    Traces<B>::entryLog.in("entryIs", 3, "Suppressing identical write for key: {}", rsrcKeys);
    if (stored->version.value == 0)
        return std::nullopt;
    return stored->version;
}

template <class B>
Asic::LogVersion EntryLog<B>::entryDel(const Key& key, const NeededPtr& neededEntry,
                                       Asic::UnitId unitId) {
    Traces<B>::entryLog(8, " key:{} neededEntry: {} unitId: {}", key, neededEntry, unitId);
    auto stored = configEntry(key, unitId);
    if (!stored.has_value()) {
        Traces<B>::entryLog(3, " key: {} entry does not exist. So ignoring delete", key);
        return {};
    }
    const Asic::LogVersion version = tableVersionInc(1);
    stored->version = version;
    stored->inDeletion = true;
    ConfigTable& config = *tableConfigShimo(unitId);
    changeValue(config, config.swTableEntriesSpot(key), {KivShimo::Words(*stored)},
                recordOf(stored->logEntry, version, unitId, LogOperation::entryDeleted),
                neededEntry);
    return version;
}

template <class B>
Asic::LogVersion EntryLog<B>::tableDel(const NeededPtr& neededEntry, Asic::UnitId unitId) {
    Traces<B>::entryLog(8, " neededEntry:{}, unitId: {}", neededEntry, unitId);
    const Asic::LogVersion version = tableVersionInc(1);
    beginSealed(kSealedDeleteAll, version, unitId, neededEntry);
    tableEntryLog_->journal().seal();
    deleteAll(*tableConfigShimo(unitId), version, unitId);
    groupInterface()->addLogEntry(tableId(), version, neededEntry);
    tableEntryLog_->journal().done();
    return version;
}

template <class B>
auto EntryLog<B>::configEntry(const Key& key, Asic::UnitId unitId) const
    -> std::optional<ConfigValue> {
    const auto config = tableConfigShimo_.find(unitId);
    if (config == tableConfigShimo_.end())
        return std::nullopt;
    return valueIn(*config->second, key);
}

/// Nothing when the value is absent, or cannot be read, which is reported.
template <class B>
auto EntryLog<B>::valueIn(ConfigTable& config, const Key& key) -> std::optional<ConfigValue> {
    try {
        return config.swTableEntries(key);
    } catch (const KivShimo::CorruptionError& error) {
        config.doCorruptionDetected(error.what());
        return std::nullopt;
    }
}

template <class B>
auto EntryLog<B>::entry(const Key& key, Asic::UnitId unitId) const -> LogEntry {
    Traces<B>::entryLog(8, " key: {} unitId:{}", key, unitId);
    const auto stored = configEntry(key, unitId);
    return stored.has_value() && !stored->inDeletion ? stored->logEntry : LogEntry{};
}

template <class B>
template <class Use>
auto EntryLog<B>::liveEntry(const Key& key, Asic::UnitId unitId, const Use& use) const
    -> std::optional<std::invoke_result_t<Use, const ConfigValue&>> {
    using Used = std::optional<std::invoke_result_t<Use, const ConfigValue&>>;
    Traces<B>::entryLog.in("entryHas", 8, " key: {} unitId:{}", key, unitId);
    const auto found = tableConfigShimo_.find(unitId);
    if (found == tableConfigShimo_.end())
        return std::nullopt;
    ConfigTable& config = *found->second;
    try {
        if (const auto at = config.swTableEntriesPosition(key)) {
            return config.swTableEntriesAt(at, [&](const ConfigValue& stored) {
                return stored.inDeletion ? Used() : Used(use(stored));
            });
        }
    } catch (const KivShimo::CorruptionError& error) {
        config.doCorruptionDetected(error.what());
    }
    return std::nullopt;
}

template <class B>
bool EntryLog<B>::entryHas(const Key& key, Asic::UnitId unitId) const {
    return liveEntry(key, unitId, [](const ConfigValue&) { return true; }).has_value();
}

template <class B>
auto EntryLog<B>::entryRsrcKeys(const Key& key, Asic::UnitId unitId) const -> ResourceKeys {
    Traces<B>::entryLog(8, " key: {} unitId:{}", key, unitId);
    const auto stored = configEntry(key, unitId);
    return stored.has_value() ? stored->rsrcKeys : ResourceKeys{};
}

template <class B>
Asic::LogVersion EntryLog<B>::entryLogVersion(const Key& key, Asic::UnitId unitId) const {
    Traces<B>::entryLog(8, " key: {} unitId:{}", key, unitId);
    const auto stored = configEntry(key, unitId);
    return stored.has_value() ? stored->version : Asic::LogVersion{};
}

template <class B>
std::uint32_t EntryLog<B>::entrys(Asic::UnitId unitId) const {
    Traces<B>::entryLog(8, " unitId:{}", unitId);
    const auto config = tableConfigShimo(unitId);
    Brumo::require(config != nullptr, "tableConfigShimoHas( unitId )");
    return static_cast<std::uint32_t>(config->swTableEntriesCount()) - entrysInDeletion(unitId);
}

template <class B>
std::uint32_t EntryLog<B>::entrysInDeletion(Asic::UnitId unitId) const {
    Traces<B>::entryLog(8, " unitId:{}", unitId);
    const auto config = tableConfigShimo(unitId);
    std::uint32_t inDeletion = 0;
    if (config == nullptr)
        return inDeletion;
    forEachValue(*config,
                 [&](const ConfigValue& value) { inDeletion += value.inDeletion ? 1 : 0; });
    return inDeletion;
}

/// False when corruption ended the walk; it is reported.
template <class B>
template <class Visit>
bool EntryLog<B>::forEachValue(ConfigTable& config, Visit&& visit) const {
    try {
        config.swTableEntriesForEach(visit);
        return true;
    } catch (const KivShimo::CorruptionError& error) {
        config.doCorruptionDetected(error.what());
        return false;
    }
}

}  // namespace VornPolicyCpu
