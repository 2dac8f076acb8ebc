#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "entrylog/EntryLogImpl.h"
#include "tests/entrylog/EntryLogFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class Mounting : public EntryLogFixture<B> {
protected:
    static constexpr const char* kRelaunchPath =
        "hardware/crest/agent/relaunch/config/VornPolicyCpu";

    Brumo::Ptr<Asic::GenId> relaunchIs() {
        auto relaunch = Brumo::make<Asic::GenId>();
        this->agent.stateDatabase()->entityIs(kRelaunchPath, relaunch);
        return relaunch;
    }
    static LogCapture::Line unableToLoad(const std::string& item) {
        return {"HW_ABSTRACTION_ERROR", "Hardware abstraction error: unable to load item: " + item,
                3};
    }
    TraceLine line(int level, const std::string& function, const std::string& text) {
        return {level, this->handle(), this->handle(), function, text};
    }
    /// The lines of the entry log's handle.
    std::vector<TraceLine> own(const TraceCapture& traces) {
        std::vector<TraceLine> lines;
        for (const TraceLine& each : traces.lines()) {
            if (each.handle == this->handle())
                lines.push_back(each);
        }
        return lines;
    }
    /// Mounts a change log and a configuration with something in them, and ends the process.
    void liveOnce() {
        auto log = this->mountedLog();
        this->write(*log, 1);
        log = nullptr;
        this->agent.restart();
    }
};
TYPED_TEST_SUITE(Mounting, AllBindings, TableName);

// The change log.

TYPED_TEST(Mounting, FreshChangeLogYieldsVersionZero) {
    const auto log = this->makeLog();
    ASSERT_NE(log->tableEntryLog(), nullptr);
    EXPECT_EQ(log->tableVersion().value, 0U);
    EXPECT_EQ(log->cleanedUpTo().value, 0U);
    EXPECT_EQ(log->entryLogConfigs(), 0U);
}

TYPED_TEST(Mounting, ConstructionTracesItsStepsInOrder) {
    TraceCapture traces;
    const auto log = this->makeLog();
    const std::string path = TestFixture::Constants::tableEntryLogShimoPath();
    EXPECT_EQ(this->own(traces),
              (std::vector<TraceLine>{
                  this->line(8, "handleInitialized", ""), this->line(8, "mountShimoChangeLog", ""),
                  this->line(2, "mountShimoChangeLog",
                             fmt::format(" Mounted entryLog: {}, tableVersion: 0", path))}));
}

TYPED_TEST(Mounting, RemountedChangeLogYieldsTheLastPublishedVersion) {
    auto log = this->mountedLog();
    this->write(*log, 1);
    this->write(*log, 2, kOtherUnit);
    this->del(*log, 1);
    log = nullptr;
    this->agent.restart();
    TraceCapture traces;
    log = this->makeLog();
    EXPECT_EQ(log->tableVersion().value, 3U);
    EXPECT_TRUE(traces.has(this->handle(), 2,
                           fmt::format(" Mounted entryLog: {}, tableVersion: 3",
                                       TestFixture::Constants::tableEntryLogShimoPath())));
    log->mountShimoConfig(kUnit, {});
    EXPECT_EQ(this->write(*log, 5).value, 4U) << "goes on where it ended";
}

TYPED_TEST(Mounting, KeepsWhatItWasMadeOf) {
    const auto log = this->makeLog();
    EXPECT_EQ(log->tableId(), TypeParam::kTableId);
    EXPECT_EQ(log->entityManager(), this->agent.stateDatabase());
    EXPECT_EQ(log->groupInterface(), this->agent.group());
    EXPECT_EQ(log->agentName(), "VornPolicyCpu");
    EXPECT_EQ(log->typeData().name, "VornPolicyCpu::" + this->handle());
}

TYPED_TEST(Mounting, DeclaresTheCapacitiesOfBothTables) {
    KivShimo::EntityManager::capacityCeilingIs(~std::uint64_t{0});
    const auto log = this->makeLog();
    log->mountShimoConfig(kUnit, {});
    EXPECT_EQ(this->logReader().capacity(), 1000000U);
    EXPECT_EQ(this->configReader().capacity(), 65536U);
}

// A unit's configuration.

TYPED_TEST(Mounting, ConfigurationTracesItsStepsInOrder) {
    const auto log = this->makeLog();
    TraceCapture traces;
    log->mountShimoConfig(kUnit, {7});
    const std::string path = TestFixture::Constants::configShimoPath(kUnit);
    EXPECT_EQ(this->own(traces),
              (std::vector<TraceLine>{
                  this->line(8, "mountShimoConfig", " unitId:1, logVersion: 7"),
                  this->line(2, "mountShimoConfig",
                             fmt::format(" Mounted config for unitId: 1 at {}", path))}));
    EXPECT_EQ(log->tableConfigShimo(kUnit)->path(), path);
}

TYPED_TEST(Mounting, ConfigurationAtVersionZeroKeepsAllValuesInDeletion) {
    auto log = this->mountedLog();
    this->store(*log, 1, 5, true);
    this->store(*log, 2, 9, true);
    this->store(*log, 3, 3, false);
    log = nullptr;
    this->agent.restart();
    log = this->makeLog();
    log->mountShimoConfig(kUnit, {});
    EXPECT_EQ(log->entrysInDeletion(kUnit), 2U);
    EXPECT_EQ(log->entrys(kUnit), 1U);
}

TYPED_TEST(Mounting, ConfigurationDropsWhatWasDeletedSinceItsFileWasMounted) {
    const auto log = this->mountedLog();
    this->store(*log, 1, 5, true);
    log->mountShimoConfig(kUnit, {7});
    EXPECT_FALSE(log->configEntry(this->key(1), kUnit).has_value());
}

TYPED_TEST(Mounting, ConfigurationAtAVersionDropsWhatWasDeletedUpToIt) {
    auto log = this->mountedLog();
    this->store(*log, 1, 5, true);
    this->store(*log, 2, 7, true);
    this->store(*log, 3, 8, true);
    this->store(*log, 4, 3, false);
    log = nullptr;
    this->agent.restart();
    log = this->makeLog();
    log->mountShimoConfig(kUnit, {7});
    EXPECT_FALSE(log->configEntry(this->key(1), kUnit).has_value());
    EXPECT_FALSE(log->configEntry(this->key(2), kUnit).has_value());
    EXPECT_EQ(log->entryLogVersion(this->key(3), kUnit).value, 8U);
    EXPECT_TRUE(log->entryHas(this->key(4), kUnit));
    EXPECT_EQ(this->configReader().count(), 2U);
}

TYPED_TEST(Mounting, ReclaimingReportsACorruptValueAndGoesOnBehindIt) {
    auto log = this->mountedLog();
    for (std::uint32_t number = 1; number <= 3; ++number)
        this->store(*log, number, number, true);
    const auto keys = this->keysInOrder();
    this->spoilValue(keys[1]);
    const auto config = log->tableConfigShimo(kUnit);
    log->mountShimoConfig(kUnit, {9});
    EXPECT_EQ(config->corruptions(), 1U);
    EXPECT_EQ(config->swTableEntriesCount(), 1U);
    EXPECT_FALSE(log->configEntry(keys[2], kUnit).has_value());
}

TYPED_TEST(Mounting, UnitTwiceReplacesTheUnitsTable) {
    const auto log = this->mountedLog();
    log->tableConfigShimoIs(kUnit, log->tableConfigShimo(kOtherUnit));
    log->mountShimoConfig(kUnit, {});
    EXPECT_EQ(log->tableConfigShimo(kUnit)->path(), TestFixture::Constants::configShimoPath(kUnit));
    this->write(*log, 1);
    log->mountShimoConfig(kUnit, {});
    EXPECT_TRUE(log->entryHas(this->key(1), kUnit));
}

TYPED_TEST(Mounting, UnitsTablesCanBeSetFoundAndTakenOff) {
    const auto log = this->mountedLog();
    std::size_t published = 0;
    const auto subscription = log->publisher().subscribe([&](const Kiv::Change& change) {
        published += change.attribute == TestFixture::Log::kTableConfigShimo ? 1 : 0;
    });
    const auto config = log->tableConfigShimo(kUnit);
    log->tableConfigShimoIs({3}, config);
    EXPECT_EQ(log->tableConfigShimo({3}), config);
    log->tableConfigShimoDel({3});
    EXPECT_EQ(log->tableConfigShimo({3}), nullptr);
    EXPECT_FALSE(log->tableConfigShimoHas({3}));
    log->tableConfigShimoDel({3});
    EXPECT_EQ(published, 2U) << "taking off what is not there is no change";
    log->tableConfigShimoDelAll();
    EXPECT_EQ(published, 4U);
    EXPECT_FALSE(log->tableConfigShimoHas(kUnit));
    EXPECT_FALSE(log->tableConfigShimoHas(kOtherUnit));
}

// Lost and new.

TYPED_TEST(Mounting, FirstStartRaisesNothing) {
    const auto relaunch = this->relaunchIs();
    LogCapture messages;
    const auto log = this->mountedLog();
    EXPECT_TRUE(messages.lines().empty());
    EXPECT_EQ(relaunch->majorId(), 0U);
}

TYPED_TEST(Mounting, RemountRaisesNothing) {
    this->liveOnce();
    const auto relaunch = this->relaunchIs();
    LogCapture messages;
    const auto log = this->mountedLog();
    EXPECT_TRUE(messages.lines().empty());
    EXPECT_EQ(relaunch->majorId(), 0U);
}

TYPED_TEST(Mounting, LostChangeLogIsReportedOnceAndAsksForARelaunch) {
    this->liveOnce();
    const auto relaunch = this->relaunchIs();
    this->lose(this->logFile());
    LogCapture messages;
    auto log = this->makeLog();
    EXPECT_EQ(messages.lines(),
              (std::vector<LogCapture::Line>{this->unableToLoad("entryLog::" + this->name())}));
    EXPECT_EQ(relaunch->majorId(), 1U);
    EXPECT_FALSE(log->tableEntryLog()->collectionControl().wiped());

    log = nullptr;
    this->agent.restart();
    const auto again = this->relaunchIs();
    log = this->makeLog();
    EXPECT_EQ(messages.lines().size(), 1U);
    EXPECT_EQ(again->majorId(), 0U);
}

TYPED_TEST(Mounting, AcknowledgementBeyondAWholeLogMovesNoVersion) {
    this->liveOnce();
    const std::uint64_t last = this->announcements().back().version;
    this->agent.hardware().ackIs(TypeParam::kTableId.whole(), last + 1000);
    this->agent.restart();
    const auto log = this->mountedLog();
    EXPECT_EQ(log->tableVersion().value, last);
    EXPECT_EQ(this->agent.group()->announcedVersion(TypeParam::kTableId).value, last);
    EXPECT_FALSE(this->agent.group()->tableVersionInMap(TypeParam::kTableId).has_value());
}

TYPED_TEST(Mounting, AnnouncesTheLastOfTheChangesWhoseRecordsWereGivenUpUnannounced) {
    constexpr std::uint64_t kSlots = TestSupport::InProcessAgent::Options().capacityCeiling;
    auto log = this->mountedLog();
    for (std::uint32_t i = 0; i < 2 * kSlots + 2; ++i)
        this->write(*log, i % 8);
    ASSERT_EQ(this->announcements().back().version, kSlots) << "no room for more";
    ASSERT_EQ(this->versionsInLog().front(), kSlots + 3);
    auto& hardware = this->agent.hardware();
    const auto announcements = KivShimo::AnnounceLogReader::open(this->announceFile());
    hardware.announceIdentityIs(announcements->identity());
    hardware.ackIs(TypeParam::kTableId.whole(), kSlots);
    hardware.consumedIs(kSlots);
    log = nullptr;
    this->agent.restart();
    log = this->makeLog();
    EXPECT_EQ(announcements->next(kSlots + 1)->version, kSlots + 2)
        << "its record is gone, so the hardware side looks at the values";
    EXPECT_EQ(announcements->next(kSlots + 2)->version, kSlots + 3);
}

TYPED_TEST(Mounting, VersionsGoOnAboveThoseAnnouncedWhenTheChangeLogIsLost) {
    this->liveOnce();
    const auto announced = this->announcements().back().version;
    ASSERT_GT(announced, 0U);
    this->lose(this->logFile());
    const auto log = this->mountedLog();
    EXPECT_EQ(log->tableVersion().value, announced);
    EXPECT_EQ(log->tableEntryLog()->collectionControl().scratchpad(), announced);
    EXPECT_EQ(this->write(*log, 9).value, announced + 1);
}

TYPED_TEST(Mounting, VersionsGoOnAboveThoseOfValuesWhenLogAndAnnouncementsAreLost) {
    auto log = this->mountedLog();
    this->write(*log, 1);
    this->write(*log, 2, kOtherUnit);
    this->write(*log, 3);
    log = nullptr;
    this->agent.stop();
    this->lose(this->logFile());
    this->lose(this->announceFile());
    this->agent.start();
    log = this->mountedLog();
    EXPECT_EQ(log->tableVersion().value, 3U);
    EXPECT_EQ(log->tableEntryLog()->collectionControl().scratchpad(), 3U);
    ASSERT_EQ(this->announcements().size(), 1U) << "so that the hardware side looks at the values";
    EXPECT_EQ(this->announcements().back().version, 3U);
    EXPECT_EQ(this->write(*log, 4).value, 4U);
}

TYPED_TEST(Mounting, LostConfigurationIsReportedOnceAndAsksForARelaunch) {
    this->liveOnce();
    const auto relaunch = this->relaunchIs();
    this->lose(this->configFile(kUnit));
    LogCapture messages;
    const auto log = this->mountedLog();
    EXPECT_EQ(messages.lines(),
              (std::vector<LogCapture::Line>{this->unableToLoad("entryCfg::" + this->name())}));
    EXPECT_EQ(relaunch->majorId(), 1U);
    EXPECT_FALSE(log->tableConfigShimo(kUnit)->collectionControl().wiped());
    log->mountShimoConfig(kUnit, {});
    EXPECT_EQ(messages.lines().size(), 1U);
    EXPECT_EQ(log->entrys(kUnit), 0U);
}

TYPED_TEST(Mounting, LossIsReportedAlsoWhereNobodyWatchesTheRelaunch) {
    this->liveOnce();
    this->lose(this->logFile());
    const auto other = Brumo::make<Kiv::Entity>();
    this->agent.stateDatabase()->entityIs(TestFixture::kRelaunchPath, other);
    LogCapture messages;
    const auto log = this->makeLog();
    EXPECT_EQ(messages.lines().size(), 1U);
    EXPECT_FALSE(log->tableEntryLog()->collectionControl().wiped());
}

TYPED_TEST(Mounting, DamagedFileCountsAsLost) {
    this->liveOnce();
    std::filesystem::resize_file(this->logFile(), 100);
    LogCapture messages;
    const auto log = this->makeLog();
    EXPECT_EQ(messages.lines(),
              (std::vector<LogCapture::Line>{this->unableToLoad("entryLog::" + this->name())}));
}

// Where the tables lie.

TYPED_TEST(Mounting, EnvironmentCanChooseTheNonLocalTables) {
    TempDir shared;
    KivShimo::EntityManager::rootIs(this->agent.systemName(), false, shared.path());
    const auto group = this->agent.group();
    const NotLocal notLocal("");
    const auto log = this->mountedLog();
    EXPECT_TRUE(log->tableEntryLog()->file().starts_with(shared.path()));
    EXPECT_TRUE(log->tableConfigShimo(kUnit)->file().starts_with(shared.path()));
    EXPECT_FALSE(std::filesystem::exists(this->logFile()));
}

TYPED_TEST(Mounting, TablesAreLocalWhenTheStateDatabaseIs) {
    const auto log = this->mountedLog();
    EXPECT_EQ(log->tableEntryLog()->file(), this->logFile());
    EXPECT_EQ(log->tableConfigShimo(kUnit)->file(), this->configFile(kUnit));
}

// The routine by itself.

class MountRoutine : public EntryLogFixture<PolicyCpuTcamActionBinding> {
protected:
    template <class T>
    Brumo::Ptr<T> mount(const std::function<void()>& wipedFn) {
        return checkAndwriteMountShimo<T>(
            agent.stateDatabase(), "VornPolicyCpu::PolicyCpuTcamActionConfigShimo",
            Constants::configShimoPath(kUnit), "VornPolicyCpu",
            [](KivShimo::MountInfo& info) {
                info.collectionIs({"swTableEntries", 16, 0});
            },
            [](const Brumo::Ptr<T>& table) -> KivShimo::CollectionControl& {
                return table->collectionControl();
            },
            wipedFn);
    }
};

TEST_F(MountRoutine, GivesTheTableAtThePath) {
    EXPECT_NE(mount<PolicyCpuTcamActionConfigShimo>({}), nullptr);
}

TEST_F(MountRoutine, GivesNullWhenTheTableIsOfAnotherClass) {
    EXPECT_EQ(mount<PolicyCpuV4TcamEntryConfigShimo>({}), nullptr);
}

TEST_F(MountRoutine, FailsOnALostTableWithNobodyToTell) {
    ASSERT_NE(mount<PolicyCpuTcamActionConfigShimo>({}), nullptr);
    agent.restart();
    lose(configFile(kUnit));
    EXPECT_THROW(mount<PolicyCpuTcamActionConfigShimo>({}), std::bad_function_call);
}

// Tables that turn out to be of another class.

/// A table whose shared-memory types are registered with the classes of another.
struct StrangeTypes : PolicyCpuV4TcamEntryTypes {
    static constexpr std::string_view kName = "StrangeTable";
    static constexpr Asic::SwTableId kTableId{0x2C08040F};
};
struct StrangeBinding : TableBinding<StrangeBinding, StrangeTypes> {};

class StrangeTable : public EntryLogFixture<StrangeBinding> {
protected:
    KivShimo::TableTypeRegistration config{
        Constants::configShimoType(),
        KivShimo::tableTypeOf<ConfigShimo<PolicyCpuV4TcamEntryTypes>>()};
};

TEST_F(StrangeTable, CannotBeMountedWhileItsTypeIsUnknown) {
    EXPECT_THROW(makeLog(), KivShimo::MountError);
}

TEST_F(StrangeTable, WithoutAChangeLogHasNone) {
    const KivShimo::TableTypeRegistration entryLog(
        Constants::entryLogShimoType(),
        KivShimo::tableTypeOf<EntryLogShimo<PolicyCpuV4TcamEntryTypes>>());
    const auto log = makeLog();
    EXPECT_EQ(log->tableEntryLog(), nullptr);
    EXPECT_EQ(log->entryLogConfigs(), 0U);
}

TEST_F(StrangeTable, DiesWhenItsConfigurationIsOfAnotherClass) {
    const KivShimo::TableTypeRegistration entryLog(
        Constants::entryLogShimoType(), KivShimo::tableTypeOf<EntryLogShimo<StrangeTypes>>());
    const auto log = makeLog();
    EXPECT_DEATH(log->mountShimoConfig(kUnit, {}),
                 ::testing::HasSubstr("assertion failed: cfgShimo"));
}

// Messages.

TEST(LogMessages, AreDefinedAsOperatorsKnowThem) {
    const auto expect = [](const Brumo::LogHandle& handle, std::string_view identifier,
                           std::string_view format, std::string_view explanation) {
        EXPECT_EQ(handle.message().identifier, identifier);
        EXPECT_EQ(handle.message().format, format);
        EXPECT_EQ(handle.message().explanation, explanation);
        EXPECT_EQ(handle.message().recommendedAction, "\x01");
        EXPECT_EQ(handle.message().severity, 3);
    };
    expect(LogMessages::exception, "HW_ABSTRACTION_EXCEPTION", "%s", "Exception");
    expect(LogMessages::relaunchError, "HW_ABSTRACTION_RELAUNCH_ERROR", "%s",
           "Duplicate Writer Detected, shimo path not cleaned up");
    expect(LogMessages::error, "HW_ABSTRACTION_ERROR",
           "Hardware abstraction error: unable to load item: %s",
           "Hardware abstraction error: unable to load some persistent items. Some agents will be "
           "restarted");
}

// Factories.

class Factories : public ::testing::Test {
protected:
    template <class Factory>
    void expectMakes(Factory factory, std::uint32_t tableId, const std::string& type) {
        const auto log = factory(Asic::SwTableId{tableId}, agent.stateDatabase(), agent.group(),
                                 "VornPolicyCpu");
        ASSERT_NE(log, nullptr);
        EXPECT_EQ(log->typeData().name, type);
        EXPECT_EQ(log->tableId().whole(), tableId);
    }

    InProcessAgent agent;
};

TEST_F(Factories, MakeTheActionTablesEntryLog) {
    const std::string type = "VornPolicyCpu::PolicyCpuTcamActionEntryLog";
    expectMakes(policyCpuTcamActionEntryLogFactory, 0x2C080403, type);
    expectMakes(PolicyCpuTcamActionEntryLogIs, 0x2C080403, type);
}

TEST_F(Factories, MakeTheIpv4TablesEntryLog) {
    const std::string type = "VornPolicyCpu::PolicyCpuV4TcamEntryEntryLog";
    expectMakes(policyCpuV4TcamEntryEntryLogFactory, 0x2C080404, type);
    expectMakes(PolicyCpuV4TcamEntryEntryLogIs, 0x2C080404, type);
}

TEST_F(Factories, MakeTheIpv6TablesEntryLog) {
    const std::string type = "VornPolicyCpu::PolicyCpuV6TcamEntryEntryLog";
    expectMakes(policyCpuV6TcamEntryEntryLogFactory, 0x2C080405, type);
    expectMakes(PolicyCpuV6TcamEntryEntryLogIs, 0x2C080405, type);
}

}  // namespace
