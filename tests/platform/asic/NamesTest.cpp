#include <gtest/gtest.h>

#include "platform/asic/CanonicalTableName.h"
#include "platform/asic/Constants.h"
#include "platform/asic/NeededEntry.h"
#include "platform/asic/Versions.h"

namespace {

using namespace Asic;

constexpr SwTableId kTable{0x2C080403};
constexpr SwTableId kOther{0x2C080404};

TEST(CanonicalTableName, IsMadeByTheTypeOfTheTable) {
    EXPECT_EQ(CanonicalTableName(TableType::ordered, "Own", "Second").name(),
              "OrderedSwTable.Second.Own");
    EXPECT_EQ(CanonicalTableName(TableType::partiallyOrdered, "Own", "Second").name(),
              "PartiallyOrderedSwTable.Own");
    EXPECT_EQ(CanonicalTableName(TableType::resource, "Own", "Second").name(),
              "ResourceTable.Second::Own");
}

TEST(CanonicalTableNameDeathTest, EndsTheProcessForAnyOtherType) {
    EXPECT_DEATH(canonicalName(static_cast<TableType>(3), "Own", "Second"),
                 "Table type undefined!");
}

TEST(SwTableIdTest, PrintsItsPartsInHexadecimal) {
    EXPECT_EQ(kTable.toText(), "2c:08:0403");
    EXPECT_EQ(fmt::format("{}", SwTableId(0xA, 0xB, 0xC)), "0a:0b:000c");
}

TEST(SwTableIdTest, IsOneWholeOfItsParts) {
    EXPECT_EQ(kTable.agentId, 0x2C);
    EXPECT_EQ(kTable.groupId, 0x08);
    EXPECT_EQ(kTable.tblId, 0x0403);
    EXPECT_EQ(kTable.whole(), 0x2C080403U);
    EXPECT_EQ(kTable.agentAndGroupId(), 0x2C08);
    EXPECT_TRUE(kTable.isEq(SwTableId(0x2C, 0x08, 0x0403)));
    EXPECT_FALSE(kTable.isEq(kOther));
}

TEST(EntryVersionTest, IsInvalidOnlyWithAllBitsSetInBothParts) {
    EXPECT_FALSE(EntryVersion{}.valid());
    EXPECT_TRUE((EntryVersion{0, 0}.valid()));
    EXPECT_TRUE((EntryVersion{~0ULL, 0}.valid()));
    EXPECT_TRUE((EntryVersion{0, 0xFFFF}.valid()));
}

TEST(EntryVersionTest, CountsTheSequenceAndKeepsTheGeneration) {
    const EntryVersion next = EntryVersion{4, 7}.next();
    EXPECT_TRUE(next.isEq({5, 7}));
}

TEST(MajorVersionTest, IsInvalidWithAllBitsSet) {
    EXPECT_FALSE(MajorVersion{}.valid());
    EXPECT_TRUE(MajorVersion{0}.valid());
}

TEST(NeededEntryTest, KeepsTheHighestVersionOfATable) {
    NeededEntry needed;
    needed.add({kTable, {5}});
    needed.add({kTable, {9}});
    needed.add({kTable, {7}});
    EXPECT_EQ(needed.size(), 1U);
    EXPECT_EQ(needed.begin()->version.value, 9U);
}

TEST(NeededEntryTest, KeepsNoVersionZero) {
    NeededEntry needed;
    needed.add({kTable, {0}});
    EXPECT_TRUE(needed.empty());
    EXPECT_EQ(needed.toText(), "{}");
}

TEST(NeededEntryTest, KeepsHoweverManyTablesAreNeeded) {
    constexpr std::uint16_t kTables = 10;
    NeededEntry needed;
    for (std::uint16_t table = 1; table <= kTables; ++table) {
        needed.add({SwTableId(0x2C, 8, table), {table}});
        needed.add({SwTableId(0x2C, 8, 1), {table}});
        EXPECT_EQ(needed.size(), table);
        EXPECT_EQ(needed.begin()->version.value, table);
    }
    std::uint64_t seen = 1;
    for (const TableVersion& version : needed) {
        EXPECT_EQ(version.tableId, SwTableId(0x2C, 8, static_cast<std::uint16_t>(seen)));
        EXPECT_EQ(version.version.value, seen == 1 ? kTables : seen);
        ++seen;
    }
    EXPECT_EQ(seen, kTables + 1U);
}

TEST(NeededEntryTest, MergesAnotherSetInTheOrderOfAddition) {
    NeededEntry first;
    first.add({kOther, {1}});
    NeededEntry second;
    second.add({kTable, {2}});
    second.add({kOther, {3}});
    first.add(second);
    EXPECT_EQ(first.toText(), "{2c:08:0404@3, 2c:08:0403@2}");
}

TEST(Paths, NameTheUnitOfAConfiguration) {
    const auto path = Constants::tableConfigPath("Agent.Group", "Table", {17});
    EXPECT_EQ(Constants::getUnitIdFromConfigPath(path), UnitId{17});
    EXPECT_EQ(Constants::getUnitIdFromConfigPath("17"), UnitId{17});
    EXPECT_FALSE(Constants::getUnitIdFromConfigPath("a/x").has_value());
    EXPECT_FALSE(Constants::getUnitIdFromConfigPath("a/1x").has_value());
    EXPECT_FALSE(Constants::getUnitIdFromConfigPath("a/65536").has_value());
    EXPECT_FALSE(Constants::getUnitIdFromConfigPath("a/").has_value());
}

}  // namespace
