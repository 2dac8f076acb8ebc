// Tables of the past, and what lies between two entries.
#include "inspect/History.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Inspect::Change;
using Inspect::changesBetween;
using Inspect::Entry;
using Inspect::HeldEntries;
using Inspect::Json;
using Inspect::PastTable;
using Inspect::pastTable;
using Inspect::Table;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint64_t kAt = 10;

Entry value(const std::string& key, std::uint64_t version, bool inDeletion = false) {
    Entry entry;
    entry.id = {Table::v4, 1, key};
    entry.version = version;
    entry.inDeletion = inDeletion;
    entry.content = {{"key", key}, {"priority", version}};
    return entry;
}

HeldEntries heldAt(const std::string& key, std::uint64_t version) {
    return {{{Table::v4, 1, key}, {{{"key", key}, {"priority", version}}, version}}};
}

Change written(const std::string& key, std::uint64_t version) {
    return {Table::v4, version, 1, Change::Operation::written, key};
}

PastTable past(const std::vector<Entry>& values, const std::vector<Change>& since,
               const HeldEntries& held) {
    return pastTable(Table::v4, kAt, values, since, held);
}

TEST(HistoryTest, AValueOfThatVersionOrBeforeIsWhatTheTableHad) {
    const PastTable table = past({value("a", 3), value("b", kAt)}, {}, {});
    EXPECT_THAT(table.entries, SizeIs(2));
    EXPECT_THAT(table.notKept, IsEmpty());
}

TEST(HistoryTest, AValueThatWasReplacedSinceIsTakenFromHardware) {
    const PastTable table = past({value("a", 12)}, {written("a", 12)}, heldAt("a", 7));
    ASSERT_THAT(table.entries, SizeIs(1));
    EXPECT_TRUE(table.entries[0].fromHardware);
    EXPECT_EQ(table.entries[0].version, 7U);
}

TEST(HistoryTest, WithoutHardwareAReplacedValueIsNotKept) {
    const PastTable table = past({value("a", 12)}, {written("a", 12)}, {});
    EXPECT_THAT(table.entries, IsEmpty());
    EXPECT_THAT(table.notKept, SizeIs(1));
}

TEST(HistoryTest, HardwareThatHasTheLaterValueTellsNothing) {
    const PastTable table = past({value("a", 12)}, {written("a", 12)}, heldAt("a", 12));
    EXPECT_THAT(table.notKept, SizeIs(1));
}

TEST(HistoryTest, AValueThatWasRemovedBeforeWasNotThere) {
    const PastTable table = past({value("a", 9, true)}, {}, {});
    EXPECT_THAT(table.entries, IsEmpty());
    EXPECT_THAT(table.notKept, IsEmpty());
}

TEST(HistoryTest, AValueThatWasRemovedSinceIsTakenFromHardware) {
    const Change removed{Table::v4, 12, 1, Change::Operation::removed, "a"};
    const PastTable table = past({value("a", 12, true)}, {removed}, heldAt("a", 7));
    EXPECT_THAT(table.entries, SizeIs(1));
}

TEST(HistoryTest, WhatWasClearedSinceIsTakenFromHardware) {
    const Change cleared{Table::v4, 12, 1, Change::Operation::allRemoved, ""};
    EXPECT_THAT(past({}, {cleared}, heldAt("a", 7)).entries, SizeIs(1));
}

TEST(HistoryTest, ChangesBetweenEntriesNameEachFieldOnce) {
    const Json before{{"priority", 10}, {"fields", {{"dport", "179"}, {"ttl", "1"}}}};
    const Json after{{"priority", 20}, {"fields", {{"dport", "179"}, {"sport", "1"}}}};
    EXPECT_THAT(changesBetween(before, after),
                ElementsAre("priority 10 -> 20", "sport none -> 1", "ttl 1 -> none"));
    EXPECT_THAT(changesBetween(after, after), IsEmpty());
}

}  // namespace
