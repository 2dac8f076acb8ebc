#include "hwside/LogReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "platform/brumo/Trace.h"
#include "platform/kivshimo/detail/MapLayout.h"
#include "tests/hwside/AgentSide.h"
#include "tests/hwside/Damage.h"

namespace HwSide::Test {
namespace {

constexpr std::uint32_t kCounters = 0x2C080301;

using Progress = LogReader::Progress;

class LogReaderTest : public testing::Test {
protected:
    LogReaderTest() {
        startAgent();
        startReader();
        before_ = Brumo::traceSinkIs(
            [this](const Brumo::TraceRecord& line) { traces_ += std::string(line.text) + "\n"; });
    }
    ~LogReaderTest() override { Brumo::traceSinkIs(before_); }

    void startAgent() { agent_.emplace(folder_.path()); }
    void killAgent() { agent_.reset(); }
    /// The reader of a process that has just begun; `tcam` stays only when asked for.
    void startReader(bool keepTcam = false) {
        reader_.reset();
        acks_.reset();
        if (!keepTcam)
            tcam_.emplace();
        acks_.emplace(folder_.path(), Group::acknowledgementsPath());
        reader_.emplace(group_, *tcam_, *acks_);
    }
    std::uint64_t acked(std::uint32_t tableId) const {
        return acks_->acknowledged(tableId).value_or(0);
    }
    /// What the agent holds as live, compared with what hardware holds.
    template <class Types>
    void expectSame(Asic::UnitId unit) {
        std::map<typename Types::Key, typename Types::LogEntry> wanted;
        auto& config = agent_->table<Types>().config(unit);
        for (auto value = config.swTableEntriesFromStart(); value;
             value = config.swTableEntriesAfter(value->key())) {
            if (!value->inDeletion)
                wanted.emplace(value->key(), value->logEntry);
        }
        std::size_t held = 0;
        const auto at = tcam_->units().find(unit);
        if (at != tcam_->units().end()) {
            held = at->second.template table<Types>().size();
            for (const auto& [key, entry] : wanted) {
                const auto* found = at->second.template table<Types>().find(key);
                ASSERT_NE(found, nullptr) << key.toText();
                EXPECT_TRUE(found->entry.isEq(entry)) << key.toText();
            }
        }
        EXPECT_EQ(held, wanted.size());
    }
    void expectAllSame() {
        for (const Asic::UnitId unit : {kUnit, kOtherUnit}) {
            expectSame<ActionTypes>(unit);
            expectSame<V4Types>(unit);
            expectSame<V6Types>(unit);
        }
    }

    Folder folder_;
    Group group_{folder_.path()};
    std::optional<AgentSide> agent_;
    std::optional<Tcam> tcam_;
    std::optional<KivShimo::AckMapWriter> acks_;
    std::optional<LogReader> reader_;
    std::string traces_;
    Brumo::TraceSink before_;
};

// In the order of the announcements

TEST_F(LogReaderTest, ProgramsWhatIsAnnouncedAndAcknowledgesIt) {
    reader_->pump();
    const std::uint64_t action = agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1), {{kAction, action}});
    agent_->write<V6Types>(kOtherUnit, matchEntry<V6Types>(1, 1));
    EXPECT_EQ(reader_->pump(), Progress::idle);
    EXPECT_EQ(acked(kAction), 1U);
    EXPECT_EQ(acked(kV4), 1U);
    EXPECT_EQ(acked(kV6), 1U);
    EXPECT_EQ(acks_->consumed(), 3U);
    EXPECT_EQ(tcam_->counters<V4Types>(), (ProgramCounters{.added = 1}));
    expectAllSame();
}

TEST_F(LogReaderTest, ProgramsNothingThatIsNotAnnounced) {
    reader_->pump();
    agent_->table<V4Types>().write(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(tcam_->entries<V4Types>(), 0U);
    agent_->announce(kV4, 1);
    reader_->pump();
    EXPECT_EQ(tcam_->entries<V4Types>(), 1U);
}

TEST_F(LogReaderTest, StopsAtItsBudgetAndGoesOn) {
    reader_->pump();
    for (std::uint32_t rule = 1; rule <= 5; ++rule) {
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(rule, 1));
    }
    EXPECT_EQ(reader_->pump(3), Progress::more);
    EXPECT_EQ(acked(kV4), 3U);
    EXPECT_EQ(acks_->consumed(), 3U);
    EXPECT_EQ(reader_->pump(3), Progress::idle);
    EXPECT_EQ(acked(kV4), 5U);
}

TEST_F(LogReaderTest, SkipsASupersededValueUntilItsOwnAnnouncement) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 200), {{kV4, 1}});
    EXPECT_EQ(reader_->pump(1), Progress::more);
    EXPECT_EQ(acked(kAction), 1U);
    EXPECT_EQ(tcam_->entries<ActionTypes>(), 0U);
    EXPECT_EQ(reader_->counters().superseded, 1U);
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(tcam_->counters<ActionTypes>(), (ProgramCounters{.added = 1}));
    expectAllSame();
}

TEST_F(LogReaderTest, FirstSnapshotLeavesWhatIsNotAnnouncedYetToItsAnnouncement) {
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->table<ActionTypes>().write(kUnit, actionEntry(2, 200));
    reader_->pump();
    EXPECT_EQ(acked(kAction), 1U);
    EXPECT_EQ(tcam_->counters<ActionTypes>(), (ProgramCounters{.added = 1}));
    agent_->announce(kAction, 2);
    reader_->pump();
    EXPECT_EQ(acked(kAction), 2U);
    expectAllSame();
}

TEST_F(LogReaderTest, FirstSnapshotTakesATableOfWhichNothingIsAnnounced) {
    agent_->table<ActionTypes>().write(kUnit, actionEntry(1, 100));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(acked(kAction), 1U) << "its announcements may have been in a log that is lost";
    expectAllSame();
}

TEST_F(LogReaderTest, ProgramsTheLaterValueOfAKeyThatHardwareHolds) {
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 200));
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 300));
    EXPECT_EQ(reader_->pump(1), Progress::more);
    EXPECT_EQ(acked(kAction), 2U);
    expectAllSame();
    reader_->pump();
    EXPECT_EQ(acked(kAction), 3U);
    EXPECT_EQ(tcam_->counters<ActionTypes>(),
              (ProgramCounters{.added = 1, .changed = 1, .unchanged = 1}));
}

TEST_F(LogReaderTest, LeavesAHeldKeyAsItIsWhileItsLaterValueWaits) {
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 200));
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 300), {{kV4, 1}});
    reader_->pump();
    EXPECT_EQ(acked(kAction), 2U);
    EXPECT_EQ(tcam_->counters<ActionTypes>(), (ProgramCounters{.added = 1}));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(acked(kAction), 3U);
    expectAllSame();
}

TEST_F(LogReaderTest, ProgramsTheLaterValueOfAKeyThatHardwareDoesNotHold) {
    reader_->pump();
    const std::uint64_t action = agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1), {{kAction, action}});
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 200));
    EXPECT_EQ(reader_->pump(2), Progress::more);
    EXPECT_EQ(tcam_->entries<V4Types>(), 1U);
    EXPECT_EQ(tcam_->unresolved(), 0U) << "no match stands without its action";
    reader_->pump();
    EXPECT_EQ(tcam_->counters<ActionTypes>(), (ProgramCounters{.added = 1, .unchanged = 1}));
    EXPECT_EQ(acked(kAction), 2U);
    expectAllSame();
}

TEST_F(LogReaderTest, LooksAheadForALaterValueAThousandAnnouncementsAndNoFurther) {
    constexpr std::uint64_t kBound = 1024;
    constexpr std::uint64_t kRoom = 4096;
    killAgent();
    std::filesystem::remove_all(folder_.path() + "/asic");
    agent_.emplace(folder_.path(), kRoom, kRoom);
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    for (const std::uint64_t distance : {kBound, kBound + 1}) {
        const std::uint64_t changed = tcam_->counters<V4Types>().changed;
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 2));
        for (std::uint64_t other = 1; other < distance; ++other)
            agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
        const std::uint32_t priority = static_cast<std::uint32_t>(1000 + distance);
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, priority));
        EXPECT_EQ(reader_->pump(1), Progress::more);
        EXPECT_EQ(tcam_->counters<V4Types>().changed, changed + (distance == kBound ? 1 : 0));
        reader_->pump();
        expectAllSame();
    }
}

TEST_F(LogReaderTest, DoesNotProgramAValueThatIsDeletedMeanwhile) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->remove<ActionTypes>(kUnit, actionEntry(1, 0).key);
    reader_->pump();
    EXPECT_EQ(tcam_->counters<ActionTypes>(), ProgramCounters{});
    EXPECT_EQ(acked(kAction), 2U);
}

TEST_F(LogReaderTest, RemovesWhatIsDeletedAlsoWhenItIsWrittenAgain) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    agent_->remove<ActionTypes>(kUnit, actionEntry(1, 0).key);
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100), {{kV4, 1}});
    reader_->pump();
    EXPECT_EQ(tcam_->entries<ActionTypes>(), 0U) << "the write waits, the delete does not";
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(tcam_->counters<ActionTypes>(), (ProgramCounters{.added = 2, .removed = 1}));
}

TEST_F(LogReaderTest, TableDeleteClearsOneUnitOnly) {
    reader_->pump();
    for (const Asic::UnitId unit : {kUnit, kOtherUnit}) {
        for (std::uint32_t rule = 1; rule <= 3; ++rule) {
            agent_->write<V6Types>(unit, matchEntry<V6Types>(rule, 1));
        }
    }
    reader_->pump();
    agent_->clear<V6Types>(kUnit);
    agent_->write<V6Types>(kUnit, matchEntry<V6Types>(9, 1));
    reader_->pump();
    EXPECT_EQ(tcam_->counters<V6Types>().removed, 3U);
    EXPECT_EQ(tcam_->entries<V6Types>(), 4U);
    expectAllSame();
}

TEST_F(LogReaderTest, TakesResourceTablesAsProgrammed) {
    reader_->pump();
    agent_->announce(kCounters, 7);
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100), {{kCounters, 7}});
    reader_->pump();
    EXPECT_EQ(acked(kCounters), 7U);
    EXPECT_EQ(acked(kAction), 1U);
    EXPECT_EQ(reader_->counters().resources, 1U);
}

TEST_F(LogReaderTest, AVersionWhoseEarlierOnesWereNeverAnnouncedIsMadeUpForByASnapshot) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    agent_->table<ActionTypes>().write(kUnit, actionEntry(2, 100));
    agent_->table<ActionTypes>().remove(kUnit, actionEntry(1, 100).key);
    agent_->write<ActionTypes>(kUnit, actionEntry(3, 100));
    const std::uint64_t snapshots = reader_->counters().snapshots;
    reader_->pump();
    EXPECT_EQ(acked(kAction), 4U);
    EXPECT_EQ(reader_->counters().snapshots, snapshots + 1);
    EXPECT_EQ(reader_->counters().lost, 1U);
    expectSame<ActionTypes>(kUnit);
    agent_->write<ActionTypes>(kUnit, actionEntry(4, 100));
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, snapshots + 1) << "once";
    expectSame<ActionTypes>(kUnit);
}

TEST_F(LogReaderTest, PassesOverWhatIsAnnouncedTwice) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->announce(kAction, 1);
    reader_->pump();
    EXPECT_EQ(reader_->counters().repeated, 1U);
    EXPECT_EQ(tcam_->counters<ActionTypes>(), (ProgramCounters{.added = 1}));
}

// What an announcement needs

TEST_F(LogReaderTest, HoldsAChangeBackUntilWhatItNeedsIsAcknowledged) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1), {{kAction, 1}});
    EXPECT_EQ(reader_->pump(), Progress::idle);
    EXPECT_EQ(tcam_->entries<V4Types>(), 0U);
    EXPECT_EQ(reader_->waiting(), 1U);
    EXPECT_EQ(acks_->consumed(), 0U);
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 1U);
    EXPECT_EQ(reader_->waiting(), 0U);
    EXPECT_EQ(acks_->consumed(), 2U);
}

TEST_F(LogReaderTest, AWaitingChangeHoldsItsOwnTableBackAndNoOther) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1), {{kAction, 1}});
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    agent_->write<V6Types>(kUnit, matchEntry<V6Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 0U);
    EXPECT_EQ(acked(kV6), 1U);
    EXPECT_EQ(reader_->waiting(), 2U);
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 2U);
    EXPECT_EQ(acks_->consumed(), 4U);
}

TEST_F(LogReaderTest, NeedsOfSeveralTablesAreAllWaitedFor) {
    reader_->pump();
    agent_->announce(kCounters, 1);
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100), {{kCounters, 1}, {kV6, 1}, {kV4, 1}});
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(acked(kAction), 0U);
    agent_->write<V6Types>(kUnit, matchEntry<V6Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(acked(kAction), 1U);
}

TEST_F(LogReaderTest, DoesNotWaitForItself) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100), {{kAction, 1}});
    reader_->pump();
    EXPECT_EQ(acked(kAction), 1U);
    EXPECT_NE(traces_.find("of its own table: cannot be waited for"), std::string::npos);
}

TEST_F(LogReaderTest, DoesNotWaitForAResourceWhoseAcknowledgementIsLost) {
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100), {{kCounters, 7}});
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 200), {{kCounters, 7}});
    startReader();  // a snapshot that the announcement is in
    reader_->pump();
    EXPECT_EQ(acked(kAction), 2U);
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 300), {{kCounters, 7}});
    reader_->pump();
    EXPECT_EQ(acked(kAction), 3U);
    EXPECT_EQ(reader_->waiting(), 0U);
    expectAllSame();
}

TEST_F(LogReaderTest, ProgramsNoLaterValueBeforeTheResourceThatItNeedsIsTaken) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->announce(kCounters, 7);
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 200), {{kCounters, 7}});
    EXPECT_EQ(reader_->pump(1), Progress::more);
    EXPECT_EQ(tcam_->entries<ActionTypes>(), 0U);
    reader_->pump();
    expectAllSame();
}

// Late, dead and returned

TEST_F(LogReaderTest, WaitsForAnAgentThatIsNotThereYet) {
    killAgent();
    std::filesystem::remove_all(folder_.path() + "/asic");
    startReader();
    EXPECT_EQ(reader_->pump(), Progress::idle);
    EXPECT_FALSE(reader_->follows());
    startAgent();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    EXPECT_TRUE(reader_->follows());
    expectAllSame();
}

TEST_F(LogReaderTest, ALateReaderTakesASnapshotAndGoesOnBehindIt) {
    for (std::uint32_t rule = 1; rule <= 20; ++rule) {
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(rule, 1));
    }
    agent_->remove<V4Types>(kUnit, {3, 0});
    agent_->announce(kCounters, 4);
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, 1U);
    EXPECT_EQ(acked(kV4), 21U);
    EXPECT_EQ(acked(kCounters), 4U);
    EXPECT_EQ(acks_->consumed(), 22U);
    EXPECT_EQ(tcam_->counters<V4Types>(), (ProgramCounters{.added = 19}));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(3, 2));
    reader_->pump();
    EXPECT_EQ(tcam_->counters<V4Types>(), (ProgramCounters{.added = 20}));
    expectAllSame();
}

TEST_F(LogReaderTest, ASnapshotLeavesWhatIsNotAnnouncedYetToItsAnnouncement) {
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    // As when the agent is between the value and the published version of its next change.
    V4Types::Entry next = matchEntry<V4Types>(2, 1);
    TableWriter<V4Types>::ConfigTable::Value value;
    value.entryKey = next.key;
    value.logEntry = next.toLogEntry();
    value.version = {2};
    agent_->table<V4Types>().config(kUnit).swTableEntriesIs(value);
    reader_->pump();
    EXPECT_EQ(acked(kV4), 1U);
    EXPECT_EQ(tcam_->entries<V4Types>(), 1U);
    agent_->write<V4Types>(kUnit, next);
    reader_->pump();
    expectAllSame();
}

TEST_F(LogReaderTest, ASnapshotLeavesWhatFoundNoRoomAmongTheAnnouncementsToItsAnnouncement) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->table<ActionTypes>().log().entryLogConfigDel({1});
    const std::uint64_t version = agent_->table<ActionTypes>().write(kUnit, actionEntry(2, 100));
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, 2U);
    EXPECT_EQ(tcam_->entries<ActionTypes>(), 1U) << "what it needs is not known";
    EXPECT_EQ(acked(kAction), 1U);
    agent_->announce(kAction, version, {{kV4, 1}});
    reader_->pump();
    EXPECT_EQ(tcam_->entries<ActionTypes>(), 1U);
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(acked(kAction), 2U);
    expectAllSame();
}

TEST_F(LogReaderTest, ASnapshotCountsWhatIsProgrammedAsUnchanged) {
    for (std::uint32_t rule = 1; rule <= 10; ++rule) {
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(rule, 1));
    }
    reader_->pump();
    std::filesystem::remove(group_.announcementsFile());
    killAgent();
    startAgent();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(11, 1));
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, 2U);
    EXPECT_EQ(tcam_->counters<V4Types>().programmed(), 11U);
    EXPECT_EQ(tcam_->counters<V4Types>().removed, 0U);
    EXPECT_EQ(acked(kV4), 11U);
    EXPECT_EQ(acks_->consumed(), 1U);
}

TEST_F(LogReaderTest, ADeadReadersSuccessorProgramsAllAnewInAnEmptyTcam) {
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1), {{kAction, 1}});
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    startReader();
    reader_->pump();
    EXPECT_EQ(acked(kV4), 2U);
    EXPECT_EQ(tcam_->counters<V4Types>(), (ProgramCounters{.added = 2}));
    expectAllSame();
}

TEST_F(LogReaderTest, AReaderWhoseTcamHoldsWhatIsAcknowledgedGoesOnWithoutASnapshot) {
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    startReader(true);
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, 0U);
    EXPECT_EQ(tcam_->counters<V4Types>(), (ProgramCounters{.added = 2}));
}

TEST_F(LogReaderTest, ARestartedAgentCausesNoProgramming) {
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1), {{kAction, 1}});
    reader_->pump();
    const ProgramCounters before = tcam_->counters<V4Types>();
    killAgent();
    reader_->pump();
    startAgent();
    agent_->announce(kV4, 1);  // the agent may announce again what it does not know as announced
    reader_->pump();
    EXPECT_EQ(tcam_->counters<V4Types>(), before);
    EXPECT_EQ(reader_->counters().snapshots, 1U);
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    reader_->pump();
    expectAllSame();
}

TEST_F(LogReaderTest, AnAgentThatLostEverythingStartsAgainFromVersionOne) {
    for (std::uint32_t rule = 1; rule <= 5; ++rule) {
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(rule, 1));
    }
    agent_->announce(kCounters, 9);
    reader_->pump();
    killAgent();
    std::filesystem::remove_all(folder_.path() + "/asic");
    reader_->pump();
    EXPECT_FALSE(reader_->follows());
    EXPECT_EQ(tcam_->entries<V4Types>(), 5U) << "traffic goes on until there is an agent";
    startAgent();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    agent_->announce(kCounters, 1);
    reader_->pump();
    EXPECT_EQ(acked(kV4), 1U);
    EXPECT_EQ(acked(kCounters), 1U);
    EXPECT_EQ(tcam_->counters<V4Types>(),
              (ProgramCounters{.added = 5, .unchanged = 1, .removed = 4}));
    expectAllSame();
}

TEST_F(LogReaderTest, AChangeLogThatStartsAgainTakesItsAcknowledgementBackAndNoOther) {
    for (std::uint32_t rule = 1; rule <= 3; ++rule) {
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(rule, 1));
    }
    agent_->announce(kCounters, 9);
    reader_->pump();
    killAgent();
    std::filesystem::remove(group_.changeLogFile<V4Types>());
    std::filesystem::remove(group_.configFile<V4Types>(kUnit));
    startAgent();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 1U);
    EXPECT_EQ(acked(kCounters), 9U);
    expectAllSame();
}

TEST_F(LogReaderTest, ASnapshotDoesNotRunAheadOfWhatWaits) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1), {{kV6, 1}});
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(3, 1));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 1U);
    startReader();
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, 1U);
    EXPECT_EQ(acked(kV4), 1U);
    EXPECT_EQ(tcam_->entries<V4Types>(), 1U);
    EXPECT_EQ(acks_->consumed(), 1U);
    agent_->write<V6Types>(kUnit, matchEntry<V6Types>(1, 1));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 3U);
    expectAllSame();
}

TEST_F(LogReaderTest, ReclaimedDeletesLeaveNothingBehind) {
    reader_->pump();
    for (std::uint32_t round = 0; round < 500; ++round) {
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(round, 1));
        reader_->pump();
        agent_->table<V4Types>().log().entryLogConfigDel({acked(kV4)});
        const std::uint64_t version = agent_->remove<V4Types>(kUnit, {round, 0});
        reader_->pump();
        ASSERT_EQ(acked(kV4), version);
        agent_->table<V4Types>().reclaim(kUnit, {round, 0}, version);
        ASSERT_TRUE(agent_->announcements().consumedIs(acks_->consumed()));
    }
    EXPECT_EQ(tcam_->counters<V4Types>(), (ProgramCounters{.added = 500, .removed = 500}));
    EXPECT_EQ(reader_->counters().snapshots, 1U);
}

// Rot

TEST_F(LogReaderTest, BeginsAnewWhereItIsNotKnownWhichLogWasAcknowledged) {
    agent_->announce(kCounters, 4);
    for (std::uint32_t rule = 1; rule <= 3; ++rule)
        agent_->write<V4Types>(kUnit, matchEntry<V4Types>(rule, 1));
    acks_->ackIs(kV6, 1000);  // of a log that is lost
    acks_->announceIdentityIs(77);
    const std::size_t noted =
        KivShimo::detail::kDynamicOffset + offsetof(KivShimo::detail::DynamicHeader, tail);
    spoil(acks_->file(), noted);
    spoil(acks_->file(), noted + 24);
    startReader();
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, 1U);
    EXPECT_EQ(acked(kCounters), 4U);
    EXPECT_EQ(acked(kV4), 3U);
    EXPECT_EQ(acked(kV6), 0U);
    EXPECT_EQ(acks_->announceIdentity(), agent_->announcements().identity());
    expectAllSame();
}

TEST_F(LogReaderTest, ARottenChangeRecordIsReplacedByASnapshot) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(0x5A5B5C5D, 1));
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(3, 1));
    const std::string file = group_.changeLogFile<V4Types>();
    spoil(file, placeOf(file, "\x5D\x5C\x5B\x5A"));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 3U);
    EXPECT_EQ(reader_->counters().rotten, 1U);
    EXPECT_EQ(reader_->counters().lost, 1U);
    EXPECT_EQ(tcam_->counters<V4Types>().programmed(), 3U);
    EXPECT_NE(traces_.find(file), std::string::npos) << traces_;
    expectAllSame();
}

TEST_F(LogReaderTest, AMissingChangeRecordIsReplacedByASnapshot) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    agent_->table<V4Types>().log().entryLogConfigDel({1});
    reader_->pump();
    EXPECT_EQ(acked(kV4), 1U);
    EXPECT_EQ(reader_->counters().lost, 1U);
    expectAllSame();
}

TEST_F(LogReaderTest, ARottenValueIsReportedAndAcknowledgedAndHardwareKeepsWhatItHas) {
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 100));
    reader_->pump();
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 0x1A1B1C1D1E1FULL));
    agent_->write<ActionTypes>(kUnit, actionEntry(2, 200));
    const std::string file = group_.configFile<ActionTypes>(kUnit);
    spoil(file, placeOf(file, "\x1F\x1E\x1D\x1C\x1B\x1A"));
    reader_->pump();
    EXPECT_EQ(acked(kAction), 3U);
    EXPECT_EQ(reader_->counters().rotten, 1U);
    EXPECT_EQ(tcam_->counters<ActionTypes>(), (ProgramCounters{.added = 2}));
    EXPECT_NE(traces_.find(file), std::string::npos) << traces_;
}

TEST_F(LogReaderTest, ARottenAnnouncementIsReplacedByASnapshot) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    agent_->announce(kCounters, 0x2A2B2C2D);
    agent_->announce(kCounters + 1, 5);
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    const std::string file = group_.announcementsFile();
    spoil(file, placeOf(file, "\x2D\x2C\x2B\x2A"));
    reader_->pump();
    EXPECT_EQ(acked(kV4), 2U);
    EXPECT_EQ(acked(kCounters), 0U);
    EXPECT_EQ(acked(kCounters + 1), 5U);
    EXPECT_EQ(acks_->consumed(), 4U);
    EXPECT_EQ(reader_->counters().rotten, 1U);
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(3, 1));
    reader_->pump();
    expectAllSame();
}

TEST_F(LogReaderTest, ASnapshotOfAUnitWithARottenValueRemovesNothingThere) {
    agent_->write<ActionTypes>(kUnit, actionEntry(1, 0x1A1B1C1D1E1FULL));
    agent_->write<ActionTypes>(kOtherUnit, actionEntry(1, 100));
    reader_->pump();
    killAgent();
    const std::string file = group_.configFile<ActionTypes>(kUnit);
    spoil(file, placeOf(file, "\x1F\x1E\x1D\x1C\x1B\x1A"));
    std::filesystem::remove(group_.announcementsFile());
    KivShimo::AnnounceLogWriter announcements(
        folder_.path(), Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName()),
        kAnnouncementSlots);
    reader_->pump();
    EXPECT_EQ(reader_->counters().rotten, 1U);
    EXPECT_EQ(tcam_->counters<ActionTypes>(),
              (ProgramCounters{.added = 2, .unchanged = 1, .removed = 0}));
}

TEST_F(LogReaderTest, CountsASnapshotOnceHoweverOftenItFindsAStoreHalfDone) {
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    const auto tear = [&] { tearOrMend(group_.configFile<V4Types>(kUnit), "rule 1"); };
    tear();
    EXPECT_EQ(reader_->pump(), Progress::again);
    EXPECT_EQ(reader_->pump(), Progress::again);
    EXPECT_EQ(reader_->counters().snapshots, 0U);
    tear();
    EXPECT_EQ(reader_->pump(), Progress::idle);
    EXPECT_EQ(reader_->counters().snapshots, 1U);
    expectAllSame();
}

TEST_F(LogReaderTest, RemovesNothingWhileTheUnitsCannotBeListed) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    const std::filesystem::path folder =
        std::filesystem::path(group_.configFile<V4Types>(kUnit)).parent_path();
    const std::filesystem::path aside = folder.string() + ".aside";
    std::filesystem::rename(folder, aside);
    std::ofstream(folder) << "no folder";
    EXPECT_EQ(reader_->pump(), Progress::idle);
    EXPECT_EQ(tcam_->entries<V4Types>(), 1U);
    EXPECT_EQ(reader_->counters().rotten, 1U);
    EXPECT_THAT(traces_, testing::HasSubstr(folder.string() + ": list: "));

    std::filesystem::remove(folder);
    std::filesystem::rename(aside, folder);
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(2, 1));
    EXPECT_EQ(reader_->pump(), Progress::idle);
    EXPECT_EQ(tcam_->counters<V4Types>().removed, 0U);
    expectAllSame();
}

TEST_F(LogReaderTest, AConfigurationThatCannotBeLookedForIsReportedAndItsUnitKept) {
    reader_->pump();
    agent_->write<V4Types>(kUnit, matchEntry<V4Types>(1, 1));
    agent_->write<V4Types>(kOtherUnit, matchEntry<V4Types>(1, 1));
    reader_->pump();
    const std::string file = group_.configFile<V4Types>(kUnit);
    std::filesystem::rename(file, file + ".aside");
    std::filesystem::create_symlink(file, file);  // a link to itself leads nowhere
    EXPECT_EQ(reader_->pump(), Progress::idle);
    EXPECT_EQ(reader_->counters().rotten, 1U);
    EXPECT_EQ(tcam_->entries<V4Types>(), 2U);
}

TEST_F(LogReaderTest, ASnapshotProgramsEverythingBesideARottenValue) {
    constexpr std::uint32_t kEntries = 20;
    for (std::uint32_t id = 1; id <= kEntries; ++id)
        agent_->write<ActionTypes>(kUnit, actionEntry(id, 0x1A1B1C1D1E00ULL + id));
    killAgent();
    const std::string file = group_.configFile<ActionTypes>(kUnit);
    for (const char* rotten : {"\x05\x1E\x1D\x1C\x1B\x1A", "\x0B\x1E\x1D\x1C\x1B\x1A"})
        spoil(file, placeOf(file, rotten));
    reader_->pump();
    EXPECT_EQ(reader_->counters().snapshots, 1U);
    EXPECT_EQ(reader_->counters().rotten, 2U);
    EXPECT_EQ(tcam_->counters<ActionTypes>().added, kEntries - 2);
    EXPECT_EQ(acked(kAction), kEntries);
}

}  // namespace
}  // namespace HwSide::Test
