#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "platform/asic/Constants.h"
#include "platform/asic/GroupInterface.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "platform/kivshimo/EntityManager.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/detail/AnnounceSlot.h"
#include "platform/kivshimo/detail/FileHeader.h"
#include "tests/platform/asic/Fakes.h"
#include "tests/support/InProcessAgent.h"
#include "tests/support/TraceCapture.h"

namespace AsicTests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::TraceCapture;

constexpr Asic::SwTableId kOther{0x2C080404};
constexpr std::uint64_t kSlots = 16;
constexpr const char* kGroup = "TestAgent.TestGroup";

Brumo::Ptr<Asic::NeededEntry> needing(std::vector<Asic::TableVersion> versions) {
    auto needed = Brumo::make<Asic::NeededEntry>();
    for (const auto& version : versions)
        needed->add(version);
    return needed;
}

class GroupInterfaceTest : public testing::Test {
protected:
    GroupInterfaceTest() : system_("asic-test-" + std::to_string(getpid())) { start(); }
    ~GroupInterfaceTest() override { stop(); }
    GroupInterfaceTest(const GroupInterfaceTest&) = delete;
    GroupInterfaceTest& operator=(const GroupInterfaceTest&) = delete;

    void start() {
        KivShimo::EntityManager::capacityCeilingIs(kSlots);
        KivShimo::EntityManager::rootIs(system_, true, dir_.path());
        database_ = Brumo::make<Regdb::EntityManager>(system_, true);
        group_ = Brumo::make<Asic::GroupInterface>(kGroup, std::uint16_t{0x2C08}, database_, loop_);
    }
    void stop() {
        group_ = nullptr;
        database_ = nullptr;
        KivShimo::EntityManager::forget(system_);
    }
    void restart() {
        stop();
        start();
    }

    /// What the hardware side reads, from where it has come.
    std::vector<KivShimo::Announcement> read() {
        auto log = KivShimo::AnnounceLogReader::open(
            KivShimo::tableFile(dir_.path(), announcementsPath()));
        std::vector<KivShimo::Announcement> announcements;
        while (const auto announcement = log->next(position_ + 1)) {
            position_ = announcement->position;
            announcements.push_back(*announcement);
        }
        identity_ = log->identity();
        return announcements;
    }
    std::vector<std::uint64_t> readVersions() {
        std::vector<std::uint64_t> versions;
        for (const auto& announcement : read())
            versions.push_back(announcement.version);
        return versions;
    }
    void consume() {
        hardware().announceIdentityIs(identity_);
        hardware().consumedIs(position_);
        group_->acknowledgementsArrived();
    }
    KivShimo::AckMapWriter& hardware() {
        if (!hardware_.has_value())
            hardware_.emplace(dir_.path(), Asic::Constants::acknowledgementsPath(kGroup));
        return *hardware_;
    }
    void acknowledge(Asic::SwTableId table, std::uint64_t version) {
        ASSERT_TRUE(hardware().ackIs(table.whole(), version));
        group_->acknowledgementsArrived();
    }
    std::uint64_t acknowledged(Asic::SwTableId table = kTable) const {
        return group_->acknowledgedVersion(table).value;
    }
    static void rot(const std::string& path, std::initializer_list<std::size_t> places) {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        for (const std::size_t place : places) {
            const auto at = static_cast<std::streamoff>(place);
            const int before = file.seekg(at).get();  // a byte of something random, often
            file.seekp(at).put(static_cast<char>(before ^ 0x55));
        }
        ASSERT_TRUE(file.good());
    }
    void rotAcknowledgement() { rot(hardware().file(), {KivShimo::detail::kAreasOffset}); }
    /// Which log it was that the hardware side has acknowledged.
    void rotNotedLog() {
        constexpr std::size_t kNoted =
            KivShimo::detail::kDynamicOffset + offsetof(KivShimo::detail::DynamicHeader, tail);
        rot(hardware().file(), {kNoted, kNoted + 24});
    }
    static std::string announcementsPath() { return Asic::Constants::announcementsPath(kGroup); }
    void rotAnnouncement(std::uint64_t position) {
        rot(KivShimo::tableFile(dir_.path(), announcementsPath()),
            {KivShimo::detail::kAreasOffset + position * sizeof(KivShimo::detail::AnnounceSlot)});
    }
    /// A family of one table that the group tells of acknowledgements.
    Brumo::Ptr<FakeTable> familyWithTable() {
        set_ = Brumo::make<Asic::OrderedSwTableSet>(kTable, nullptr);
        auto table = Brumo::make<FakeTable>(nullptr, kTable, std::uint16_t{1}, set_.get());
        set_->swTableIs(table);
        group_->swTableSetIs(set_);
        return table;
    }

    TestSupport::TempDir dir_;
    std::string system_;
    Kiv::ManualEventLoop loop_;
    Brumo::Ptr<Regdb::EntityManager> database_;
    Brumo::Ptr<Asic::GroupInterface> group_;
    Brumo::Ptr<Asic::OrderedSwTableSet> set_;
    std::optional<KivShimo::AckMapWriter> hardware_;
    std::uint64_t position_ = 0;
    std::uint64_t identity_ = 0;
};

TEST_F(GroupInterfaceTest, AnnouncesChangesInTheirOrderWithWhatTheyNeed) {
    group_->addLogEntry(kTable, {1}, nullptr);
    group_->addLogEntry(kOther, {1}, needing({{kTable, {1}}}));
    group_->addLogEntry(kTable, {2}, needing({{kOther, {1}}, {kTable, {1}}}));
    const auto announcements = read();
    ASSERT_EQ(announcements.size(), 3U);
    EXPECT_EQ(announcements[0].tableId, kTable.whole());
    EXPECT_THAT(announcements[0].needed, IsEmpty());
    EXPECT_EQ(announcements[1].tableId, kOther.whole());
    EXPECT_THAT(announcements[1].needed, ElementsAre(KivShimo::NeededVersion{kTable.whole(), 1}));
    EXPECT_EQ(announcements[2].version, 2U);
    EXPECT_THAT(announcements[2].needed, ElementsAre(KivShimo::NeededVersion{kOther.whole(), 1},
                                                     KivShimo::NeededVersion{kTable.whole(), 1}));
}

TEST_F(GroupInterfaceTest, AnnouncesMoreNeededVersionsThanASlotHolds) {
    const auto needed = Brumo::make<Asic::NeededEntry>();
    for (std::uint16_t table = 1; table <= 10; ++table)
        needed->add({Asic::SwTableId(1, 1, table), {table}});
    group_->addLogEntry(kTable, {1}, needed);
    group_->addLogEntry(kTable, {2}, nullptr);
    const auto announcements = read();
    ASSERT_EQ(announcements.size(), 2U);
    ASSERT_EQ(announcements[0].needed.size(), 10U);
    EXPECT_EQ(announcements[0].needed[9].version, 10U);
    EXPECT_EQ(announcements[1].version, 2U);
}

TEST_F(GroupInterfaceTest, KeepsInMemoryAndInOrderWhatAFullLogDoesNotTake) {
    TraceCapture traces;
    for (std::uint64_t version = 1; version <= kSlots + 4; ++version)
        group_->addLogEntry(kTable, {version}, nullptr);
    EXPECT_EQ(group_->announcementsWaiting(), 4U);
    EXPECT_EQ(traces.count("GroupInterface", 1,
                           std::string(" announcement log of ") + kGroup + " is full"),
              1U);
    EXPECT_FALSE(group_->hasRoom());
    EXPECT_EQ(group_->announcedVersion(kTable).value, kSlots + 4);
    EXPECT_EQ(readVersions().size(), kSlots);
    consume();
    EXPECT_EQ(group_->announcementsWaiting(), 0U);
    EXPECT_TRUE(group_->hasRoom());
    EXPECT_THAT(readVersions(), ElementsAre(17, 18, 19, 20));
}

TEST_F(GroupInterfaceTest, LeavesAReserveToChangesThatCannotWait) {
    for (std::uint64_t version = 1; version < kSlots - 2; ++version)
        group_->addLogEntry(kTable, {version}, nullptr);
    EXPECT_TRUE(group_->hasRoom());
    group_->addLogEntry(kTable, {kSlots - 2}, nullptr);
    EXPECT_FALSE(group_->hasRoom());
    EXPECT_EQ(group_->announcementsWaiting(), 0U);
}

TEST_F(GroupInterfaceTest, HoldsTheResolverWhileTheLogIsFullAndLetsItGoOn) {
    Journal journal;
    const auto table = Brumo::make<FakeTable>(group_->groupResolver());
    for (std::uint64_t version = 1; version <= kSlots; ++version)
        group_->addLogEntry(kTable, {version}, nullptr);
    group_->groupResolver()->resolverQueueEnq(
        Brumo::make<FakeChange>(journal, table.get(), 1U, "change"));
    loop_.runUntilIdle();
    EXPECT_THAT(journal.committed, IsEmpty());
    read();
    consume();
    loop_.runUntilIdle();
    EXPECT_THAT(journal.committed, ElementsAre("change"));
}

TEST_F(GroupInterfaceTest, TellsTablesAndObserversOfAnAcknowledgement) {
    const auto table = familyWithTable();
    int published = 0;
    const auto subscription = group_->publisher().subscribe([&](const Kiv::Change& change) {
        published += change.attribute == Asic::GroupInterface::kAcknowledged ? 1 : 0;
    });
    group_->addLogEntry(kTable, {5}, nullptr);
    acknowledge(kTable, 3);
    EXPECT_EQ(acknowledged(), 3U);
    EXPECT_THAT(table->told, ElementsAre(3));
    EXPECT_EQ(published, 1);
    group_->acknowledgementsArrived();
    EXPECT_THAT(table->told, ElementsAre(3)) << "nothing has moved";
    EXPECT_EQ(published, 1);
    set_->swTableDel({1});
}

TEST_F(GroupInterfaceTest, LetsAnAcknowledgedTableEndItself) {
    auto table = familyWithTable();
    FakeTable* observed = table.get();
    observed->onTold = [&] { set_->swTableDel({1}); };
    table = nullptr;
    group_->addLogEntry(kTable, {1}, nullptr);
    acknowledge(kTable, 1);
    EXPECT_TRUE(set_->swTables().empty());
    EXPECT_EQ(acknowledged(), 1U);
}

TEST_F(GroupInterfaceTest, TellsEachTableThatWasThereWhenTheAcknowledgementCame) {
    const auto first = familyWithTable();
    const auto unit = [&](std::uint16_t number) {
        return Brumo::make<FakeTable>(nullptr, kTable, number, set_.get());
    };
    const auto removed = unit(2);
    const auto added = unit(3);
    set_->swTableIs(removed);
    first->onTold = [&] {
        set_->swTableDel({2});
        set_->swTableIs(added);
    };
    group_->addLogEntry(kTable, {1}, nullptr);
    acknowledge(kTable, 1);
    EXPECT_THAT(removed->told, ElementsAre(1)) << "its changes are done";
    EXPECT_THAT(added->told, IsEmpty()) << "it has made none";
}

TEST_F(GroupInterfaceTest, LivesUntilAnAcknowledgementIsTakenUpThatEndsIt) {
    const auto table = familyWithTable();
    table->onTold = [&] { group_ = nullptr; };
    group_->addLogEntry(kTable, {1}, nullptr);
    acknowledge(kTable, 1);
    EXPECT_EQ(group_, nullptr);
    EXPECT_THAT(table->told, ElementsAre(1));
}

TEST_F(GroupInterfaceTest, TakesUpAMapThatHasReplacedOneThatMovedBeforeItSleeps) {
    group_->addLogEntry(kTable, {2}, nullptr);
    acknowledge(kTable, 1);
    ASSERT_TRUE(hardware().ackIs(kTable.whole(), 2));
    const std::string file = hardware().file();
    hardware_.reset();
    std::filesystem::remove(file);
    hardware().pauseRequestedIs(true);
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 2U) << "what the old map said last";
    EXPECT_FALSE(group_->sleepPrepared()) << "the new one is found";
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->groupResolver()->suspended());
}

TEST_F(GroupInterfaceTest, RefusesAnAcknowledgementBeyondTheLastVersionOnce) {
    TraceCapture traces;
    const auto table = familyWithTable();
    group_->addLogEntry(kTable, {5}, nullptr);
    acknowledge(kTable, 6);
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 0U);
    EXPECT_THAT(table->told, IsEmpty());
    EXPECT_EQ(traces.count("GroupInterface", 1,
                           " refused acknowledgement of version 6 for table id: 2c:08:0403: "
                           "beyond the last version"),
              1U);
    group_->addLogEntry(kTable, {6}, nullptr);
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 6U) << "it is true by now";
    set_->swTableDel({1});
}

TEST_F(GroupInterfaceTest, RefusesAnAcknowledgementThatGoesBackwardsOnce) {
    TraceCapture traces;
    group_->addLogEntry(kTable, {5}, nullptr);
    acknowledge(kTable, 4);
    hardware().forget(kTable.whole());
    acknowledge(kTable, 2);
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 4U);
    EXPECT_EQ(traces.count("GroupInterface", 1,
                           " refused acknowledgement of version 2 for table id: 2c:08:0403: "
                           "goes backwards"),
              1U);
}

TEST_F(GroupInterfaceTest, RefusesAnAcknowledgementOfAnUnknownTableOnce) {
    TraceCapture traces;
    acknowledge(Asic::SwTableId(0x01020003), 1);
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(Asic::SwTableId(0x01020003)), 0U);
    EXPECT_EQ(traces.count("GroupInterface", 1,
                           " refused acknowledgement of version 1 for table id: 01:02:0003: "
                           "no such table"),
              1U);
}

TEST_F(GroupInterfaceTest, RefusesWhatAMapSaysOfAnUnknownTableFromBeforeTheStart) {
    const Asic::SwTableId unknown(0x01020003);
    group_->addLogEntry(kTable, {5}, nullptr);
    hardware().ackIs(unknown.whole(), 7);
    restart();
    TraceCapture traces;
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(unknown), 0U);
    EXPECT_TRUE(traces.has("GroupInterface", 1,
                           " refused acknowledgement of version 7 for table id: 01:02:0003: "
                           "no such table"));
    EXPECT_EQ(group_->everythingAnnounced()->toText(), "{2c:08:0403@5}");
}

TEST_F(GroupInterfaceTest, RefusesWhatAMapSaidBeyondATableThatIsTakenUp) {
    group_->addLogEntry(kTable, {5}, nullptr);
    hardware().ackIs(kTable.whole(), 1000);
    restart();
    EXPECT_EQ(group_->announcedUpTo(kTable, {6}).value, 5U);
    EXPECT_EQ(group_->announcedUpTo(kTable, {1000}).value, 1000U);
    group_->announcedVersionRestored(kTable, {6});
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 0U);
}

TEST_F(GroupInterfaceTest, SaysOnceThatChangesWaitForRoomAndOnceThatTheyGoOn) {
    Journal journal;
    const auto table = Brumo::make<FakeTable>(group_->groupResolver());
    const std::string waits =
        " announcement log of " + group_->name() + " is short of room, changes wait";
    const std::string goesOn =
        " announcement log of " + group_->name() + " has room again, changes go on";
    std::uint64_t version = 0;
    TraceCapture traces;
    for (std::uint64_t round = 1; round <= 2; ++round) {
        while (group_->hasRoom())
            group_->addLogEntry(kTable, {++version}, nullptr);
        EXPECT_EQ(traces.count("GroupInterface", 1, waits), round - 1) << "nothing waits yet";
        for (std::uint64_t key = 1; key <= 3; ++key) {
            group_->groupResolver()->resolverQueueEnq(
                Brumo::make<FakeChange>(journal, table.get(), key, "change"));
            ASSERT_TRUE(loop_.runUntilIdle());
            group_->acknowledgementsArrived();
            ASSERT_TRUE(loop_.runUntilIdle());
        }
        EXPECT_EQ(traces.count("GroupInterface", 1, waits), round);
        EXPECT_EQ(traces.count("GroupInterface", 2, goesOn), round - 1);
        readVersions();
        consume();
        group_->acknowledgementsArrived();
        ASSERT_TRUE(loop_.runUntilIdle());
        EXPECT_EQ(journal.committed.size(), 3 * round);
        EXPECT_EQ(traces.count("GroupInterface", 2, goesOn), round);
    }
    EXPECT_EQ(traces.count("GroupInterface", 1, waits), 2U);
}

TEST_F(GroupInterfaceTest, TakesUpAPauseAndItsEnd) {
    hardware().pauseRequestedIs(true);
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->groupResolver()->suspended());
    hardware().pauseRequestedIs(false);
    group_->acknowledgementsArrived();
    EXPECT_FALSE(group_->groupResolver()->suspended());
}

TEST_F(GroupInterfaceTest, DoesNotSleepOverNewWork) {
    EXPECT_TRUE(group_->sleepPrepared()) << "there is no hardware side yet";
    group_->awake();
    group_->addLogEntry(kTable, {5}, nullptr);
    ASSERT_TRUE(hardware().ackIs(kTable.whole(), 2));
    EXPECT_FALSE(group_->sleepPrepared());
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->sleepPrepared());
    hardware().pauseRequestedIs(true);
    EXPECT_FALSE(group_->sleepPrepared());
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->sleepPrepared());
    read();
    hardware().announceIdentityIs(identity_);
    hardware().consumedIs(position_);
    EXPECT_FALSE(group_->sleepPrepared());
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->sleepPrepared());
    acknowledge(kTable, 9);
    EXPECT_TRUE(group_->sleepPrepared()) << "what was refused is no work";
    group_->awake();
}

TEST_F(GroupInterfaceTest, DoesNotSleepOverAnAcknowledgementThatWasRefusedAndHoldsNow) {
    group_->addLogEntry(kTable, {5}, nullptr);
    acknowledge(kTable, 9);
    EXPECT_EQ(acknowledged(), 0U);
    group_->addLogEntry(kTable, {9}, nullptr);
    EXPECT_FALSE(group_->sleepPrepared());
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 9U);
    EXPECT_TRUE(group_->sleepPrepared());
    group_->awake();
}

TEST_F(GroupInterfaceTest, SleepsOverEverythingThatItRefusesOfWhatAMapSaidBeforeTheStart) {
    group_->addLogEntry(kTable, {5}, nullptr);
    group_->addLogEntry(kOther, {5}, nullptr);
    hardware().ackIs(0x01020003, 7);  // an unknown table
    hardware().ackIs(kTable.whole(), 9);
    hardware().ackIs(kOther.whole(), 4);
    restart();
    group_->announcedVersionRestored(kTable, {5});
    group_->announcedVersionRestored(kOther, {5});
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->sleepPrepared());
    group_->awake();
    hardware().forget(kOther.whole());
    hardware().ackIs(kOther.whole(), 2);  // backwards
    EXPECT_TRUE(group_->sleepPrepared());
    group_->awake();
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->sleepPrepared());
    group_->awake();
    EXPECT_EQ(acknowledged(), 0U);
    EXPECT_EQ(acknowledged(kOther), 4U);
}

TEST_F(GroupInterfaceTest, BelievesNoAcknowledgementOfALostLogUntilItsOwnIsNoted) {
    group_->addLogEntry(kTable, {5}, nullptr);
    hardware().announceIdentityIs(77);
    acknowledge(kTable, 5);
    EXPECT_EQ(acknowledged(), 0U);
    EXPECT_FALSE(group_->tableVersionInMap(kTable).has_value());
    EXPECT_TRUE(group_->sleepPrepared()) << "what is not believed is no work";
    group_->awake();
    read();
    hardware().announceIdentityIs(identity_);
    EXPECT_FALSE(group_->sleepPrepared());
    group_->awake();
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 5U);
    EXPECT_EQ(group_->tableVersionInMap(kTable), Asic::LogVersion{5});
}

TEST_F(GroupInterfaceTest, WakesAHardwareSideThatFellAsleepBeforeItWasKnown) {
    KivShimo::Doorbell bell(Asic::Constants::hardwareDoorbell(dir_.path()));
    KivShimo::Sleeper sleeper(hardware().sleepEpoch());
    sleeper.asleep();
    group_->addLogEntry(kTable, {1}, nullptr);
    EXPECT_TRUE(group_->sleepPrepared());
    EXPECT_EQ(bell.drain(), 1U);
    group_->awake();
}

TEST_F(GroupInterfaceTest, SleepsOverAConsumedPositionBeyondTheTailAndTracesItOnce) {
    group_->addLogEntry(kTable, {1}, nullptr);
    read();
    hardware().announceIdentityIs(identity_);
    hardware().consumedIs(2);
    TraceCapture traces;
    EXPECT_TRUE(group_->sleepPrepared());
    group_->acknowledgementsArrived();
    group_->acknowledgementsArrived();
    EXPECT_EQ(traces.count("GroupInterface", 1,
                           " refused consumed position 2: beyond the last one announced, 1"),
              1U);
    hardware().consumedIs(1);
    EXPECT_FALSE(group_->sleepPrepared());
    group_->acknowledgementsArrived();
    EXPECT_TRUE(group_->sleepPrepared());
    group_->awake();
}

TEST_F(GroupInterfaceTest, TracesAConsumedPositionThatGoesBackwardsOnce) {
    for (std::uint64_t version = 1; version <= 5; ++version)
        group_->addLogEntry(kTable, {version}, nullptr);
    read();
    consume();
    TraceCapture traces;
    hardware().consumedIs(3);
    EXPECT_TRUE(group_->sleepPrepared());
    group_->acknowledgementsArrived();
    group_->acknowledgementsArrived();
    EXPECT_EQ(traces.texts("GroupInterface", 1),
              std::vector<std::string>{
                  " refused consumed position 3: goes backwards from the last one taken up, 5"});
    hardware().consumedIs(5);
    group_->acknowledgementsArrived();
    hardware().consumedIs(3);
    group_->acknowledgementsArrived();
    EXPECT_EQ(traces.texts("GroupInterface", 1).size(), 2U) << "it is another lie";
}

TEST_F(GroupInterfaceTest, TakesAHardwareSideThatBeginsAnewForNoLie) {
    for (std::uint64_t version = 1; version <= 5; ++version)
        group_->addLogEntry(kTable, {version}, nullptr);
    read();
    consume();
    TraceCapture traces;
    hardware().consumedIs(0);  // in the same file, it takes everything once more
    group_->acknowledgementsArrived();
    hardware().consumedIs(2);
    group_->acknowledgementsArrived();
    hardware().consumedIs(5);
    group_->acknowledgementsArrived();
    std::filesystem::remove(hardware().file());
    hardware_.reset();
    hardware().announceIdentityIs(identity_);
    hardware().consumedIs(1);  // in another file
    group_->acknowledgementsArrived();
    EXPECT_THAT(traces.texts("GroupInterface", 1), IsEmpty());
}

TEST_F(GroupInterfaceTest, TakesUpAcknowledgementsBesideARottenPauseRequest) {
    group_->addLogEntry(kTable, {3}, nullptr);
    const auto pause =
        KivShimo::detail::kDynamicOffset + offsetof(KivShimo::detail::DynamicHeader, pause);
    hardware().pauseRequestedIs(true);
    group_->acknowledgementsArrived();
    ASSERT_TRUE(group_->groupResolver()->suspended());
    rot(hardware().file(), {pause, pause + 24});
    ASSERT_TRUE(hardware().ackIs(kTable.whole(), 3));
    EXPECT_FALSE(group_->sleepPrepared()) << "there is an acknowledgement";
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 3U);
    EXPECT_EQ(group_->corruptions(), 1U);
    EXPECT_TRUE(group_->groupResolver()->suspended()) << "as it was before";
    EXPECT_TRUE(group_->sleepPrepared());
    hardware().pauseRequestedIs(false);
    group_->acknowledgementsArrived();
    EXPECT_FALSE(group_->groupResolver()->suspended());
}

TEST_F(GroupInterfaceTest, TakesAWrappedLogWithoutAcknowledgementsForNoRot) {
    for (std::uint64_t version = 1; version <= 2 * kSlots; ++version) {
        group_->addLogEntry(kTable, {version}, nullptr);
        read();
        consume();
    }
    stop();
    std::filesystem::remove(hardware_->file());
    hardware_.reset();
    start();
    EXPECT_EQ(group_->corruptions(), 0U);
    EXPECT_EQ(group_->announcedVersion(kTable).value, 2 * kSlots);
}

TEST_F(GroupInterfaceTest, LearnsAfterARestartWhatWasAnnounced) {
    group_->addLogEntry(kTable, {1}, nullptr);
    group_->addLogEntry(kOther, {7}, nullptr);
    group_->addLogEntry(kTable, {2}, nullptr);
    restart();
    EXPECT_EQ(group_->announcedVersion(kTable).value, 2U);
    EXPECT_EQ(group_->announcedVersion(kOther).value, 7U);
    read();
    hardware().ackIs(kTable.whole(), 2);
    hardware().ackIs(kOther.whole(), 7);
    consume();
    restart();
    EXPECT_EQ(group_->announcedVersion(kTable).value, 2U);
    EXPECT_EQ(group_->announcedVersion(kOther).value, 7U);
    EXPECT_TRUE(group_->hasRoom());
    group_->addLogEntry(kTable, {3}, nullptr);
    EXPECT_THAT(readVersions(), ElementsAre(3)) << "the hardware side goes on where it was";
}

TEST_F(GroupInterfaceTest, LearnsWhatWasAnnouncedBehindARottenAnnouncement) {
    for (std::uint64_t version = 1; version <= 12; ++version)
        group_->addLogEntry(kTable, {version}, nullptr);
    stop();
    rotAnnouncement(5);
    start();
    EXPECT_EQ(group_->announcedVersion(kTable).value, 12U);
    EXPECT_EQ(group_->corruptions(), 1U);
}

TEST_F(GroupInterfaceTest, LearnsWhatWasAnnouncedOfATableWhoseAcknowledgementIsRotten) {
    for (std::uint64_t version = 1; version <= kSlots + 3; ++version) {
        group_->addLogEntry(kTable, {version}, nullptr);
        read();
        hardware().ackIs(kTable.whole(), version);
        consume();
    }
    rotAcknowledgement();
    restart();
    EXPECT_EQ(group_->announcedVersion(kTable).value, kSlots + 3);
    EXPECT_TRUE(group_->hasRoom()) << "what is consumed is free";
    EXPECT_EQ(group_->corruptions(), 1U) << "what was overwritten is no rot";
}

TEST_F(GroupInterfaceTest, LearnsWhatWasAnnouncedWhereTheNotedLogIsRotten) {
    group_->addLogEntry(kTable, {5}, nullptr);
    read();
    hardware().ackIs(kTable.whole(), 5);
    consume();
    rotNotedLog();
    restart();
    EXPECT_EQ(group_->announcedUpTo(kTable, {5}).value, 5U);
    EXPECT_EQ(group_->announcedVersion(kTable).value, 5U);
}

TEST_F(GroupInterfaceTest, BelievesNoAcknowledgementWhoseLogIsNotKnownUntilItIsNoted) {
    group_->addLogEntry(kTable, {5}, nullptr);
    read();
    hardware().ackIs(kTable.whole(), 5);
    hardware().announceIdentityIs(identity_);
    rotNotedLog();
    hardware_.reset();
    hardware();  // the next process, which has not noted the log yet
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 0U);
    EXPECT_TRUE(group_->sleepPrepared());
    group_->awake();
    hardware().announceIdentityIs(identity_);
    group_->acknowledgementsArrived();
    EXPECT_EQ(acknowledged(), 5U);
}

TEST_F(GroupInterfaceTest, TakesNothingAsAnnouncedThatWasAcknowledgedOfALostLog) {
    group_->addLogEntry(kTable, {5}, nullptr);
    read();
    hardware().ackIs(kTable.whole(), 5);
    consume();
    stop();
    std::filesystem::remove(KivShimo::tableFile(dir_.path(), announcementsPath()));
    start();
    EXPECT_EQ(group_->announcedUpTo(kTable, {5}).value, 0U) << "it has to be announced anew";
    EXPECT_EQ(group_->announcedVersion(kTable).value, 5U) << "and is not handed out again";
}

TEST_F(GroupInterfaceTest, KnowsEverythingThatWasAnnounced) {
    group_->addLogEntry(kTable, {3}, nullptr);
    group_->addLogEntry(kOther, {9}, nullptr);
    EXPECT_EQ(group_->everythingAnnounced()->toText(), "{2c:08:0403@3, 2c:08:0404@9}");
}

TEST_F(GroupInterfaceTest, HasNoVersionInAMapThatIsNotThere) {
    EXPECT_FALSE(group_->tableVersionInMap(kTable).has_value());
    hardware();
    EXPECT_FALSE(group_->tableVersionInMap(kTable).has_value());
    hardware().ackIs(kTable.whole(), 4);
    EXPECT_EQ(group_->tableVersionInMap(kTable), Asic::LogVersion{4});
}

TEST_F(GroupInterfaceTest, TakesAcknowledgementsBesideARottenOneUpAndTracesThatOnce) {
    group_->addLogEntry(kOther, {3}, nullptr);
    group_->addLogEntry(kTable, {3}, nullptr);
    ASSERT_TRUE(hardware().ackIs(kOther.whole(), 1));
    rotAcknowledgement();
    TestSupport::TraceCapture traces;
    acknowledge(kTable, 2);
    acknowledge(kTable, 3);
    EXPECT_EQ(acknowledged(), 3U);
    EXPECT_EQ(acknowledged(kOther), 0U);
    EXPECT_EQ(group_->corruptions(), 2U);
    EXPECT_EQ(traces.texts("GroupInterface", 1).size(), 1U);
    acknowledge(kOther, 2);
    EXPECT_EQ(acknowledged(kOther), 2U);
}

TEST_F(GroupInterfaceTest, DoesNotBelieveAMapThatIsAheadOfAMountedTable) {
    hardware().ackIs(kTable.whole(), 400);
    group_->announcedVersionRestored(kTable, {4});
    TestSupport::TraceCapture traces;
    EXPECT_FALSE(group_->tableVersionInMap(kTable).has_value());
    EXPECT_TRUE(traces.has("GroupInterface", 1,
                           " refused acknowledgement of version 400 for table id: 2c:08:0403: "
                           "beyond the last version"));
    group_->announcedVersionRestored(kTable, {400});
    EXPECT_EQ(group_->tableVersionInMap(kTable), Asic::LogVersion{400});
}

TEST_F(GroupInterfaceTest, CountsAndTracesCorruption) {
    TraceCapture traces;
    group_->doCorruptionDetected("rotten");
    EXPECT_EQ(group_->corruptions(), 1U);
    EXPECT_TRUE(traces.has("GroupInterface", 1, " corruption: rotten"));
}

TEST(Announcing, AnnouncesOnMountWhatWasNot) {
    TestSupport::InProcessAgent agent({.capacityCeiling = 1024, .counters = 8, .policers = 8});
    const std::string file = KivShimo::tableFile(
        agent.root(), Asic::Constants::announcementsPath(agent.group()->name()));
    {
        const auto table = agent.v4Table();
        for (std::uint32_t rule = 1; rule <= 3; ++rule)
            table->entryWrite(TestSupport::matchKey(rule), TestSupport::v4Entry(rule), nullptr);
        agent.settle();
    }
    std::filesystem::remove(file);  // as if the process had ended before it announced anything
    agent.restart();
    agent.v4Table();
    EXPECT_EQ(agent.group()->announcedVersion(Asic::SwTableId(0x2C080404)).value, 3U);
    const auto log = KivShimo::AnnounceLogReader::open(file);
    ASSERT_TRUE(log.has_value());
    for (std::uint64_t version = 1; version <= 3; ++version) {
        const auto announcement = log->next(version);
        ASSERT_TRUE(announcement.has_value());
        EXPECT_EQ(announcement->version, version);
    }
    EXPECT_FALSE(log->next(4).has_value());
}

}  // namespace
}  // namespace AsicTests
