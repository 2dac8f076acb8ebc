// Entry logs with two units: every kind of change, and the reclaim at the mount.
#include <fmt/format.h>

#include <filesystem>
#include <optional>

#include "entrylog/PolicyCpuTcamActionEntryLog.h"
#include "entrylog/PolicyCpuV4TcamEntryEntryLog.h"
#include "entrylog/PolicyCpuV6TcamEntryEntryLog.h"
#include "hwside/Group.h"
#include "platform/asic/Constants.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/brumo/Assert.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "tests/entrylog/Bindings.h"
#include "tests/torture/Subjects.h"

namespace Torture {

namespace {

using namespace VornPolicyCpu;
using namespace TestSupport;

constexpr std::uint64_t kCapacity = 16;  ///< small files are compared fast
constexpr Asic::UnitId kUnits[] = {{1}, {2}};

template <class B>
class EntryLogSubject final : public Subject {
public:
    using Log = EntryLog<B>;

    /// Mounts both units as after `acknowledged` was consumed.
    EntryLogSubject(const std::string& folder, std::uint64_t acknowledged) : folder_(folder) {
        start(acknowledged);
    }

    void start(std::uint64_t acknowledged = 0) {
        KivShimo::EntityManager::capacityCeilingIs(kCapacity);
        KivShimo::EntityManager::rootIs(kSystem, true, folder_);
        database_ = Brumo::make<Regdb::EntityManager>(kSystem, true);
        tables_ = Brumo::make<Asic::OrderedTableInterface>(database_, "VornPolicyCpu", loop_);
        group_ = tables_->makeGroupIntf("VornPolicyCpuGroup", 0x2C08);
        log_ = entryLogFactory<B>(B::kTableId, database_, group_, "VornPolicyCpu");
        for (const Asic::UnitId unit : kUnits)
            log_->mountShimoConfig(unit, {acknowledged});
    }

    void stop() {
        log_ = nullptr;
        group_ = nullptr;
        tables_ = nullptr;
        database_ = nullptr;
        KivShimo::EntityManager::forget(kSystem);
    }

    Log& log() { return *log_; }

    /// The change log is lost; a new file is there, marked so, but nobody has acted on it yet.
    void loseLog() {
        stop();
        std::filesystem::remove(HwSide::Group{folder_}.changeLogFile<typename B::Types>());
        KivShimo::EntityManager::rootIs(kSystem, true, folder_);
        const auto manager = KivShimo::EntityManager::get(kSystem, true);
        KivShimo::MountInfo info(0);
        info.collectionIs({kEntryLogConfig, kCapacity, 0});
        manager->mountGroup()->mountIs(Constants<typename B::Types>::tableEntryLogShimoPath(),
                                       Constants<typename B::Types>::entryLogShimoType(), info);
        manager->mountGroup()->close();
        KivShimo::EntityManager::forget(kSystem);
    }

    /// The version published last is rotten.
    void spoilPublishedVersion() {
        auto& word = log_->tableEntryLog()->mapping().dynamicHeader().scratchpad;
        const auto newer = word.cells[0].serial > word.cells[1].serial ? 0 : 1;
        word.cells[newer].value ^= 1U;
        stop();
    }

    Asic::LogVersion write(std::uint32_t number, std::uint32_t word = 0x111111) {
        const auto needed = Brumo::make<Asic::NeededEntry>();
        for (std::uint32_t i = 1; i <= 4; ++i)
            needed->add({Asic::SwTableId(0x2C080500 + i), {word % 1000 + i}});
        return log_->entryIs(logEntryOf<B>(number, word), resourceKeysOf<B>(number), needed,
                             kUnits[0], stats_, false);
    }
    void remove(std::uint32_t number) { log_->entryDel(keyOf<B>(number), nullptr, kUnits[0]); }
    void removeAll() { log_->tableDel(nullptr, kUnits[0]); }

    std::string state() override {
        std::string text =
            fmt::format("version {} published {} corruptions {} {}\n", log_->tableVersion().value,
                        log_->tableEntryLog()->collectionControl().scratchpad(),
                        log_->tableEntryLog()->corruptions(), group_->corruptions());
        for (const Asic::UnitId unit : kUnits) {
            const auto config = log_->tableConfigShimo(unit);
            text += fmt::format("unit {}: {} live, {} in deletion, corruptions {}\n", unit,
                                log_->entrys(unit), log_->entrysInDeletion(unit),
                                config->corruptions());
            for (auto value = config->swTableEntriesFromStart(); value.has_value();
                 value = config->swTableEntriesAfter(value->key())) {
                text += fmt::format("  {} @{}{} {} {}\n", value->key(), value->version.value,
                                    value->inDeletion ? " in deletion" : "", value->logEntry,
                                    value->rsrcKeys);
            }
        }
        for (auto at = log_->tableEntryLog()->entryLogConfigVersionAtOrAfter({1}); at.has_value();
             at = log_->tableEntryLog()->entryLogConfigVersionAtOrAfter({at->value + 1})) {
            text += fmt::format("  record {}\n", *log_->tableEntryLog()->entryLogConfig(*at));
        }
        return text + announcements();
    }

    void use() override {
        const Asic::LogVersion before = log_->tableVersion();
        Brumo::require(write(7, 0x222222).value == before.value + 1, "versions go on");
        Brumo::require(log_->entryLogVersion(keyOf<B>(7), kUnits[0]).value == before.value + 1,
                       "what was written is read");
        remove(7);
        log_->cleanupEntryLog(log_->tableVersion());
        Brumo::require(log_->entrysInDeletion(kUnits[0]) == 0, "everything is reclaimed");
        Brumo::require(log_->entryLogConfigs() == 0, "no record is left");
        Brumo::require(!log_->tableEntryLog()->journal().pending().has_value(), "nothing pending");
    }

private:
    std::string announcements() {
        std::string text;
        const auto log = KivShimo::AnnounceLogReader::open(
            KivShimo::tableFile(folder_, Asic::Constants::announcementsPath(canonicalGroupName())));
        std::uint64_t position = 0;
        while (const auto next = log->next(position + 1)) {
            text += fmt::format("  announced {:x}@{} needing", next->tableId, next->version);
            for (const KivShimo::NeededVersion& needed : next->needed)
                text += fmt::format(" {:x}@{}", needed.tableId, needed.version);
            text += '\n';
            position = next->position;
        }
        return text;
    }

    std::string folder_;
    Kiv::ManualEventLoop loop_;
    Brumo::Ptr<Regdb::EntityManager> database_;
    Brumo::Ptr<Asic::OrderedTableInterface> tables_;
    Brumo::Ptr<Asic::GroupInterface> group_;
    Brumo::Ptr<Log> log_;
    Brumo::Ptr<Asic::SwTableStats> stats_ = Brumo::make<Asic::SwTableStats>();
};

/// Whether a unit's values are as a record says, or newer.
template <class B>
bool valuesAreAs(const typename EntryLog<B>::Record& record, const HwSide::Group& group) {
    using Types = typename B::Types;
    using Value = typename EntryLog<B>::ConfigValue;
    const KivShimo::MapReader<Value> values(group.configFile<Types>(record.unitId),
                                            Constants<Types>::configShimoType(), kSwTableEntries);
    if (record.operation != LogOperation::allDeleted) {
        const auto value = values.find(record.key);
        return value.has_value() && value->version >= record.version;
    }
    bool areDeleted = true;
    values.forEach([&](const Value& value) {
        areDeleted = areDeleted && (value.inDeletion || value.version > record.version);
    });
    return areDeleted;
}

/// Keys of the first unit that readers find not to be there, not those that they have to wait for.
template <class B>
std::set<std::string> absentKeys(const HwSide::Group& group) {
    using Types = typename B::Types;
    const KivShimo::MapReader<typename EntryLog<B>::ConfigValue> values(
        group.configFile<Types>(kUnits[0]), Constants<Types>::configShimoType(), kSwTableEntries);
    std::set<std::string> absent;
    for (std::uint32_t number = 1; number <= 3; ++number) {
        try {
            if (!values.find(keyOf<B>(number)).has_value())
                absent.insert(keyOf<B>(number).toText());
        } catch (const KivShimo::BusyError&) {
            // It is being stored.
        }
    }
    return absent;
}

/// Value, record, published version, announcement: whoever sees one finds those before it.
template <class B>
Sight readLog(const std::string& folder, std::uint64_t reclaimed) {
    using Types = typename B::Types;
    const HwSide::Group group{folder};
    const KivShimo::VersionLogReader<typename EntryLog<B>::Record> log(
        group.changeLogFile<Types>(), Constants<Types>::entryLogShimoType(), kEntryLogConfig);
    Sight sight{log.scratchpad(), {}, absentKeys<B>(group)};
    for (std::uint64_t version = sight.published; version > reclaimed; --version) {
        const auto record = log.find(version);
        if (!record.has_value()) {
            sight.wrong += fmt::format("{} is published without a record\n", version);
        } else if (!valuesAreAs<B>(*record, group)) {
            sight.wrong += fmt::format("{} is published before its value\n", version);
        }
    }
    const auto announcements = KivShimo::AnnounceLogReader::open(group.announcementsFile());
    std::uint64_t position = 0;
    while (const auto next = announcements->next(position + 1)) {
        position = next->position;
        if (next->tableId == B::kTableId.whole() && next->version > sight.published)
            sight.wrong += fmt::format("{} is announced and not published\n", next->version);
    }
    return sight;
}

/// With a version that each mount knows as acknowledged, the change is such a mount.
template <class B>
Scenario scenario(std::string_view name, std::function<void(EntryLogSubject<B>&)> prepare,
                  std::function<void(EntryLogSubject<B>&)> change,
                  std::optional<std::uint64_t> acknowledged = {}) {
    const auto as = [](Subject& subject) -> EntryLogSubject<B>& {
        return static_cast<EntryLogSubject<B>&>(subject);
    };
    return {fmt::format("{}: {}", B::Types::kName, name),
            [acknowledged](const std::string& folder) {
                return std::make_unique<EntryLogSubject<B>>(folder, acknowledged.value_or(0));
            },
            [as, prepare = std::move(prepare)](Subject& subject) { prepare(as(subject)); },
            [as, change = std::move(change)](Subject& subject) { change(as(subject)); },
            readLog<B>,
            acknowledged.has_value(),
            acknowledged.has_value()};
}

template <class B>
void addScenarios(std::vector<Scenario>& all) {
    using S = EntryLogSubject<B>;
    const auto two = [](S& s) {
        s.write(1);
        s.write(2);
    };
    const auto oneDeleted = [two](S& s) {
        two(s);
        s.remove(1);
    };
    const auto allDeleted = [](S& s) {
        s.write(1);
        s.removeAll();
    };
    const auto cleanUp = [](S& s) { s.log().cleanupEntryLog(s.log().tableVersion()); };
    const auto cleanUpBefore = [](S& s) {
        s.log().cleanupEntryLog({s.log().tableVersion().value - 1});
    };
    all.push_back(scenario<B>("write of a new key", two, [](S& s) { s.write(3); }));
    all.push_back(scenario<B>("overwrite", two, [](S& s) { s.write(1, 0x333333); }));
    all.push_back(
        scenario<B>("write of a key in deletion", oneDeleted, [](S& s) { s.write(1, 0x333333); }));
    all.push_back(scenario<B>("delete", two, [](S& s) { s.remove(1); }));
    all.push_back(
        scenario<B>("delete of a key in deletion", oneDeleted, [](S& s) { s.remove(1); }));
    all.push_back(scenario<B>("table delete", two, [](S& s) { s.removeAll(); }));
    all.push_back(scenario<B>(
        "cleanup of a write",
        [cleanUpBefore, two](S& s) {
            two(s);
            cleanUpBefore(s);
        },
        cleanUp));
    all.push_back(scenario<B>(
        "cleanup of a delete",
        [cleanUpBefore, oneDeleted](S& s) {
            oneDeleted(s);
            cleanUpBefore(s);
        },
        cleanUp));
    all.push_back(scenario<B>(
        "cleanup of a table delete",
        [cleanUpBefore, allDeleted](S& s) {
            allDeleted(s);
            s.log().cleanupEntryLog({1});
            cleanUpBefore(s);
        },
        cleanUp));
    all.push_back(scenario<B>(
        "reclaim at the mount", oneDeleted, [](S& s) { s.log().mountShimoConfig(kUnits[0], {3}); },
        3));
}

/// Mounts that find something lost or rotten. Versions must go on, whenever such a mount is killed;
/// readers find what they find.
void addMountsOfDamage(std::vector<Scenario>& all) {
    using S = EntryLogSubject<PolicyCpuV4TcamEntryBinding>;
    const auto threeConsumed = [](S& s) {
        for (std::uint32_t number : {1U, 2U, 3U})
            s.write(number);
        s.log().cleanupEntryLog(s.log().tableVersion());
    };
    const auto mount = [](S& s) { s.start(); };
    const std::size_t first = all.size();
    all.push_back(scenario<PolicyCpuV4TcamEntryBinding>(
        "mount of a lost log",
        [threeConsumed](S& s) {
            threeConsumed(s);
            s.loseLog();
        },
        mount));
    all.push_back(scenario<PolicyCpuV4TcamEntryBinding>(
        "mount of a rotten version",
        [threeConsumed](S& s) {
            threeConsumed(s);
            s.spoilPublishedVersion();
        },
        mount));
    all[first].leavesStateAsItIs = true;
    for (std::size_t i = first; i < all.size(); ++i) {
        all[i].isMount = true;
        all[i].read = [](const std::string&, std::uint64_t) { return Sight{}; };
    }
}

}  // namespace

std::vector<Scenario> entryLogScenarios() {
    std::vector<Scenario> all;
    addScenarios<PolicyCpuTcamActionBinding>(all);
    addScenarios<PolicyCpuV4TcamEntryBinding>(all);
    addScenarios<PolicyCpuV6TcamEntryBinding>(all);
    addMountsOfDamage(all);
    return all;
}

}  // namespace Torture
