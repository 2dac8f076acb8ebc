// A table's entry log over real files, without its table.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "entrylog/EntryLog.h"
#include "entrylog/PolicyCpuTcamActionEntryLog.h"
#include "entrylog/PolicyCpuV4TcamEntryEntryLog.h"
#include "entrylog/PolicyCpuV6TcamEntryEntryLog.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "tests/entrylog/Bindings.h"
#include "tests/support/InProcessAgent.h"
#include "tests/support/TraceCapture.h"

namespace TestSupport {

constexpr Asic::UnitId kUnit{1};
constexpr Asic::UnitId kOtherUnit{2};

template <class B>
class EntryLogFixture : public ::testing::Test {
protected:
    using Log = VornPolicyCpu::EntryLog<B>;
    using LogPtr = Brumo::Ptr<Log>;
    using Types = typename B::Types;
    using Constants = VornPolicyCpu::Constants<Types>;
    using Value = typename Log::ConfigValue;
    using Record = typename Log::Record;

    EntryLogFixture() { withoutCoreFiles(); }

    static std::string name() { return std::string(Types::kName); }
    /// The entry log's class and trace handle.
    static std::string handle() { return name() + "EntryLog"; }

    LogPtr makeLog() {
        return VornPolicyCpu::entryLogFactory<B>(B::kTableId, agent.stateDatabase(), agent.group(),
                                                 "VornPolicyCpu");
    }
    /// The log with both units mounted.
    LogPtr mountedLog() {
        LogPtr log = makeLog();
        log->mountShimoConfig(kUnit, {});
        log->mountShimoConfig(kOtherUnit, {});
        return log;
    }

    std::string logFile() {
        return KivShimo::tableFile(agent.root(), Constants::tableEntryLogShimoPath());
    }
    std::string configFile(Asic::UnitId unit) {
        return KivShimo::tableFile(agent.root(), Constants::configShimoPath(unit));
    }
    std::string announceFile() {
        return KivShimo::tableFile(
            agent.root(), Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName()));
    }

    // As the hardware side sees it.

    KivShimo::VersionLogReader<Record> logReader() {
        return {logFile(), Constants::entryLogShimoType(), VornPolicyCpu::kEntryLogConfig};
    }
    KivShimo::MapReader<Value> configReader(Asic::UnitId unit = kUnit) {
        return {configFile(unit), Constants::configShimoType(), VornPolicyCpu::kSwTableEntries};
    }
    /// The versions of the log's records, in increasing order.
    std::vector<std::uint64_t> versionsInLog() {
        std::vector<std::uint64_t> versions;
        const auto reader = logReader();
        reader.forEach(1, ~std::uint64_t{0} >> 1U,
                       [&](const Record& record) { versions.push_back(record.version.value); });
        return versions;
    }
    std::vector<KivShimo::Announcement> announcements() {
        std::vector<KivShimo::Announcement> all;
        const auto log = KivShimo::AnnounceLogReader::open(announceFile());
        std::uint64_t position = 0;
        while (const auto next = log->next(position + 1)) {
            all.push_back(*next);
            position = next->position;
        }
        return all;
    }

    // Short forms.

    Asic::LogVersion write(Log& log, std::uint32_t number, Asic::UnitId unit = kUnit,
                           bool suppress = false) {
        return log.entryIs(logEntryOf<B>(number), resourceKeysOf<B>(number), nullptr, unit, stats,
                           suppress);
    }
    Asic::LogVersion del(Log& log, std::uint32_t number, Asic::UnitId unit = kUnit) {
        return log.entryDel(keyOf<B>(number), nullptr, unit);
    }
    static typename B::Key key(std::uint32_t number) { return keyOf<B>(number); }
    /// Stores a value as it might have been left behind.
    static void store(Log& log, std::uint32_t number, std::uint64_t version, bool inDeletion,
                      Asic::UnitId unit = kUnit) {
        log.tableConfigShimo(unit)->swTableEntriesIs({keyOf<B>(number), logEntryOf<B>(number),
                                                      resourceKeysOf<B>(number),
                                                      Asic::LogVersion{version}, inDeletion});
    }
    /// The keys of a unit in the order of a walk.
    std::vector<typename B::Key> keysInOrder(Asic::UnitId unit = kUnit) {
        std::vector<typename B::Key> keys;
        const auto reader = configReader(unit);
        reader.forEach([&](const Value& value) { keys.push_back(value.key()); });
        return keys;
    }

    // Damage.

    /// Flips a bit of the bytes of `pattern` where the file holds them behind its headers.
    template <class Pattern>
    static void spoil(const std::string& file, const Pattern& pattern) {
        std::ifstream stream(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(stream)),
                                std::istreambuf_iterator<char>());
        const std::string wanted(reinterpret_cast<const char*>(&pattern), sizeof(pattern));
        const auto at = bytes.find(wanted, KivShimo::detail::kAreasOffset);
        ASSERT_NE(at, std::string::npos);
        const char spoilt = static_cast<char>(bytes[at] ^ 1);
        const KivShimo::detail::Descriptor descriptor(open(file.c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(pwrite(descriptor.fd(), &spoilt, 1, static_cast<off_t>(at)), 1);
    }
    void spoilValue(const typename B::Key& key, Asic::UnitId unit = kUnit) {
        spoil(configFile(unit), *configReader(unit).find(key));
    }
    void spoilRecord(std::uint64_t version) { spoil(logFile(), *logReader().find(version)); }
    /// The file is lost, and what says that it existed is not.
    static void lose(const std::string& file) {
        ASSERT_TRUE(std::filesystem::remove(file));
        ASSERT_TRUE(std::filesystem::exists(file + std::string(KivShimo::kManifestSuffix)));
    }

    InProcessAgent agent;
    Brumo::Ptr<Asic::SwTableStats> stats = Brumo::make<Asic::SwTableStats>();
};

}  // namespace TestSupport
