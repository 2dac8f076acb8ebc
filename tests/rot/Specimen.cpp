#include "tests/rot/Specimen.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "entrylog/PolicyCpuTcamActionEntryLog.h"
#include "entrylog/PolicyCpuV4TcamEntryEntryLog.h"
#include "entrylog/PolicyCpuV6TcamEntryEntryLog.h"
#include "hwside/LogReader.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/brumo/Assert.h"
#include "platform/brumo/Log.h"
#include "platform/brumo/Trace.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/PolicerIndexRequestResourceTable.h"
#include "platform/resources/ResourceFile.h"
#include "tests/entrylog/Bindings.h"
#include "tests/support/ResourceTables.h"

namespace Rot {

namespace {

namespace fs = std::filesystem;
using namespace VornPolicyCpu;
using TestSupport::keyOf;
using TestSupport::logEntryOf;
using TestSupport::resourceKeysOf;

using Actions = PolicyCpuTcamActionBinding;
using V4Entries = PolicyCpuV4TcamEntryBinding;
using V6Entries = PolicyCpuV6TcamEntryBinding;

using TestSupport::CounterIndexes;
using TestSupport::PolicerIndexes;

template <class Visit>
void forEachTable(const Visit& visit) {
    visit.template operator()<Actions>();
    visit.template operator()<V4Entries>();
    visit.template operator()<V6Entries>();
}

template <class Visit>
void forEachResource(const Visit& visit) {
    visit.template operator()<CounterIndexes>();
    visit.template operator()<PolicerIndexes>();
}

constexpr const char* kSystem = "rot";
constexpr std::uint64_t kCapacity = 8;
constexpr std::uint32_t kPool = 8;
constexpr std::uint64_t kAnnouncements = 32;
constexpr std::uint32_t kSpecimenKeys = 5;

template <class B>
struct TableOf {
    Brumo::Ptr<EntryLog<B>> log;
};

template <class R>
struct ResourceOf {
    Brumo::Ptr<typename R::Table> table;
    Brumo::Ptr<typename R::Table::ClientInstance> client;
};

/// Everything on disk that a running agent has; with a table's name, only that table and the group.
class Agent {
public:
    explicit Agent(const std::string& folder, std::string only = {}) : only_(std::move(only)) {
        KivShimo::EntityManager::capacityCeilingIs(kAnnouncements);
        KivShimo::EntityManager::rootIs(kSystem, true, folder);
        try {
            mount();
        } catch (...) {
            forget();
            throw;
        }
    }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;
    ~Agent() { forget(); }

    template <class B>
    EntryLog<B>& log() {
        return *std::get<TableOf<B>>(tablesOf_).log;
    }
    template <class R>
    ResourceOf<R>& resource() {
        return std::get<ResourceOf<R>>(resources_);
    }
    template <class Visit>
    void forEachTableOfIt(const Visit& visit) const {
        forEachTable([&]<class B>() {
            if (isOfIt(B::Types::kName))
                visit.template operator()<B>();
        });
    }
    template <class Visit>
    void forEachResourceOfIt(const Visit& visit) const {
        forEachResource([&]<class R>() {
            if (isOfIt(R::kName))
                visit.template operator()<R>();
        });
    }
    std::uint64_t corruptions() {
        std::uint64_t count = group_->corruptions();
        forEachTableOfIt([&]<class B>() {
            count += log<B>().tableEntryLog()->corruptions() +
                     log<B>().tableConfigShimo(kUnit)->corruptions();
        });
        return count;
    }

    template <class R>
    auto request(std::uint32_t id) {
        const auto handle = R::request(*resource<R>().client, id, 1000 * id);
        loop_.runUntilIdle();
        resource<R>().client->ackUpdate(handle, handle->updateVersion(), nullptr);
        return handle;
    }
    template <class B>
    Asic::LogVersion write(std::uint32_t number, std::uint32_t word) {
        return log<B>().entryIs(logEntryOf<B>(number, word), resourceKeysOf<B>(number), nullptr,
                                kUnit, stats_, false);
    }
    template <class B>
    void remove(std::uint32_t number) {
        log<B>().entryDel(keyOf<B>(number), nullptr, kUnit);
    }

private:
    bool isOfIt(std::string_view table) const { return only_.empty() || only_ == table; }
    void mount() {
        database_ = Brumo::make<Regdb::EntityManager>(kSystem, true);
        tables_ = Brumo::make<Asic::OrderedTableInterface>(database_, "VornPolicyCpu", loop_);
        group_ = tables_->makeGroupIntf("VornPolicyCpuGroup", 0x2C08);
        KivShimo::EntityManager::capacityCeilingIs(kCapacity);
        forEachResourceOfIt([&]<class R>() {
            auto& made = resource<R>();
            made.table = Brumo::make<typename R::Table>(R::kName, database_, group_, loop_, kPool);
            made.client = Brumo::make<typename R::Table::ClientInstance>(made.table);
        });
        forEachTableOfIt([&]<class B>() {
            auto& made = std::get<TableOf<B>>(tablesOf_).log;
            made = entryLogFactory<B>(B::kTableId, database_, group_, "VornPolicyCpu");
            made->mountShimoConfig(kUnit, {});
        });
    }
    void forget() {
        tablesOf_ = {};
        forEachResource([&]<class R>() { resource<R>().client = nullptr; });
        loop_.clear();
        resources_ = {};
        group_ = nullptr;
        tables_ = nullptr;
        database_ = nullptr;
        KivShimo::EntityManager::forget(kSystem);
        KivShimo::EntityManager::capacityCeilingIs(~std::uint64_t{0});
    }

    std::string only_;
    Kiv::ManualEventLoop loop_;
    Brumo::Ptr<Regdb::EntityManager> database_;
    Brumo::Ptr<Asic::OrderedTableInterface> tables_;
    Brumo::Ptr<Asic::GroupInterface> group_;
    std::tuple<ResourceOf<CounterIndexes>, ResourceOf<PolicerIndexes>> resources_;
    std::tuple<TableOf<Actions>, TableOf<V4Entries>, TableOf<V6Entries>> tablesOf_;
    Brumo::Ptr<Asic::SwTableStats> stats_ = Brumo::make<Asic::SwTableStats>();
};

/// Takes every report while it lives: traces of failures, and messages to operators.
class Reports {
public:
    explicit Reports(std::vector<std::string>& reports)
        : filter_(Brumo::traceFilter()),
          traces_(Brumo::traceSinkIs(
              [&reports](const Brumo::TraceRecord& record) { reports.emplace_back(record.text); })),
          messages_(Brumo::logSinkIs([&reports](const Brumo::LogMessage&, std::string_view text) {
              reports.emplace_back(text);
          })) {
        Brumo::traceFilterIs("*/1");
    }
    Reports(const Reports&) = delete;
    Reports& operator=(const Reports&) = delete;
    ~Reports() {
        Brumo::traceFilterIs(filter_);
        Brumo::traceSinkIs(std::move(traces_));
        Brumo::logSinkIs(std::move(messages_));
    }

private:
    std::string filter_;
    Brumo::TraceSink traces_;
    Brumo::LogSink messages_;
};

template <class Value>
std::string textOfValue(const Value& value) {
    return fmt::format("{} {} @{} {}", value.logEntry, value.rsrcKeys, value.version.value,
                       value.inDeletion);
}

template <class Binding>
std::string textOfRecord(const Asic::ResourceRecord<Binding>& record) {
    return fmt::format("{} {} {} {} {} {} {}", record.index, record.requestKey, record.version,
                       record.userTable, static_cast<unsigned>(record.state), record.featureId,
                       record.clientData.toText());
}

/// What something in a table's files is called among the findings.
template <class B, class What>
std::string named(const char* kind, const What& what) {
    return fmt::format("{} {} {}", B::Types::kName, kind, what);
}
template <class R, class What>
std::string namedResource(const What& what) {
    return fmt::format("{} {}", R::kTitle, what);
}

/// Runs a reading; an error that says so is a report.
void tried(Findings& findings, const std::function<void()>& reading) {
    try {
        reading();
    } catch (const KivShimo::CorruptionError& error) {
        Brumo::require(std::string(error.what()).find(": slot ") != std::string::npos,
                       "corruption names its slot", error.what());
        findings.reports.emplace_back(error.what());
    } catch (const KivShimo::MountError& error) {
        findings.reports.emplace_back(error.what());
    } catch (const KivShimo::BusyError& error) {
        findings.isBusy = true;
        findings.reports.emplace_back(error.what());
    }
}

template <class B>
void readConfig(Findings& findings, const std::string& file) {
    using Types = typename B::Types;
    using Value = typename EntryLog<B>::ConfigValue;
    const KivShimo::MapReader<Value> reader(file, Constants<Types>::configShimoType(),
                                            kSwTableEntries);
    for (std::uint32_t number = 1; number <= kSpecimenKeys; ++number) {
        tried(findings, [&] {
            if (const auto value = reader.find(keyOf<B>(number)))
                findings.values[named<B>("value", number)] = textOfValue(*value);
        });
    }
    std::uint64_t steps = 0;
    tried(findings, [&] {
        reader.forEach([&](const Value& value) {
            Brumo::require(++steps <= reader.capacity(), "the walk ends");
            findings.values[named<B>("walked", value.key())] = textOfValue(value);
        });
    });
    tried(findings, [&] {
        reader.visitSlots(
            [&](const Value& value) {
                findings.values[named<B>("visited", value.key())] = textOfValue(value);
            },
            [&](const KivShimo::CorruptionError& error) {
                findings.reports.emplace_back(error.what());
            });
    });
}

template <class B>
void readChangeLog(Findings& findings, const std::string& file) {
    using Types = typename B::Types;
    using Record = typename EntryLog<B>::Record;
    const KivShimo::VersionLogReader<Record> reader(file, Constants<Types>::entryLogShimoType(),
                                                    kEntryLogConfig);
    tried(findings, [&] {
        findings.values[named<B>("is", "published")] = std::to_string(reader.scratchpad());
    });
    for (std::uint64_t version = 1; version <= 2 * kCapacity; ++version) {
        tried(findings, [&] {
            if (const auto record = reader.find(version))
                findings.values[named<B>("record", version)] = record->toText();
        });
    }
    std::uint64_t steps = 0;
    tried(findings, [&] {
        reader.forEach(1, ~std::uint64_t{0}, [&](const Record& record) {
            Brumo::require(++steps <= reader.slots(), "the walk ends");
            findings.values[named<B>("walked", record.version.value)] = record.toText();
        });
    });
}

template <class R>
void readResources(Findings& findings, const std::string& file) {
    using File = Asic::ResourceFile<typename R::Binding>;
    const KivShimo::MapReader<typename File::Record> reader(file, File::typeName(),
                                                            File::kCollection);
    tried(findings, [&] {
        findings.values[namedResource<R>("version")] = std::to_string(reader.scratchpad());
    });
    for (std::uint32_t index = 0; index < kPool; ++index) {
        tried(findings, [&] {
            if (const auto record = reader.find({index}))
                findings.values[namedResource<R>(index)] = textOfRecord(*record);
        });
    }
}

void readAnnouncements(Findings& findings, const std::string& file) {
    const auto reader = KivShimo::AnnounceLogReader::open(file);
    if (!reader)
        return;
    tried(findings, [&] { findings.values["tail"] = std::to_string(reader->tail()); });
    for (std::uint64_t position = 1; position <= kAnnouncements; ++position) {
        tried(findings, [&] {
            if (const auto next = reader->next(position)) {
                findings.values[fmt::format("announcement {}", position)] =
                    fmt::format("{} {} {}", next->tableId, next->version, next->needed.size());
            }
        });
    }
}

void readAcknowledgements(Findings& findings, const std::string& file) {
    const auto reader = KivShimo::AckMapReader::open(file);
    if (!reader)
        return;
    tried(findings, [&] {
        const auto report = [&](const auto& error) { findings.reports.push_back(error.what()); };
        for (const auto& [table, version] : reader->all(report))
            findings.values[fmt::format("acknowledged {}", table)] = std::to_string(version);
    });
    tried(findings, [&] { findings.values["consumed"] = std::to_string(reader->consumed()); });
    tried(findings,
          [&] { findings.values["pause"] = std::to_string(int{reader->pauseRequested()}); });
    tried(findings,
          [&] { findings.values["announce log"] = std::to_string(reader->announceIdentity()); });
}

/// A request of each kind is given up, so that its index returns; the last changes stay unread.
void fill(const std::string& folder) {
    Agent agent(folder);
    forEachResource([&]<class R>() {
        for (const std::uint32_t id : {1U, 2U})
            agent.request<R>(id);
    });
    forEachTable([&]<class B>() {
        for (std::uint32_t number = 1; number <= kSpecimenKeys; ++number)
            agent.write<B>(number, 0x111100 + number);
    });
    {
        HwSide::Tcam tcam;
        KivShimo::AckMapWriter acks(folder, HwSide::Group::acknowledgementsPath());
        HwSide::LogReader(HwSide::Group{folder}, tcam, acks).pump();
        acks.pauseRequestedIs(true);
    }
    forEachTable([&]<class B>() { agent.remove<B>(4); });
    forEachResource(
        [&]<class R>() { agent.resource<R>().client->release(agent.request<R>(3), nullptr); });
    forEachTable([&]<class B>() { agent.write<B>(1, 0x222222); });
}

Image imageOf(const std::string& folder) {
    Image image;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file())
            continue;
        std::ifstream stream(entry.path(), std::ios::binary);
        image[entry.path().lexically_relative(folder).string()] =
            std::string(std::istreambuf_iterator<char>(stream), {});
    }
    return image;
}

void write(const std::string& path, const std::string& content) {
    const KivShimo::detail::Descriptor file(
        open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
    const bool written = ftruncate(file.fd(), static_cast<off_t>(content.size())) == 0 &&
                         pwrite(file.fd(), content.data(), content.size(), 0) ==
                             static_cast<ssize_t>(content.size());
    if (!written)
        throw std::runtime_error("cannot restore " + path);
}

}  // namespace

Specimen::Specimen() : folder_(directory_.path()) {
    fill(folder_);
    image_ = imageOf(folder_);
    std::set<std::string> tables;
    for (const auto& [name, content] : image_)
        tables.insert(tableOf(name));
    for (const auto& [name, content] : image_) {
        for (const std::string& table : tables) {
            const std::string of = tableOf(name);
            if (!table.empty() && !of.empty() && of != table)
                continue;
            parts_[table].folders.insert((fs::path(folder_) / name).parent_path().string());
            parts_[table].files.push_back(name);
        }
    }
}

void Specimen::restore(const std::string& onlyTable) const {
    const Part& part = parts_.at(onlyTable);
    std::vector<fs::path> strangers;
    const auto look = [&](const fs::directory_entry& entry) {
        const auto status = entry.symlink_status();
        const bool isKnown = image_.contains(entry.path().native().substr(folder_.size() + 1));
        if (isKnown ? !fs::is_regular_file(status) : !fs::is_directory(status))
            strangers.push_back(entry.path());
    };
    if (onlyTable.empty()) {
        for (const auto& entry : fs::recursive_directory_iterator(folder_))
            look(entry);
    } else {
        for (const std::string& folder : part.folders) {
            fs::create_directories(folder);
            for (const auto& entry : fs::directory_iterator(folder))
                look(entry);
        }
    }
    for (const fs::path& stranger : strangers)
        fs::remove_all(stranger);
    if (onlyTable.empty()) {
        for (const std::string& folder : part.folders)
            fs::create_directories(folder);
    }
    for (const std::string& name : part.files)
        write(folder_ + "/" + name, image_.at(name));
}

bool Specimen::isWhole() const {
    return imageOf(folder_) == image_;
}

Findings Specimen::asReaders(const std::string& only) const {
    const HwSide::Group group{folder_};
    using Reading = void (*)(Findings&, const std::string&);
    std::vector<std::pair<std::string, Reading>> readings{
        {group.announcementsFile(), readAnnouncements},
        {KivShimo::tableFile(folder_, HwSide::Group::acknowledgementsPath()),
         readAcknowledgements}};
    forEachTable([&]<class B>() {
        readings.emplace_back(group.configFile<typename B::Types>(kUnit), readConfig<B>);
        readings.emplace_back(group.changeLogFile<typename B::Types>(), readChangeLog<B>);
    });
    forEachResource([&]<class R>() {
        const std::string path = fmt::format("resources/{}/{}", R::Binding::kLibrary, R::kName);
        readings.emplace_back(KivShimo::tableFile(folder_, path), readResources<R>);
    });
    Findings findings;
    for (const auto& [file, reading] : readings) {
        if (only.empty() || file == folder_ + "/" + only)
            tried(findings, [&, &read = reading, &of = file] { read(findings, of); });
    }
    return findings;
}

Findings Specimen::asHardware(bool isAcknowledged) const {
    Findings findings;
    const Reports reports(findings.reports);
    const HwSide::Group group{folder_};
    if (!isAcknowledged)
        fs::remove_all(fs::path(folder_) / "hwside");
    tried(findings, [&] {
        HwSide::Tcam tcam;
        KivShimo::AckMapWriter acks(folder_, HwSide::Group::acknowledgementsPath());
        HwSide::LogReader reader(group, tcam, acks);
        reader.pump();
        findings.isBusy = reader.pump() == HwSide::LogReader::Progress::again;
        forEachTable([&]<class B>() {
            using Types = typename B::Types;
            if (findings.isBusy)
                findings.reports.push_back("busy: " + group.configFile<Types>(kUnit));
            for (const auto& [unit, tables] : tcam.units()) {
                for (const auto& [key, held] : tables.template table<Types>().entries()) {
                    findings.values[named<B>("programmed", key)] =
                        fmt::format("{}: {} @{}", unit, held.entry, held.version.value);
                }
            }
        });
    });
    return findings;
}

namespace {

template <class B>
void readWritersTable(Findings& findings, EntryLog<B>& table) {
    const auto config = table.tableConfigShimo(kUnit);
    tried(findings, [&] {
        for (auto value = config->swTableEntriesFromStart(); value.has_value();
             value = config->swTableEntriesAfter(value->key())) {
            findings.values[named<B>("value", value->key())] = textOfValue(*value);
        }
    });
    const auto log = table.tableEntryLog();
    for (auto at = log->entryLogConfigVersionAtOrAfter({1}); at.has_value();
         at = log->entryLogConfigVersionAtOrAfter({at->value + 1})) {
        tried(findings, [&] {
            const auto record = log->entryLogConfig(*at);
            findings.values[named<B>("record", at->value)] = record->toText();
        });
    }
    findings.values[named<B>("is", "at")] = std::to_string(table.tableVersion().value);
}

void readWritersTables(Findings& findings, Agent& agent) {
    agent.forEachTableOfIt([&]<class B>() { readWritersTable(findings, agent.log<B>()); });
    agent.forEachResourceOfIt([&]<class R>() {
        for (const auto& info : agent.resource<R>().table->keys())
            findings.values[namedResource<R>(info.key)] = std::to_string(info.index);
    });
}

/// Goes on working. What has rotted meanwhile may end a cleanup, which reports it.
template <class B>
void useTable(Agent& agent, bool isWhole) {
    using Brumo::require;
    EntryLog<B>& log = agent.log<B>();
    const Asic::LogVersion before = log.tableVersion();
    log.cleanupEntryLog(before);
    require(agent.write<B>(7, 0x333333).value == before.value + 1, "versions go on");
    require(log.entryHas(keyOf<B>(7), kUnit), "what is written is read");
    agent.remove<B>(7);
    log.cleanupEntryLog(log.tableVersion());
    if (!isWhole)
        return;
    require(log.entryLogConfigs() == 0, "no record is left");
    require(log.entrysInDeletion(kUnit) == 0, "deletions are reclaimed");
}

void use(Agent& agent, bool isWhole) {
    agent.forEachTableOfIt([&]<class B>() { useTable<B>(agent, isWhole); });
    agent.forEachResourceOfIt([&]<class R>() {
        agent.request<R>(9);
        if (isWhole)
            agent.resource<R>().table->assertConsistent();
    });
}

}  // namespace

std::string Specimen::tableOf(const std::string& file) {
    std::string found;
    const auto look = [&](std::string_view table) {
        if (file.find(table) != std::string::npos)
            found = table;
    };
    forEachTable([&]<class B>() { look(B::Types::kName); });
    forEachResource([&]<class R>() { look(R::kName); });
    return found;
}

Findings Specimen::asWriter(const std::function<void()>& meanwhile,
                            const std::string& onlyTable) const {
    Findings findings;
    const Reports reports(findings.reports);
    tried(findings, [&] {
        Agent agent(folder_, onlyTable);
        if (meanwhile)
            meanwhile();
        readWritersTables(findings, agent);
        use(agent, !meanwhile);
        if (agent.corruptions() > 0)
            Brumo::require(!findings.reports.empty(), "what is counted is reported");
    });
    if (meanwhile)
        return findings;
    tried(findings, [&] {
        const KivShimo::AckMapWriter acks(folder_, HwSide::Group::acknowledgementsPath());
        if (acks.corruptions() > 0)
            return;  // reported; what is not sure counts as it was before
        for (const auto& [table, version] : acks.all())
            findings.values[fmt::format("acknowledged {}", table)] = std::to_string(version);
        if (!acks.wiped() || acks.consumed() != 0)
            findings.values["consumed"] = std::to_string(acks.consumed());
    });
    return findings;
}

std::string defectOf(const Findings& found, const Findings& whole, const std::string& file) {
    for (const auto& [what, value] : found.values) {
        const auto expected = whole.values.find(what);
        if (expected == whole.values.end())
            return fmt::format("{} was not there: {}", what, value);
        if (expected->second != value)
            return fmt::format("{} is {}, not {}", what, value, expected->second);
    }
    const auto isNamed = [&file](const std::string& report) {
        return report.find(file) != std::string::npos;
    };
    if (std::ranges::any_of(found.reports, isNamed))
        return {};
    for (const auto& [what, value] : whole.values) {
        if (!found.values.contains(what)) {
            return fmt::format("{} is missing, and no report names {} (of {} reports)", what, file,
                               found.reports.size());
        }
    }
    return {};
}

bool isLongRun() {
    const char* const wanted = std::getenv("VORN_TORTURE");
    return wanted != nullptr && std::string(wanted) == "full";
}

}  // namespace Rot
