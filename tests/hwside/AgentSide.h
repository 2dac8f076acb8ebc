// The agent's side of shared memory, as small as the hardware side's tests need it: it stores
// values, records and announcements in the order in which the agent does.
#pragma once

#include <stdlib.h>

#include <array>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "hwside/Group.h"
#include "hwside/TableReader.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/EntityManager.h"
#include "types/Shimo.h"

namespace HwSide::Test {

using Needed = std::vector<KivShimo::NeededVersion>;

constexpr Asic::UnitId kUnit{1};
constexpr Asic::UnitId kOtherUnit{2};
constexpr std::uint32_t kAction = ActionTypes::kTableId.whole();
constexpr std::uint32_t kV4 = V4Types::kTableId.whole();
constexpr std::uint32_t kV6 = V6Types::kTableId.whole();

constexpr std::uint64_t kCapacity = 256;
constexpr std::uint64_t kAnnouncementSlots = 64;

/// A folder that goes with the object.
class Folder {
public:
    Folder() {
        std::string path = (std::filesystem::temp_directory_path() / "hwside-XXXXXX").string();
        path_ = ::mkdtemp(path.data());
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() { std::filesystem::remove_all(path_); }

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// The writing end of one table.
template <class Types>
class TableWriter {
public:
    using Key = typename Types::Key;
    using ConfigTable = VornPolicyCpu::ConfigShimo<Types>;
    using LogTable = VornPolicyCpu::EntryLogShimo<Types>;
    using Constants = VornPolicyCpu::Constants<Types>;

    TableWriter(KivShimo::EntityManager& manager, std::uint64_t capacity)
        : manager_(&manager), capacity_(capacity) {
        log_ = mounted<LogTable>(Constants::tableEntryLogShimoPath(),
                                 Constants::entryLogShimoType(), VornPolicyCpu::kEntryLogConfig);
        version_ = log_->collectionControl().scratchpad();
    }

    LogTable& log() { return *log_; }
    ConfigTable& config(Asic::UnitId unit) {
        Brumo::Ptr<ConfigTable>& table = configs_[unit];
        if (table == nullptr) {
            table =
                mounted<ConfigTable>(Constants::configShimoPath(unit), Constants::configShimoType(),
                                     VornPolicyCpu::kSwTableEntries);
        }
        return *table;
    }

    std::uint64_t version() const { return version_; }
    /// Stores value and record and publishes the version, which is returned.
    std::uint64_t write(Asic::UnitId unit, const typename Types::Entry& entry) {
        const typename Types::LogEntry logEntry = entry.toLogEntry();
        typename ConfigTable::Value value;
        value.entryKey = entry.key;
        value.logEntry = logEntry;
        value.rsrcKeys = entry.resourceKeys();
        value.version = {++version_};
        config(unit).swTableEntriesIs(value);
        return record(unit, entry.key, VornPolicyCpu::LogOperation::entryWritten);
    }
    std::uint64_t remove(Asic::UnitId unit, const Key& key) {
        auto value = config(unit).swTableEntries(key).value();
        value.version = {++version_};
        value.inDeletion = true;
        config(unit).swTableEntriesIs(value);
        return record(unit, key, VornPolicyCpu::LogOperation::entryDeleted);
    }
    std::uint64_t clear(Asic::UnitId unit) {
        ++version_;
        for (auto value = config(unit).swTableEntriesFromStart(); value;
             value = config(unit).swTableEntriesAfter(value->key())) {
            if (value->inDeletion)
                continue;
            value->version = {version_};
            value->inDeletion = true;
            config(unit).swTableEntriesIs(*value);
        }
        return record(unit, {}, VornPolicyCpu::LogOperation::allDeleted);
    }
    /// What the agent does when all up to the version is acknowledged, for one deleted key.
    void reclaim(Asic::UnitId unit, const Key& key, std::uint64_t version) {
        log().entryLogConfigDel({version});
        config(unit).swTableEntriesDel(key);
    }

private:
    template <class Table>
    Brumo::Ptr<Table> mounted(const std::string& path, const std::string& type,
                              const char* collection) {
        KivShimo::MountInfo info(0);
        info.collectionIs({collection, capacity_, 0});
        manager_->mountGroup()->mountIs(path, type, info);
        manager_->mountGroup()->close();
        return Brumo::Ptr<Table>(dynamic_cast<Table*>(manager_->entity(path).get()));
    }
    std::uint64_t record(Asic::UnitId unit, const Key& key, VornPolicyCpu::LogOperation operation) {
        typename LogTable::Record made;
        made.version = {version_};
        made.key = key;
        made.unitId = unit;
        made.operation = operation;
        log().entryLogConfigIs(made);
        log().collectionControl().scratchpadIs(version_);
        return version_;
    }

    KivShimo::EntityManager* manager_;
    std::uint64_t capacity_;
    Brumo::Ptr<LogTable> log_;
    std::map<Asic::UnitId, Brumo::Ptr<ConfigTable>> configs_;
    std::uint64_t version_ = 0;
};

class AgentSide {
public:
    /// With so many slots for announcements, for records and for values.
    explicit AgentSide(const std::string& root,
                       std::uint64_t announcementSlots = kAnnouncementSlots,
                       std::uint64_t capacity = kCapacity)
        : manager_(Brumo::make<KivShimo::EntityManager>(root)),
          announcements_(root,
                         Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName()),
                         announcementSlots),
          tables_(TableWriter<ActionTypes>(*manager_, capacity),
                  TableWriter<V4Types>(*manager_, capacity),
                  TableWriter<V6Types>(*manager_, capacity)) {}

    template <class Types>
    TableWriter<Types>& table() {
        return std::get<TableWriter<Types>>(tables_);
    }
    KivShimo::AnnounceLogWriter& announcements() { return announcements_; }

    bool announce(std::uint32_t tableId, std::uint64_t version, const Needed& needed = {}) {
        return announcements_.append(tableId, version, needed);
    }
    template <class Types>
    std::uint64_t write(Asic::UnitId unit, const typename Types::Entry& entry,
                        const Needed& needed = {}) {
        const std::uint64_t version = table<Types>().write(unit, entry);
        announce(Types::kTableId.whole(), version, needed);
        return version;
    }
    template <class Types>
    std::uint64_t remove(Asic::UnitId unit, const typename Types::Key& key) {
        const std::uint64_t version = table<Types>().remove(unit, key);
        announce(Types::kTableId.whole(), version);
        return version;
    }
    template <class Types>
    std::uint64_t clear(Asic::UnitId unit) {
        const std::uint64_t version = table<Types>().clear(unit);
        announce(Types::kTableId.whole(), version);
        return version;
    }

private:
    Brumo::Ptr<KivShimo::EntityManager> manager_;
    KivShimo::AnnounceLogWriter announcements_;
    std::tuple<TableWriter<ActionTypes>, TableWriter<V4Types>, TableWriter<V6Types>> tables_;
};

inline ActionTypes::Entry actionEntry(std::uint32_t id, std::uint64_t rate) {
    ActionTypes::Entry entry;
    entry.key.id = id;
    entry.policerClientData.rate = rate;
    entry.policerClientData.burst = rate;
    entry.policerClientData.mode = VornPolicerLib::PolicerMode::packets;
    entry.name = VornPolicyCpu::fixedText<18>("action " + std::to_string(id));
    return entry;
}

template <class Types>
typename Types::Entry matchEntry(std::uint32_t rule, std::uint32_t action,
                                 std::uint32_t priority = 1) {
    typename Types::Entry entry;
    entry.key = {rule, 0};
    entry.actionKey.id = action;
    entry.priority = priority;
    entry.label = VornPolicyCpu::fixedText<16>("rule " + std::to_string(rule));
    return entry;
}

}  // namespace HwSide::Test
