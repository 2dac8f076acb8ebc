// Connecting an entry log to its shared-memory tables, and telling lost ones from new ones.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "entrylog/EntryLog.h"
#include "entrylog/Journaling.h"
#include "entrylog/ShimoManager.h"
#include "platform/asic/GenId.h"
#include "platform/brumo/Assert.h"
#include "platform/brumo/Log.h"

namespace VornPolicyCpu {

/// The messages of entry logs; operators know them by identifier.
namespace LogMessages {

inline constexpr int kSeverity = 3;
inline constexpr std::string_view kNoAction = "\x01";

inline const Brumo::LogHandle exception{
    {"HW_ABSTRACTION_EXCEPTION", "%s", "Exception", kNoAction, kSeverity}};
inline const Brumo::LogHandle relaunchError{{"HW_ABSTRACTION_RELAUNCH_ERROR", "%s",
                                             "Duplicate Writer Detected, shimo path not cleaned up",
                                             kNoAction, kSeverity}};
inline const Brumo::LogHandle error{
    {"HW_ABSTRACTION_ERROR", "Hardware abstraction error: unable to load item: %s",
     "Hardware abstraction error: unable to load some persistent items. Some agents will be "
     "restarted",
     kNoAction, kSeverity}};

}  // namespace LogMessages

/// Agents that watch the entity at this path followed by an agent's name restart when it moves.
inline constexpr std::string_view kRelaunchConfigPath = "hardware/crest/agent/relaunch/config/";

/// Mounts `path` for writing as a T and returns it; null when what is there is no T. When the table
/// was lost since it was last mounted, calls `wipedFn`, asks for a relaunch of the agents that
/// depend on it, and clears the mark.
template <class T>
Brumo::Ptr<T> checkAndwriteMountShimo(
    const Brumo::Ptr<Regdb::EntityManager>& entityManager, const std::string& typeName,
    const std::string& path, const Brumo::String& agentName,
    const std::function<void(KivShimo::MountInfo&)>& mountInfoFn,
    const std::function<KivShimo::CollectionControl&(const Brumo::Ptr<T>&)>& collectionControlFn,
    const std::function<void()>& wipedFn) {
    const auto shimoManager = shimoManagerOf(*entityManager);
    constexpr int kMountType = 0;
    KivShimo::MountInfo mountInfo(kMountType);
    mountInfoFn(mountInfo);
    const auto mountGroup = shimoManager->mountGroup();
    mountGroup->mountIs(path, typeName, mountInfo);
    mountGroup->close();
    const Brumo::Ptr<T> result = Brumo::dynamicCast<T>(shimoManager->entity(path));
    if (result == nullptr)
        return nullptr;

    KivShimo::CollectionControl& control = collectionControlFn(result);
    if (control.wiped()) {
        wipedFn();
        const auto relaunch = Brumo::dynamicCast<Asic::GenId>(
            entityManager->entity(std::string(kRelaunchConfigPath) + agentName));
        if (relaunch != nullptr)
            relaunch->majorIdInc(1);
        control.clearWiped();
    }
    return result;
}

template <class B>
EntryLog<B>::EntryLog(Asic::SwTableId tableId, Brumo::Ptr<Regdb::EntityManager> entityManager,
                      Brumo::Ptr<Asic::GroupInterface> groupInterface, Brumo::String agentName)
    : Asic::EntryLogBase(tableId, std::move(entityManager), std::move(groupInterface),
                         std::move(agentName)) {
    handleInitialized();
}

template <class B>
void EntryLog<B>::handleInitialized() {
    Traces<B>::entryLog(8, "");
    mountShimoChangeLog();
}

template <class B>
void EntryLog<B>::mountShimoChangeLog() {
    Traces<B>::entryLog(8, "");
    const std::string path = Constants<Types>::tableEntryLogShimoPath();
    KivShimo::CollectionControl* control = nullptr;
    tableEntryLog_ = checkAndwriteMountShimo<ChangeLog>(
        entityManager(), Constants<Types>::entryLogShimoType(), path, agentName(),
        [](KivShimo::MountInfo& info) {
            info.collectionIs({kEntryLogConfig, kEntryLogConfigCapacity, 0});
        },
        [&control](const Brumo::Ptr<ChangeLog>& log) -> KivShimo::CollectionControl& {
            return *(control = &log->collectionControl());
        },
        [this, &control] {
            LogMessages::error.emit(fmt::format("{}::{}", "entryLog", Types::kName));
            // Published while the mark says that the log is lost: without it, versions would begin
            // anew.
            control->scratchpadIs(lastVersionWithoutLog().value);
        });
    if (tableEntryLog_ == nullptr)
        return;
    const auto pending = tableEntryLog_->journal().pending();
    if (pending.has_value())
        finish(*pending);
    restoreVersion();
    recordsLostUpTo_ = std::max(recordsLostUpTo_, lastWithoutRecord());
    Traces<B>::entryLog(2, " Mounted entryLog: {}, tableVersion: {}", path, tableVersion());
    announceWhatWasNot(pending);
    if (pending.has_value())
        tableEntryLog_->journal().done();
}

/// The last version up to which records may be gone: cleaned up, which whoever mounts the
/// configurations knows, or given up, or lost. Just after the mount.
template <class B>
Asic::LogVersion EntryLog<B>::lastWithoutRecord() const {
    const auto lowest = versionAtOrAfter({1});
    if (!lowest.has_value() || tableEntryLog_->corruptions() > 0)
        return tableVersion();
    return {lowest->value - 1};
}

/// The unit's configuration. Values that were being stored when the process before was killed count
/// as corruption, but for the one of `pendingKey`, which a pending change will store again.
template <class B>
auto EntryLog<B>::mountedConfig(Asic::UnitId unitId, std::optional<std::uint64_t> pendingKey)
    -> Brumo::Ptr<ConfigTable> {
    const auto cfgShimo = checkAndwriteMountShimo<ConfigTable>(
        entityManager(), Constants<Types>::configShimoType(),
        Constants<Types>::configShimoPath(unitId), agentName(),
        [](KivShimo::MountInfo& info) {
            info.collectionIs({kSwTableEntries, kSwTableEntriesCapacity, 0});
        },
        [](const Brumo::Ptr<ConfigTable>& config) -> KivShimo::CollectionControl& {
            return config->collectionControl();
        },
        [] { LogMessages::error.emit(fmt::format("{}::{}", "entryCfg", Types::kName)); });
    Brumo::require(cfgShimo != nullptr, "cfgShimo");
    cfgShimo->tornSettled(pendingKey);
    KivShimo::CollectionControl& control = cfgShimo->collectionControl();
    if (control.scratchpadRotten())
        control.scratchpadIs(control.scratchpad());  // nobody goes by it
    return cfgShimo;
}

template <class B>
void EntryLog<B>::mountShimoConfig(Asic::UnitId unitId, Asic::LogVersion logVersion) {
    Traces<B>::entryLog(8, " unitId:{}, logVersion: {}", unitId, logVersion);
    const std::string path = Constants<Types>::configShimoPath(unitId);
    const auto cfgShimo = mountedConfig(unitId);
    tableConfigShimoIs(unitId, cfgShimo);
    Traces<B>::entryLog(2, " Mounted config for unitId: {} at {}", unitId, path);
    // The records of what was deleted up to the last cleanup are gone.
    const Asic::LogVersion consumed = std::max(logVersion, cleanedUpTo_);
    if (consumed.value == 0)
        return;
    cfgShimo->swTableEntriesForEachInDeletion(
        [&](const ConfigValue& value) { dropDeleted(*cfgShimo, value, consumed); });
}

template <class B>
void EntryLog<B>::tableConfigShimoIs(Asic::UnitId unitId, Brumo::Ptr<ConfigTable> configShimo) {
    tableConfigShimo_[unitId] = std::move(configShimo);
    publisher().publish(kTableConfigShimo);
}

template <class B>
void EntryLog<B>::tableConfigShimoDel(Asic::UnitId unitId) {
    if (tableConfigShimo_.erase(unitId) > 0)
        publisher().publish(kTableConfigShimo);
}

template <class B>
void EntryLog<B>::tableConfigShimoDelAll() {
    while (!tableConfigShimo_.empty())
        tableConfigShimoDel(tableConfigShimo_.begin()->first);
}

template <class B>
auto EntryLog<B>::tableConfigShimo(Asic::UnitId unitId) const -> Brumo::Ptr<ConfigTable> {
    const auto found = tableConfigShimo_.find(unitId);
    return found == tableConfigShimo_.end() ? nullptr : found->second;
}

}  // namespace VornPolicyCpu
