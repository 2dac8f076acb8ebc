#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <numeric>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/entrylog/Bindings.h"
#include "types/Constants.h"
#include "types/Shimo.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class Record>
std::vector<std::uint8_t> bytesOf(const Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    std::vector<std::uint8_t> bytes(sizeof(Record));
    std::memcpy(bytes.data(), &record, sizeof(Record));
    return bytes;
}

template <class Number>
Number numberAt(const std::vector<std::uint8_t>& bytes, std::size_t at) {
    Number number{};
    std::memcpy(&number, bytes.data() + at, sizeof(number));
    return number;
}

/// Bytes that all differ, so that none can stand in the place of another.
template <class Value>
Value counted() {
    static_assert(std::is_trivially_copyable_v<Value>);
    std::array<std::uint8_t, sizeof(Value)> bytes{};
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
    Value value;
    std::memcpy(static_cast<void*>(&value), bytes.data(), sizeof(Value));
    return value;
}

template <class Words>
std::vector<std::uint64_t> wordsIn(const Words& words) {
    return {std::begin(words), std::end(words)};
}

template <class B>
class Records : public ::testing::Test {};
TYPED_TEST_SUITE(Records, AllBindings, TableName);

TYPED_TEST(Records, KeyIsEightBytesOrderedAndHashedWithASeed) {
    using Key = typename TypeParam::Key;
    static_assert(sizeof(Key) == 8);
    const Key low = keyOf<TypeParam>(1);
    const Key high = keyOf<TypeParam>(2);
    EXPECT_TRUE(low.isEq(keyOf<TypeParam>(1)));
    EXPECT_FALSE(low.isEq(high));
    EXPECT_TRUE((low <=> high) < 0);
    EXPECT_EQ(low.hash(3U), keyOf<TypeParam>(1).hash(3U));
    EXPECT_NE(low.hash(3U), low.hash(4U));
    EXPECT_NE(fmt::format("{}", low), fmt::format("{}", high));
}

TYPED_TEST(Records, ChangeRecordGivesTheWordsThatItLiesInMemoryAs) {
    const auto record = counted<LogShimoEntry<typename TypeParam::Key>>();
    std::array<std::uint64_t, 4> inMemory{};
    std::memcpy(inMemory.data(), &record, sizeof(record));
    EXPECT_EQ(record.words(), inMemory);
}

TYPED_TEST(Records, ValueIsPutTogetherAsItLiesInMemory) {
    using Types = typename TypeParam::Types;
    using Value = ConfigShimoEntry<typename Types::Key, typename Types::LogEntry,
                                   typename Types::ResourceKeys>;
    Value value{};
    value.logEntry = counted<typename Types::LogEntry>();
    value.entryKey = value.logEntry.key;
    if constexpr (!std::is_empty_v<typename Types::ResourceKeys>)
        value.rsrcKeys = counted<typename Types::ResourceKeys>();
    value.version = {0x1122334455667788};
    const auto words = Value::wordsOf(value.logEntry, value.rsrcKeys, value.version);
    EXPECT_EQ(wordsIn(words.words), wordsIn(KivShimo::Words<Value>(value).words));
}

TYPED_TEST(Records, ChangeRecordIsThirtyTwoBytesWithEveryFieldInItsPlace) {
    using Record = LogShimoEntry<typename TypeParam::Key>;
    Record record;
    record.version.value = 0x1122334455667788;
    record.head = {0xA1A2A3A4, 0xB1B2B3B4};
    record.key = keyOf<TypeParam>(0xC1C2C3C4);
    record.word = 0xD1D2D3D4;
    record.unitId.value = 0xE1E2;
    record.operation = LogOperation::allDeleted;
    const auto bytes = bytesOf(record);
    ASSERT_EQ(bytes.size(), 32U);
    EXPECT_EQ(numberAt<std::uint64_t>(bytes, 0), 0x1122334455667788U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 8), 0xA1A2A3A4U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 12), 0xB1B2B3B4U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 16), 0xC1C2C3C4U);
    EXPECT_EQ(bytes[20], 0x55U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 24), 0xD1D2D3D4U);
    EXPECT_EQ(numberAt<std::uint16_t>(bytes, 28), 0xE1E2U);
    EXPECT_EQ(bytes[30], 2U);
    EXPECT_EQ(bytes[31], 0U);
}

TYPED_TEST(Records, DefaultChangeRecordIsNoVersionNoUnitAndOperationZero) {
    const auto bytes = bytesOf(LogShimoEntry<typename TypeParam::Key>{});
    EXPECT_EQ(numberAt<std::uint64_t>(bytes, 0), 0U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 8), 1U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 12), 0xFFFFFFFFU);
    EXPECT_EQ(numberAt<std::uint64_t>(bytes, 16), 0U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 24), 0xFFFFFFU);
    EXPECT_EQ(numberAt<std::uint16_t>(bytes, 28), 0xFFFFU);
    EXPECT_EQ(bytes[30], 0U);
    EXPECT_EQ(bytes[31], 0U);
}

TYPED_TEST(Records, DefaultConfigurationValueHasNoVersionAndIsNotInDeletion) {
    using Value = typename ConfigShimo<typename TypeParam::Types>::Value;
    const Value value{};
    EXPECT_EQ(value.version.value, 0U);
    EXPECT_FALSE(value.inDeletion);
    EXPECT_TRUE(value.logEntry.isEq(typename TypeParam::LogEntry{}));
    EXPECT_TRUE(value.rsrcKeys.isEq(typename TypeParam::ResourceKeys{}));
    const Value other{keyOf<TypeParam>(5), logEntryOf<TypeParam>(5), {}, {}, false};
    EXPECT_TRUE(other.key().isEq(keyOf<TypeParam>(5)));
}

TYPED_TEST(Records, LogEntryEqualityTellsEveryByte) {
    const auto logEntry = logEntryOf<TypeParam>(1);
    EXPECT_TRUE(logEntry.isEq(logEntryOf<TypeParam>(1)));
    EXPECT_FALSE(logEntry.isEq(logEntryOf<TypeParam>(2)));
    EXPECT_FALSE(logEntry.isEq(logEntryOf<TypeParam>(1, 0xABCDEE)));
    auto bytes = bytesOf(logEntry);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] ^= 0x80U;
        typename TypeParam::LogEntry other;
        std::memcpy(static_cast<void*>(&other), bytes.data(), bytes.size());
        EXPECT_FALSE(other.isEq(logEntry)) << "byte " << i;
        bytes[i] ^= 0x80U;
    }
}

TYPED_TEST(Records, EntrySurvivesTheWayThroughItsLogEntryAndResourceKeys) {
    typename TypeParam::Entry entry;
    entry.key = keyOf<TypeParam>(7);
    if constexpr (requires { entry.counterRequestKey; }) {
        entry.counterRequestKey.requestId = 8;
        entry.policerRequestKey.requestId = 9;
        entry.policerClientData.rate = 10;
    }
    const auto restored = TypeParam::Entry::from(entry.toLogEntry(), entry.resourceKeys());
    EXPECT_TRUE(restored.isEq(entry));
    EXPECT_TRUE(entry.toLogEntry().key.get().isEq(entry.key));
    auto overwritten = counted<typename TypeParam::Entry>();
    overwritten.logEntryIs(entry.toLogEntry(), entry.resourceKeys());
    EXPECT_TRUE(overwritten.isEq(entry));
}

TYPED_TEST(Records, PathsDifferByTableAndByUnit) {
    using Own = Constants<typename TypeParam::Types>;
    std::vector<std::string> paths{Own::configShimoPath({1}), Own::configShimoPath({2}),
                                   Own::tableEntryLogShimoPath()};
    EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()).size(), 3U);
    for (const std::string& path : paths)
        EXPECT_NE(path.find(TypeParam::Types::kName), std::string::npos) << path;
}

TYPED_TEST(Records, ShimoTypesAreNamedAfterTheTable) {
    using Own = Constants<typename TypeParam::Types>;
    const std::string table = "VornPolicyCpu::" + std::string(TypeParam::Types::kName);
    EXPECT_EQ(Own::configShimoType(), table + "ConfigShimo");
    EXPECT_EQ(Own::entryLogShimoType(), table + "EntryLogShimo");
}

/// Head revision 1, the key where the layout has it, and zeros.
template <class LogEntry, class Key>
void expectMadeOfAKeyAlone(const LogEntry& logEntry, const Key& key, std::size_t keyAt) {
    std::vector<std::uint8_t> expected(sizeof(LogEntry), 0);
    expected[0] = 1;
    std::memcpy(expected.data() + keyAt, &key, sizeof(key));
    EXPECT_EQ(bytesOf(logEntry), expected);
}

TEST(MatchLogEntry, OfIpv4HasItsKeyAtByte52AndZerosElsewhere) {
    static_assert(sizeof(PolicyCpuV4TcamEntryLogEntry) == 111);
    const MatchKey key{0x11121314, 0x21222324};
    expectMadeOfAKeyAlone(PolicyCpuV4TcamEntryLogEntry(key), key, 52);
    EXPECT_TRUE(PolicyCpuV4TcamEntryLogEntry(key).key.get().isEq(key));
}

TEST(MatchLogEntry, OfIpv6HasItsKeyAtByte28AndZerosElsewhere) {
    static_assert(sizeof(PolicyCpuV6TcamEntryLogEntry) == 139);
    const MatchKey key{0x11121314, 0x21222324};
    expectMadeOfAKeyAlone(PolicyCpuV6TcamEntryLogEntry(key), key, 28);
    EXPECT_TRUE(PolicyCpuV6TcamEntryLogEntry(key).key.get().isEq(key));
}

TEST(MatchLogEntry, OfIpv6HasTwoGroupsOf33BytesAndATail) {
    PolicyCpuV6TcamEntryLogEntry logEntry;
    logEntry.source.prefixLength = 0x61;
    logEntry.source.address.fill(0x62);
    logEntry.source.mask.fill(0x63);
    logEntry.destination.prefixLength = 0x71;
    logEntry.destination.address.fill(0x72);
    logEntry.destination.mask.fill(0x73);
    logEntry.reservedTail = 0x81;
    std::vector<std::uint8_t> expected(139, 0);
    expected[0] = 1;
    const auto group = [&](std::size_t at, std::uint8_t first) {
        expected[at] = first;
        std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(at) + 1, 16, first + 1);
        std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(at) + 17, 16, first + 2);
    };
    group(72, 0x61);
    group(105, 0x71);
    expected[138] = 0x81;
    EXPECT_EQ(bytesOf(logEntry), expected);
}

TEST(ActionLogEntry, DefaultsToNoResources) {
    const PolicyCpuTcamActionLogEntry logEntry;
    const auto bytes = bytesOf(logEntry);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 0), 1U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 4), 0xFFFFFFFFU);
    EXPECT_EQ(numberAt<std::uint64_t>(bytes, 8), 0U) << "key";
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 16), 0xFFFFFFU) << "the word after the key";
    EXPECT_EQ(logEntry.counterIndex.get(), 0xFFFFFFFFU);
    EXPECT_EQ(logEntry.policerIndex.get(), 0xFFFFU);
    EXPECT_EQ(logEntry.featureId, 0U);
}

TEST(ActionEntry, HasResolvedFieldsOfTheirWidths) {
    static_assert(std::is_same_v<decltype(PolicyCpuTcamActionEntry::counterIndex), std::uint32_t>);
    static_assert(std::is_same_v<decltype(PolicyCpuTcamActionEntry::policerIndex), std::uint16_t>);
    static_assert(std::is_same_v<decltype(PolicyCpuTcamActionEntry::featureId), std::uint8_t>);
    static_assert(sizeof(VornPolicerLib::PolicerIndexRequestClientData) == 34);
    static_assert(offsetof(VornPolicerLib::PolicerIndexRequestClientData, mode) == 32);
    const PolicyCpuTcamActionEntry entry;
    EXPECT_EQ(entry.counterIndex, 0xFFFFFFFFU);
    EXPECT_EQ(entry.policerIndex, 0xFFFFU);
    EXPECT_EQ(entry.featureId, 0U);
}

TEST(ActionKey, IsA32BitFieldFollowedByAn8BitFieldAndZeros) {
    const auto bytes = bytesOf(PolicyCpuTcamActionEntryKey{0x11121314, 0x21, {}});
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 0), 0x11121314U);
    EXPECT_EQ(bytes[4], 0x21U);
    EXPECT_EQ(numberAt<std::uint32_t>(bytes, 4), 0x21U);
    EXPECT_LT((PolicyCpuTcamActionEntryKey{1, 9, {}}), (PolicyCpuTcamActionEntryKey{2, 0, {}}));
    EXPECT_LT((PolicyCpuTcamActionEntryKey{1, 8, {}}), (PolicyCpuTcamActionEntryKey{1, 9, {}}));
}

TEST(MatchTables, HaveResourceKeysThatAreAlwaysEqual) {
    EXPECT_TRUE(PolicyCpuV4TcamEntryResourceKeys{}.isEq({}));
    EXPECT_TRUE(PolicyCpuV6TcamEntryResourceKeys{}.isEq({}));
}

}  // namespace
