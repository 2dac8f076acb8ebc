#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/entrylog/EntryLogFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class Corruption : public EntryLogFixture<B> {
protected:
    Corruption() {
        log = this->mountedLog();
        for (std::uint32_t number = 1; number <= 3; ++number)
            this->write(*log, number);
        keys = this->keysInOrder();
    }

    std::uint64_t reported() { return log->tableConfigShimo(kUnit)->corruptions(); }

    typename EntryLogFixture<B>::LogPtr log;
    std::vector<typename B::Key> keys;
};
TYPED_TEST_SUITE(Corruption, AllBindings, TableName);

TYPED_TEST(Corruption, ReadsGiveDefaultsAndReportIt) {
    this->spoilValue(this->keys[1]);
    TraceCapture traces;
    EXPECT_TRUE(this->log->entry(this->keys[1], kUnit).isEq(typename TypeParam::LogEntry{}));
    EXPECT_FALSE(this->log->entryHas(this->keys[1], kUnit));
    EXPECT_TRUE(this->log->entryRsrcKeys(this->keys[1], kUnit).isEq({}));
    EXPECT_EQ(this->log->entryLogVersion(this->keys[1], kUnit).value, 0U);
    EXPECT_EQ(this->reported(), 4U);
    const auto failures = traces.texts("KivShimo", 1);
    ASSERT_EQ(failures.size(), 4U);
    EXPECT_NE(failures[0].find(this->configFile(kUnit)), std::string::npos) << failures[0];
    EXPECT_NE(failures[0].find("swTableEntries"), std::string::npos) << failures[0];
}

TYPED_TEST(Corruption, LeavesOtherKeysAlone) {
    this->spoilValue(this->keys[1]);
    EXPECT_TRUE(this->log->entryHas(this->keys[0], kUnit));
    EXPECT_TRUE(this->log->entryHas(this->keys[2], kUnit));
    EXPECT_EQ(this->reported(), 0U);
}

TYPED_TEST(Corruption, DeleteOfACorruptKeyIsIgnored) {
    this->spoilValue(this->keys[1]);
    EXPECT_EQ(this->log->entryDel(this->keys[1], nullptr, kUnit).value, 0U);
    EXPECT_EQ(this->log->tableVersion().value, 3U);
    EXPECT_EQ(this->reported(), 1U);
}

TYPED_TEST(Corruption, SuppressedWriteOfACorruptKeyIsWrittenAndRepairsIt) {
    this->spoilValue(this->keys[1]);
    const auto stored = logEntryOf<TypeParam>(2);
    auto logEntry = stored;
    logEntry.key = this->keys[1];
    const auto version = this->log->entryIs(logEntry, {}, nullptr, kUnit, this->stats, true);
    EXPECT_EQ(version.value, 4U);
    EXPECT_EQ(this->stats->suppressedWriteCnt() + this->stats->suppressCheckDiffCnt(), 0U);
    EXPECT_EQ(this->reported(), 1U);
    EXPECT_TRUE(this->log->entryHas(this->keys[1], kUnit));
    EXPECT_EQ(this->reported(), 1U);
}

TYPED_TEST(Corruption, CountOfKeysInDeletionEndsThere) {
    for (const auto& key : this->keys)
        this->log->entryDel(key, nullptr, kUnit);
    EXPECT_EQ(this->log->entrysInDeletion(kUnit), 3U);
    this->spoilValue(this->keys[1]);
    EXPECT_EQ(this->log->entrysInDeletion(kUnit), 1U);
    EXPECT_EQ(this->reported(), 1U);
}

TYPED_TEST(Corruption, TableDeleteGoesOnBehindIt) {
    this->spoilValue(this->keys[1]);
    const auto version = this->log->tableDel(nullptr, kUnit);
    EXPECT_EQ(version.value, 4U);
    EXPECT_EQ(this->reported(), 1U);
    EXPECT_FALSE(this->log->entryHas(this->keys[0], kUnit));
    EXPECT_FALSE(this->log->entryHas(this->keys[2], kUnit));
    EXPECT_EQ(this->versionsInLog().back(), 4U);
}

TYPED_TEST(Corruption, FirstCleanupEndsThere) {
    this->spoilRecord(2);
    this->log->cleanupEntryLog({3});
    EXPECT_EQ(this->log->tableEntryLog()->corruptions(), 1U);
    EXPECT_EQ(this->log->cleanedUpTo().value, 3U);
    EXPECT_EQ(this->log->entryLogConfigs(), 1U) << "what cannot be read is given up too";
    EXPECT_FALSE(this->logReader().find(1).has_value());
    EXPECT_FALSE(this->logReader().find(2).has_value());
    EXPECT_TRUE(this->logReader().find(3).has_value());
    this->log->cleanupEntryLog({3});
    EXPECT_EQ(this->log->entryLogConfigs(), 0U) << "the next one takes what was left";
}

TYPED_TEST(Corruption, LaterCleanupGoesOnBehindIt) {
    this->log->cleanupEntryLog({1});
    this->spoilRecord(2);
    this->log->cleanupEntryLog({3});
    EXPECT_EQ(this->log->tableEntryLog()->corruptions(), 1U);
    EXPECT_EQ(this->log->entryLogConfigs(), 0U) << "what cannot be read is given up too";
    EXPECT_FALSE(this->logReader().find(2).has_value());
    EXPECT_FALSE(this->logReader().find(3).has_value());
    EXPECT_EQ(this->log->cleanedUpTo().value, 3U);
}

TYPED_TEST(Corruption, ReclaimOfADeletedKeyKeepsACorruptValue) {
    const auto version = this->log->entryDel(this->keys[1], nullptr, kUnit);
    this->spoilValue(this->keys[1]);
    this->log->cleanupEntryLog(version);
    EXPECT_EQ(this->reported(), 1U);
    EXPECT_EQ(this->log->entryLogConfigs(), 0U);
    EXPECT_EQ(this->log->tableConfigShimo(kUnit)->swTableEntriesCount(), 3U);
}

TYPED_TEST(Corruption, ReclaimOfATableDeleteLeavesNoOtherValueInDeletion) {
    const auto version = this->log->tableDel(nullptr, kUnit);
    this->spoilValue(this->keys[1]);
    this->log->cleanupEntryLog(version);
    EXPECT_GE(this->reported(), 1U);
    EXPECT_EQ(this->log->entryLogConfigs(), 0U);
    EXPECT_FALSE(this->log->configEntry(this->keys[0], kUnit).has_value());
    EXPECT_FALSE(this->log->configEntry(this->keys[2], kUnit).has_value());
    EXPECT_EQ(this->log->cleanedUpTo(), version);
}

}  // namespace
