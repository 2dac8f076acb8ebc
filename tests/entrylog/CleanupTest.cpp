#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "tests/entrylog/EntryLogFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

using Versions = std::vector<std::uint64_t>;

template <class B>
class Cleanup : public EntryLogFixture<B> {
protected:
    Cleanup() { log = this->mountedLog(); }

    /// Twelve changes, of which the first two have no record any more.
    void logVersionsThreeToTwelve() {
        for (std::uint32_t number = 1; number <= 12; ++number)
            this->write(*log, number);
        log->tableEntryLog()->entryLogConfigDel({1});
        log->tableEntryLog()->entryLogConfigDel({2});
    }
    std::uint64_t mark() { return log->cleanedUpTo().value; }
    bool stored(std::uint32_t number, Asic::UnitId unit = kUnit) {
        return log->configEntry(keyOf<B>(number), unit).has_value();
    }
    TraceLine line(int level, const std::string& text) {
        return {level, this->handle(), this->handle(), "cleanupEntryLog", text};
    }
    std::vector<TraceLine> own(const TraceCapture& traces) {
        std::vector<TraceLine> lines;
        for (const TraceLine& each : traces.lines()) {
            if (each.handle == this->handle())
                lines.push_back(each);
        }
        return lines;
    }

    typename EntryLogFixture<B>::LogPtr log;
};
TYPED_TEST_SUITE(Cleanup, AllBindings, TableName);

TYPED_TEST(Cleanup, FirstRemovesAllRecordsUpToItsVersion) {
    this->logVersionsThreeToTwelve();
    TraceCapture traces;
    this->log->cleanupEntryLog({10});
    EXPECT_EQ(this->versionsInLog(), (Versions{11, 12}));
    EXPECT_EQ(this->mark(), 10U);
    EXPECT_EQ(this->own(traces), (std::vector<TraceLine>{this->line(8, " version 10")}));
}

TYPED_TEST(Cleanup, NextGoesOnAtTheMark) {
    this->logVersionsThreeToTwelve();
    this->log->cleanupEntryLog({10});
    this->log->cleanupEntryLog({12});
    EXPECT_EQ(this->versionsInLog(), Versions{});
    EXPECT_EQ(this->mark(), 12U);
}

TYPED_TEST(Cleanup, NextDoesNotLookBehindTheMark) {
    this->logVersionsThreeToTwelve();
    this->log->cleanupEntryLog({10});
    typename TestFixture::Record straggler;
    straggler.version = {4};
    straggler.unitId = kUnit;
    this->log->tableEntryLog()->entryLogConfigIs(straggler);
    this->log->cleanupEntryLog({12});
    EXPECT_EQ(this->versionsInLog(), (Versions{4}));
}

TYPED_TEST(Cleanup, MarkMovesBackwardsAndNothingIsRemoved) {
    this->logVersionsThreeToTwelve();
    this->log->cleanupEntryLog({12});
    this->write(*this->log, 13);
    this->log->cleanupEntryLog({8});
    EXPECT_EQ(this->mark(), 8U);
    EXPECT_EQ(this->versionsInLog(), (Versions{13}));
    this->log->cleanupEntryLog({12});
    EXPECT_EQ(this->mark(), 12U);
    EXPECT_EQ(this->versionsInLog(), (Versions{13}));
    this->log->cleanupEntryLog({13});
    EXPECT_EQ(this->versionsInLog(), Versions{});
}

TYPED_TEST(Cleanup, BackwardsVisitsWhatLiesBetweenAgain) {
    this->logVersionsThreeToTwelve();
    this->log->cleanupEntryLog({12});
    this->log->cleanupEntryLog({8});
    typename TestFixture::Record record;
    record.version = {9};
    record.unitId = kUnit;
    this->log->tableEntryLog()->entryLogConfigIs(record);
    this->log->cleanupEntryLog({12});
    EXPECT_EQ(this->versionsInLog(), Versions{});
}

TYPED_TEST(Cleanup, OfAnEmptyLogSetsTheMark) {
    this->log->cleanupEntryLog({5});
    EXPECT_EQ(this->mark(), 5U);
}

TYPED_TEST(Cleanup, ToVersionZeroRemovesNothing) {
    this->logVersionsThreeToTwelve();
    this->log->cleanupEntryLog({0});
    EXPECT_EQ(this->mark(), 0U);
    EXPECT_EQ(this->versionsInLog().size(), 10U);
    this->log->cleanupEntryLog({10});
    this->log->cleanupEntryLog({0});
    EXPECT_EQ(this->mark(), 0U);
    EXPECT_EQ(this->versionsInLog(), (Versions{11, 12}));
}

TYPED_TEST(Cleanup, ToAVersionFarAheadReturnsAtOnce) {
    this->logVersionsThreeToTwelve();
    const std::uint64_t farAhead = std::uint64_t{1} << 63U;
    this->log->cleanupEntryLog({farAhead});
    EXPECT_EQ(this->versionsInLog(), Versions{});
    EXPECT_EQ(this->mark(), farAhead);
    this->log->cleanupEntryLog({1});
    this->write(*this->log, 13);
    this->log->cleanupEntryLog({farAhead});
    EXPECT_EQ(this->versionsInLog(), Versions{}) << "also when it is not the first";
    this->log->cleanupEntryLog({std::numeric_limits<std::uint64_t>::max()});
    EXPECT_EQ(this->mark(), std::numeric_limits<std::uint64_t>::max());
}

TYPED_TEST(Cleanup, FirstAfterARestartWalksTheSurvivingLog) {
    this->logVersionsThreeToTwelve();
    this->del(*this->log, 5);
    this->log = nullptr;
    this->agent.restart();
    this->log = this->mountedLog();
    EXPECT_EQ(this->mark(), 0U);
    this->log->cleanupEntryLog({13});
    EXPECT_EQ(this->versionsInLog(), Versions{});
    EXPECT_FALSE(this->stored(5));
    EXPECT_TRUE(this->stored(6));
}

TYPED_TEST(Cleanup, OfAWriteKeepsItsValue) {
    const auto version = this->write(*this->log, 1);
    this->log->cleanupEntryLog(version);
    EXPECT_TRUE(this->log->entryHas(this->key(1), kUnit));
}

TYPED_TEST(Cleanup, OfADeletionReclaimsTheValue) {
    this->write(*this->log, 1);
    this->write(*this->log, 1, kOtherUnit);
    const auto version = this->del(*this->log, 1);
    this->log->cleanupEntryLog({version.value - 1});
    EXPECT_TRUE(this->stored(1));
    this->log->cleanupEntryLog(version);
    EXPECT_FALSE(this->stored(1));
    EXPECT_TRUE(this->stored(1, kOtherUnit));
    EXPECT_EQ(this->configReader().count(), 0U);
}

TYPED_TEST(Cleanup, OfADeletionKeepsAValueThatWasWrittenAgain) {
    for (std::uint32_t number = 1; number <= 4; ++number)
        this->write(*this->log, number);
    EXPECT_EQ(this->del(*this->log, 4).value, 5U);
    EXPECT_EQ(this->write(*this->log, 4).value, 6U);
    this->log->cleanupEntryLog({5});
    EXPECT_EQ(this->log->entryLogVersion(this->key(4), kUnit).value, 6U);
    EXPECT_TRUE(this->log->entryHas(this->key(4), kUnit));
}

TYPED_TEST(Cleanup, OfADeletionKeepsAValueThatWasDeletedAgain) {
    this->write(*this->log, 1);
    this->del(*this->log, 1);
    this->del(*this->log, 1);
    this->log->cleanupEntryLog({2});
    EXPECT_TRUE(this->stored(1));
    this->log->cleanupEntryLog({3});
    EXPECT_FALSE(this->stored(1));
}

TYPED_TEST(Cleanup, OfATableDeleteReclaimsValuesOfItsVersionOnly) {
    for (std::uint32_t number = 1; number <= 4; ++number)
        this->write(*this->log, number);
    this->store(*this->log, 5, 20, true);
    this->write(*this->log, 1, kOtherUnit);
    const auto version = this->log->tableDel(nullptr, kUnit);
    this->write(*this->log, 4);
    TraceCapture traces;
    this->log->cleanupEntryLog(version);
    for (std::uint32_t number = 1; number <= 3; ++number)
        EXPECT_FALSE(this->stored(number)) << number;
    EXPECT_TRUE(this->stored(4)) << "written again";
    EXPECT_TRUE(this->stored(5)) << "deleted by a record of its own";
    EXPECT_TRUE(this->stored(1, kOtherUnit));
    EXPECT_EQ(this->own(traces),
              (std::vector<TraceLine>{this->line(8, " version 6"),
                                      this->line(3, " deleteing all entries for unitId: 1")}));
}

TYPED_TEST(Cleanup, OfATableDeleteLeavesEarlierDeletionsToTheirOwnRecords) {
    for (std::uint32_t number = 1; number <= 3; ++number)
        this->write(*this->log, number);
    const auto deletion = this->del(*this->log, 1);
    const auto tableDelete = this->log->tableDel(nullptr, kUnit);
    EXPECT_EQ(this->log->configEntry(this->key(1), kUnit)->version, deletion);
    EXPECT_EQ(this->log->configEntry(this->key(2), kUnit)->version, tableDelete);
    this->log->cleanupEntryLog(deletion);
    EXPECT_FALSE(this->stored(1));
    EXPECT_TRUE(this->stored(2));
    this->log->cleanupEntryLog(tableDelete);
    EXPECT_EQ(this->configReader().count(), 0U);
}

// Deletions whose record is gone.

TYPED_TEST(Cleanup, OfADeletionWhoseRecordWasGivenUpReclaimsTheValue) {
    const std::uint64_t slots = this->logReader().slots();
    this->write(*this->log, 1);
    this->del(*this->log, 1);
    for (std::uint64_t i = 0; i < slots; ++i)
        this->write(*this->log, 2);
    ASSERT_FALSE(this->logReader().find(2).has_value());
    this->log->cleanupEntryLog({1});
    EXPECT_TRUE(this->stored(1)) << "hardware may still hold it";
    this->log->cleanupEntryLog(this->log->tableVersion());
    EXPECT_FALSE(this->stored(1));
    EXPECT_TRUE(this->stored(2));
}

TYPED_TEST(Cleanup, OfADeletionWhoseRecordWasGivenUpBeforeARestartReclaimsTheValue) {
    const std::uint64_t slots = this->logReader().slots();
    this->write(*this->log, 1);
    this->del(*this->log, 1);
    for (std::uint64_t i = 0; i < slots; ++i)
        this->write(*this->log, 2);
    this->log = nullptr;
    this->agent.restart();
    this->log = this->mountedLog();
    this->log->cleanupEntryLog({1});
    EXPECT_TRUE(this->stored(1)) << "hardware may still hold it";
    this->log->cleanupEntryLog({2});
    EXPECT_FALSE(this->stored(1));
    EXPECT_TRUE(this->stored(2));
}

TYPED_TEST(Cleanup, OfADeletionWhoseRecordIsRottenReclaimsTheValue) {
    this->write(*this->log, 1);
    this->log->cleanupEntryLog({1});
    this->del(*this->log, 1);
    this->spoilRecord(2);
    this->del(*this->log, 1);
    this->log->cleanupEntryLog({2});
    EXPECT_TRUE(this->stored(1)) << "it was deleted again";
    this->write(*this->log, 2);
    this->del(*this->log, 2);
    this->spoilRecord(5);
    this->log->cleanupEntryLog({5});
    EXPECT_EQ(this->log->entrysInDeletion(kUnit), 0U);
}

TYPED_TEST(Cleanup, OfADeletionWhoseLogWasLostReclaimsTheValue) {
    for (const Asic::UnitId unit : {kUnit, kOtherUnit}) {
        this->write(*this->log, 1, unit);
        this->del(*this->log, 1, unit);
    }
    this->log = nullptr;
    this->agent.restart();
    this->lose(this->logFile());
    this->log = this->mountedLog();
    this->log->cleanupEntryLog({3});
    EXPECT_TRUE(this->stored(1));
    this->log->cleanupEntryLog({4});
    EXPECT_FALSE(this->stored(1));
    EXPECT_FALSE(this->stored(1, kOtherUnit));
}

TYPED_TEST(Cleanup, OfADeletionWhoseRecordWasDroppedAtTheMountReclaimsTheValue) {
    this->write(*this->log, 1);
    this->del(*this->log, 1);
    this->write(*this->log, 2);
    this->spoilRecord(2);
    this->log = nullptr;
    this->agent.restart();
    this->log = this->mountedLog();
    this->log->cleanupEntryLog({3});
    EXPECT_FALSE(this->stored(1));
    EXPECT_TRUE(this->stored(2));
}

TYPED_TEST(Cleanup, OfAUnitThatIsMountedAfterwardsReclaimsTheValue) {
    this->write(*this->log, 1, kOtherUnit);
    const auto version = this->del(*this->log, 1, kOtherUnit);
    const auto live = this->write(*this->log, 2, kOtherUnit);
    this->del(*this->log, 2, kOtherUnit);
    this->log->tableConfigShimoDel(kOtherUnit);
    this->log->cleanupEntryLog(version);
    this->log->mountShimoConfig(kOtherUnit, {});
    EXPECT_FALSE(this->stored(1, kOtherUnit));
    EXPECT_TRUE(this->stored(2, kOtherUnit))
        << "hardware may still hold it, version " << live.value;
}

TYPED_TEST(Cleanup, OfAUnitWithoutConfigurationRemovesTheRecord) {
    this->write(*this->log, 1, kOtherUnit);
    const auto version = this->del(*this->log, 1, kOtherUnit);
    this->log->tableConfigShimoDel(kOtherUnit);
    TraceCapture traces;
    this->log->cleanupEntryLog(version);
    EXPECT_EQ(this->versionsInLog(), Versions{});
    EXPECT_EQ(this->own(traces),
              (std::vector<TraceLine>{this->line(8, " version 2"),
                                      this->line(3, " configShimo not found for unitId: 2"),
                                      this->line(3, " configShimo not found for unitId: 2")}));
}

TYPED_TEST(Cleanup, OperationIsTestedBitByBitTheLowestFirst) {
    this->store(*this->log, 1, 1, true);
    this->store(*this->log, 2, 1, true);
    typename TestFixture::Record record;
    record.version = {1};
    record.unitId = kUnit;
    record.key = this->key(1);
    record.operation = static_cast<LogOperation>(3);
    this->log->tableEntryLog()->entryLogConfigIs(record);
    this->log->cleanupEntryLog({1});
    EXPECT_FALSE(this->stored(1));
    EXPECT_TRUE(this->stored(2)) << "no table delete";
}

}  // namespace
