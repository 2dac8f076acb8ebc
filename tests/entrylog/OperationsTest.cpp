#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/entrylog/EntryLogFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class Operations : public EntryLogFixture<B> {
protected:
    using Log = VornPolicyCpu::EntryLog<B>;
    using NeededPtr = Brumo::Ptr<const Asic::NeededEntry>;

    Operations() { log = this->mountedLog(); }

    /// The lines of the entry log's handle from level 8 on, or one level.
    std::vector<TraceLine> own(const TraceCapture& traces, const std::string& function) {
        std::vector<TraceLine> lines;
        for (const TraceLine& each : traces.lines()) {
            if (each.handle == this->handle() && each.function == function)
                lines.push_back(each);
        }
        return lines;
    }
    TraceLine line(int level, const std::string& function, const std::string& text) {
        return {level, this->handle(), this->handle(), function, text};
    }
    static NeededPtr needing(std::uint64_t version) {
        const auto needed = Brumo::make<Asic::NeededEntry>();
        needed->add({Asic::SwTableId{0x2C080403}, {version}});
        return needed;
    }
    static std::string keysText(std::uint32_t number) {
        return fmt::format("{}", resourceKeysOf<B>(number));
    }
    std::string suppressing(std::uint32_t number) {
        return "Suppressing identical write for key: " + keysText(number);
    }
    std::string notSuppressing(std::uint32_t number) {
        return "Not Suppressing write because entry or resource key is different  for key: " +
               keysText(number);
    }

    Brumo::Ptr<Log> log;
};
TYPED_TEST_SUITE(Operations, AllBindings, TableName);

// Versions.

TYPED_TEST(Operations, HandOutOneVersionEachSharedByAllUnits) {
    EXPECT_EQ(this->write(*this->log, 1).value, 1U);
    EXPECT_EQ(this->write(*this->log, 1, kOtherUnit).value, 2U);
    EXPECT_EQ(this->del(*this->log, 1).value, 3U);
    EXPECT_EQ(this->log->tableDel(nullptr, kOtherUnit).value, 4U);
    EXPECT_EQ(this->log->tableDel(nullptr, kOtherUnit).value, 5U) << "also of an empty unit";
    EXPECT_EQ(this->log->tableVersion().value, 5U);
    EXPECT_EQ(this->versionsInLog(), (std::vector<std::uint64_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(this->logReader().scratchpad(), 5U);
}

// Writing.

TYPED_TEST(Operations, WriteTracesItsArgumentsWithItsVersion) {
    TraceCapture traces;
    this->log->entryIs(logEntryOf<TypeParam>(1), resourceKeysOf<TypeParam>(1), this->needing(9),
                       kUnit, this->stats, false);
    EXPECT_EQ(this->own(traces, "entryIs"),
              (std::vector<TraceLine>{this->line(
                  8, "entryIs",
                  fmt::format(" logEntry: {} neededEntry: {{2c:08:0403@9}} version: 1 unitId: 1 "
                              "suppressIdenticalWrites: false",
                              logEntryOf<TypeParam>(1)))}));
}

TYPED_TEST(Operations, WriteStoresTheValueUnderItsKey) {
    this->write(*this->log, 1);
    const auto version = this->write(*this->log, 7);
    const auto value = this->configReader().find(this->key(7));
    ASSERT_TRUE(value.has_value());
    EXPECT_TRUE(value->key().isEq(this->key(7)));
    EXPECT_TRUE(value->logEntry.isEq(logEntryOf<TypeParam>(7)));
    EXPECT_TRUE(value->rsrcKeys.isEq(resourceKeysOf<TypeParam>(7)));
    EXPECT_EQ(value->version, version);
    EXPECT_FALSE(value->inDeletion);
    EXPECT_FALSE(this->configReader(kOtherUnit).find(this->key(7)).has_value());
}

TYPED_TEST(Operations, WriteAgainReplacesTheValue) {
    this->write(*this->log, 1);
    this->log->entryIs(logEntryOf<TypeParam>(1, 0x77), resourceKeysOf<TypeParam>(1), nullptr, kUnit,
                       this->stats, false);
    EXPECT_EQ(this->log->entrys(kUnit), 1U);
    EXPECT_TRUE(this->log->entry(this->key(1), kUnit).isEq(logEntryOf<TypeParam>(1, 0x77)));
    EXPECT_EQ(this->log->entryLogVersion(this->key(1), kUnit).value, 2U);
}

TYPED_TEST(Operations, WriteToAUnitWithoutConfigurationDies) {
    EXPECT_DEATH(this->write(*this->log, 1, {9}),
                 ::testing::HasSubstr("assertion failed: tableConfigShimoHas( unitId ): "
                                      "Config shimo for unitId:9 is not created yet!"));
}

// Suppression.

TYPED_TEST(Operations, IdenticalWriteIsSuppressedWhenAsked) {
    const auto first = this->write(*this->log, 1);
    TraceCapture traces;
    EXPECT_EQ(this->write(*this->log, 1, kUnit, true), first);
    EXPECT_EQ(this->stats->suppressedWriteCnt(), 1U);
    EXPECT_EQ(this->stats->suppressCheckDiffCnt(), 0U);
    EXPECT_EQ(this->log->tableVersion(), first);
    EXPECT_EQ(this->versionsInLog().size(), 1U);
    EXPECT_EQ(this->announcements().size(), 1U);
    EXPECT_EQ(this->own(traces, "entryIs"),
              (std::vector<TraceLine>{this->line(3, "entryIs", this->suppressing(1))}));
}

TYPED_TEST(Operations, IdenticalWriteTakesAVersionWhenNotSuppressed) {
    this->write(*this->log, 1);
    EXPECT_EQ(this->write(*this->log, 1).value, 2U);
    EXPECT_EQ(this->stats->suppressedWriteCnt(), 0U);
}

TYPED_TEST(Operations, WriteOfAnotherLogEntryIsNotSuppressed) {
    this->write(*this->log, 1);
    TraceCapture traces;
    EXPECT_EQ(this->log
                  ->entryIs(logEntryOf<TypeParam>(1, 0x77), resourceKeysOf<TypeParam>(1), nullptr,
                            kUnit, this->stats, true)
                  .value,
              2U);
    EXPECT_EQ(this->stats->suppressCheckDiffCnt(), 1U);
    EXPECT_EQ(this->stats->suppressedWriteCnt(), 0U);
    EXPECT_EQ(traces.texts(this->handle(), 3), (std::vector<std::string>{this->notSuppressing(1)}));
}

TYPED_TEST(Operations, WriteOfAnAbsentKeyIsNeitherSuppressedNorCounted) {
    TraceCapture traces;
    EXPECT_EQ(this->write(*this->log, 1, kUnit, true).value, 1U);
    EXPECT_TRUE(traces.texts(this->handle(), 3).empty());
    EXPECT_EQ(this->stats->suppressedWriteCnt() + this->stats->suppressCheckDiffCnt(), 0U);
}

TYPED_TEST(Operations, WriteOfAKeyInDeletionIsNeitherSuppressedNorCounted) {
    this->write(*this->log, 1);
    this->del(*this->log, 1);
    TraceCapture traces;
    EXPECT_EQ(this->write(*this->log, 1, kUnit, true).value, 3U);
    EXPECT_TRUE(traces.texts(this->handle(), 3).empty());
    EXPECT_EQ(this->stats->suppressedWriteCnt() + this->stats->suppressCheckDiffCnt(), 0U);
    EXPECT_TRUE(this->log->entryHas(this->key(1), kUnit)) << "written again, it is alive";
}

TYPED_TEST(Operations, IdenticalWriteOverAValueOfVersionZeroIsWritten) {
    this->store(*this->log, 1, 0, false);
    TraceCapture traces;
    EXPECT_EQ(this->write(*this->log, 1, kUnit, true).value, 1U);
    EXPECT_EQ(this->stats->suppressedWriteCnt(), 1U);
    EXPECT_EQ(traces.texts(this->handle(), 3), (std::vector<std::string>{this->suppressing(1)}));
    EXPECT_EQ(this->log->entryLogVersion(this->key(1), kUnit).value, 1U);
}

TYPED_TEST(Operations, StoredDefaultValueCountsAsAbsentForSuppression) {
    this->log->tableConfigShimo(kUnit)->swTableEntriesIs({});
    TraceCapture traces;
    for (const std::uint32_t word : {0U, 0x77U}) {
        auto logEntry = logEntryOf<TypeParam>(0, word);
        logEntry.key = typename TypeParam::Key{};
        this->log->tableConfigShimo(kUnit)->swTableEntriesIs({});
        this->log->entryIs(logEntry, {}, nullptr, kUnit, this->stats, true);
    }
    EXPECT_TRUE(traces.texts(this->handle(), 3).empty());
    EXPECT_EQ(this->stats->suppressedWriteCnt() + this->stats->suppressCheckDiffCnt(), 0U);
}

using ActionOperations = Operations<PolicyCpuTcamActionBinding>;

TEST_F(ActionOperations, WriteWithOtherResourceKeysIsNotSuppressed) {
    write(*log, 1);
    TraceCapture traces;
    const auto logEntry = logEntryOf<PolicyCpuTcamActionBinding>(1);
    EXPECT_EQ(log->entryIs(logEntry, resourceKeysOf<PolicyCpuTcamActionBinding>(2), nullptr, kUnit,
                           stats, true)
                  .value,
              2U);
    EXPECT_EQ(stats->suppressCheckDiffCnt(), 1U);
    EXPECT_EQ(traces.texts(handle(), 3), (std::vector<std::string>{notSuppressing(2)}));
}

// Room.

TYPED_TEST(Operations, FullConfigurationKeepsItsValuesAndTakesRewrites) {
    KivShimo::EntityManager::capacityCeilingIs(4);
    this->log->mountShimoConfig({3}, {});
    for (std::uint32_t number = 1; number <= 4; ++number) {
        EXPECT_TRUE(this->log->entryHasRoom(this->key(number), {3}));
        this->write(*this->log, number, {3});
    }
    EXPECT_FALSE(this->log->entryHasRoom(this->key(5), {3}));
    EXPECT_TRUE(this->log->entryHasRoom(this->key(4), {3}));
    this->write(*this->log, 5, {3});
    EXPECT_EQ(this->log->entrys({3}), 4U);
    EXPECT_FALSE(this->log->entryHas(this->key(5), {3}));
    const auto version = this->write(*this->log, 4, {3});
    EXPECT_EQ(this->log->entryLogVersion(this->key(4), {3}), version);
    this->log->tableConfigShimo({3})->swTableEntriesDel(this->key(1));
    EXPECT_TRUE(this->log->entryHasRoom(this->key(5), {3}));
}

TYPED_TEST(Operations, ChangeWhosePlaceInTheLogIsTakenGivesUpTheOldRecord) {
    typename TestFixture::Record straggler;
    straggler.version = {1 + this->logReader().slots()};
    this->log->tableEntryLog()->entryLogConfigIs(straggler);
    TraceCapture traces;
    EXPECT_EQ(this->write(*this->log, 1).value, 1U);
    EXPECT_TRUE(traces.has(this->handle(), 1,
                           fmt::format(" no room in change log for version: 1, given up: {}",
                                       straggler.version.value)));
    EXPECT_TRUE(this->logReader().find(1).has_value());
    EXPECT_TRUE(this->log->entryHas(this->key(1), kUnit));
}

// Deleting.

TYPED_TEST(Operations, DeleteOfAnAbsentKeyIsIgnored) {
    TraceCapture traces;
    EXPECT_EQ(this->log->entryDel(this->key(1), this->needing(4), kUnit).value, 0U);
    EXPECT_EQ(this->log->tableVersion().value, 0U);
    EXPECT_TRUE(this->versionsInLog().empty());
    EXPECT_TRUE(this->announcements().empty());
    const std::string text = fmt::format("{}", this->key(1));
    EXPECT_EQ(
        this->own(traces, "entryDel"),
        (std::vector<TraceLine>{
            this->line(8, "entryDel", " key:" + text + " neededEntry: {2c:08:0403@4} unitId: 1"),
            this->line(3, "entryDel",
                       " key: " + text + " entry does not exist. So ignoring delete")}));
}

TYPED_TEST(Operations, DeletedKeyIsAbsentButItsDeletionCanBeRead) {
    this->write(*this->log, 1);
    EXPECT_EQ(this->del(*this->log, 1).value, 2U);
    EXPECT_FALSE(this->log->entryHas(this->key(1), kUnit));
    EXPECT_TRUE(this->log->entry(this->key(1), kUnit).isEq(typename TypeParam::LogEntry{}));
    EXPECT_EQ(this->log->entryLogVersion(this->key(1), kUnit).value, 2U);
    EXPECT_TRUE(this->log->entryRsrcKeys(this->key(1), kUnit).isEq(resourceKeysOf<TypeParam>(1)));
    const auto value = this->log->configEntry(this->key(1), kUnit);
    EXPECT_TRUE(value->logEntry.isEq(logEntryOf<TypeParam>(1))) << "the log entry is kept";
    EXPECT_EQ(this->log->entrys(kUnit), 0U);
    EXPECT_EQ(this->log->entrysInDeletion(kUnit), 1U);
}

TYPED_TEST(Operations, KeyInDeletionIsDeletedAgain) {
    this->write(*this->log, 1);
    this->del(*this->log, 1);
    EXPECT_EQ(this->del(*this->log, 1).value, 3U);
    EXPECT_EQ(this->log->entryLogVersion(this->key(1), kUnit).value, 3U);
    EXPECT_EQ(this->versionsInLog().size(), 3U);
    EXPECT_EQ(this->log->entrysInDeletion(kUnit), 1U);
}

TYPED_TEST(Operations, TableDeleteMarksLiveKeysAndKeepsEarlierDeletions) {
    this->write(*this->log, 1);
    this->store(*this->log, 2, 5, true);
    this->write(*this->log, 3, kOtherUnit);
    TraceCapture traces;
    const auto version = this->log->tableDel(this->needing(4), kUnit);
    EXPECT_EQ(version.value, 3U);
    EXPECT_EQ(this->log->entryLogVersion(this->key(1), kUnit), version);
    EXPECT_EQ(this->log->entryLogVersion(this->key(2), kUnit).value, 5U);
    EXPECT_EQ(this->log->entrys(kUnit), 0U);
    EXPECT_EQ(this->log->entrysInDeletion(kUnit), 2U);
    EXPECT_TRUE(this->log->entryHas(this->key(3), kOtherUnit)) << "the other unit's stay";
    EXPECT_EQ(this->own(traces, "tableDel"),
              (std::vector<TraceLine>{
                  this->line(8, "tableDel", " neededEntry:{2c:08:0403@4}, unitId: 1")}));
}

// Reading.

TYPED_TEST(Operations, ReadsOfAnAbsentKeyGiveDefaults) {
    EXPECT_TRUE(this->log->entry(this->key(1), kUnit).isEq(typename TypeParam::LogEntry{}));
    EXPECT_FALSE(this->log->entryHas(this->key(1), kUnit));
    EXPECT_TRUE(
        this->log->entryRsrcKeys(this->key(1), kUnit).isEq(typename TypeParam::ResourceKeys{}));
    EXPECT_EQ(this->log->entryLogVersion(this->key(1), kUnit).value, 0U);
    EXPECT_EQ(this->log->entrys(kUnit), 0U);
    EXPECT_EQ(this->log->entrysInDeletion(kUnit), 0U);
}

TYPED_TEST(Operations, ReadsGiveWhatWasWritten) {
    const auto version = this->write(*this->log, 1);
    EXPECT_TRUE(this->log->entry(this->key(1), kUnit).isEq(logEntryOf<TypeParam>(1)));
    EXPECT_TRUE(this->log->entryHas(this->key(1), kUnit));
    EXPECT_TRUE(this->log->entryRsrcKeys(this->key(1), kUnit).isEq(resourceKeysOf<TypeParam>(1)));
    EXPECT_EQ(this->log->entryLogVersion(this->key(1), kUnit), version);
    EXPECT_EQ(this->log->entrys(kUnit), 1U);
}

TYPED_TEST(Operations, ReadsTraceTheirKeyAndUnit) {
    TraceCapture traces;
    static_cast<void>(this->log->entry(this->key(1), kUnit));
    static_cast<void>(this->log->entryHas(this->key(1), kUnit));
    static_cast<void>(this->log->entryRsrcKeys(this->key(1), kUnit));
    static_cast<void>(this->log->entryLogVersion(this->key(1), kUnit));
    static_cast<void>(this->log->entrys(kUnit));
    const std::string keyAndUnit = fmt::format(" key: {} unitId:1", this->key(1));
    EXPECT_EQ(
        traces.lines(),
        (std::vector<TraceLine>{
            this->line(8, "entry", keyAndUnit), this->line(8, "entryHas", keyAndUnit),
            this->line(8, "entryRsrcKeys", keyAndUnit),
            this->line(8, "entryLogVersion", keyAndUnit), this->line(8, "entrys", " unitId:1"),
            this->line(8, "entrysInDeletion", " unitId:1")}));
}

TYPED_TEST(Operations, CountOfAUnitWithoutConfigurationDies) {
    EXPECT_DEATH(static_cast<void>(this->log->entrys({9})),
                 ::testing::HasSubstr("tableConfigShimoHas( unitId )"));
}

// Change records, byte by byte, as the hardware side gets them.

template <class LogEntry, class Key>
std::vector<std::uint8_t> recordBytes(std::uint64_t version, const LogEntry* logEntry,
                                      const Key& key, std::uint32_t word, std::uint8_t operation) {
    std::vector<std::uint8_t> bytes(32, 0);
    const std::uint32_t defaultHead[2] = {1, 0xFFFFFFFF};
    const std::uint16_t unit = kOtherUnit.value;
    std::memcpy(bytes.data(), &version, 8);
    std::memcpy(bytes.data() + 8,
                logEntry == nullptr ? static_cast<const void*>(defaultHead) : logEntry, 8);
    std::memcpy(bytes.data() + 16, &key, 8);
    std::memcpy(bytes.data() + 24, &word, 4);
    std::memcpy(bytes.data() + 28, &unit, 2);
    bytes[30] = operation;
    return bytes;
}

template <class Record>
std::vector<std::uint8_t> bytesOf(const std::optional<Record>& record) {
    std::vector<std::uint8_t> bytes(sizeof(Record), 0xEE);
    if (record.has_value())
        std::memcpy(bytes.data(), &*record, sizeof(Record));
    return bytes;
}

TYPED_TEST(Operations, EachChangeLeavesARecordOfThirtyTwoBytes) {
    auto logEntry = logEntryOf<TypeParam>(3, 0x123456);
    logEntry.head = LogEntryHead{.revision = 1, .origin = 0x99};
    this->log->entryIs(logEntry, {}, nullptr, kOtherUnit, this->stats, false);
    this->del(*this->log, 3, kOtherUnit);
    this->log->tableDel(nullptr, kOtherUnit);
    const auto reader = this->logReader();
    const auto key = this->key(3);
    EXPECT_EQ(bytesOf(reader.find(1)), recordBytes(1, &logEntry, key, 0x123456, 0));
    EXPECT_EQ(bytesOf(reader.find(2)), recordBytes(2, &logEntry, key, 0x123456, 1));
    EXPECT_EQ(bytesOf(reader.find(3)),
              recordBytes(3, static_cast<const decltype(logEntry)*>(nullptr),
                          typename TypeParam::Key{}, 0xFFFFFF, 2));
}

TYPED_TEST(Operations, EachChangeIsAnnouncedWithWhatItNeeds) {
    this->log->entryIs(logEntryOf<TypeParam>(1), {}, this->needing(5), kUnit, this->stats, false);
    this->log->entryDel(this->key(1), this->needing(6), kUnit);
    this->log->tableDel(this->needing(7), kUnit);
    this->write(*this->log, 2);
    const auto announced = this->announcements();
    ASSERT_EQ(announced.size(), 4U);
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(announced[i].tableId, TypeParam::kTableId.whole());
        EXPECT_EQ(announced[i].version, i + 1);
        if (i == 3)
            continue;
        const std::vector<KivShimo::NeededVersion> needed{{0x2C080403, i + 5}};
        EXPECT_EQ(announced[i].needed, needed);
    }
    EXPECT_TRUE(announced[3].needed.empty());
}

}  // namespace
