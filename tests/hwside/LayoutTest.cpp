// The byte maps of docs/hardware-side.md, as far as the types do not pin them themselves.

#include <gtest/gtest.h>

#include <cstddef>

#include "types/Shimo.h"

namespace HwSide::Test {
namespace {

using namespace VornPolicyCpu;

template <class Types>
using Value = typename ConfigShimo<Types>::Value;

template <class Types>
void expectOffsets(std::size_t resources, std::size_t version, std::size_t deletion,
                   std::size_t size) {
    using V = Value<Types>;
    EXPECT_EQ(offsetof(V, entryKey), 0U);
    EXPECT_EQ(offsetof(V, logEntry), 8U);
    EXPECT_EQ(offsetof(V, rsrcKeys), resources);
    EXPECT_EQ(offsetof(V, version), version);
    EXPECT_EQ(offsetof(V, inDeletion), deletion);
    EXPECT_EQ(sizeof(V), size);
}

TEST(Layout, ConfigurationValuesLieAsDocumented) {
    expectOffsets<PolicyCpuTcamActionTypes>(88, 104, 112, 120);
    expectOffsets<PolicyCpuV4TcamEntryTypes>(119, 120, 128, 136);
    expectOffsets<PolicyCpuV6TcamEntryTypes>(147, 152, 160, 168);
}

TEST(Layout, FieldsOfLogEntriesLieAsDocumented) {
    using Action = PolicyCpuTcamActionLogEntry;
    EXPECT_EQ(offsetof(Action, counterIndex), 20U);
    EXPECT_EQ(offsetof(Action, policerIndex), 24U);
    EXPECT_EQ(offsetof(Action, featureId), 26U);
    EXPECT_EQ(offsetof(Action, disposition), 27U);
    EXPECT_EQ(offsetof(Action, name), 62U);
    using V4 = PolicyCpuV4TcamEntryLogEntry;
    EXPECT_EQ(offsetof(V4, addresses), 8U);
    EXPECT_EQ(offsetof(V4, ports), 24U);
    EXPECT_EQ(offsetof(V4, priority), 32U);
    EXPECT_EQ(offsetof(V4, bytes), 36U);
    EXPECT_EQ(offsetof(V4, actionSub), 64U);
    EXPECT_EQ(offsetof(V4, label), 65U);
    using V6 = PolicyCpuV6TcamEntryLogEntry;
    EXPECT_EQ(offsetof(V6, ports), 8U);
    EXPECT_EQ(offsetof(V6, priority), 16U);
    EXPECT_EQ(offsetof(V6, actionSub), 40U);
    EXPECT_EQ(offsetof(V6, bytes), 41U);
    EXPECT_EQ(offsetof(V6, label), 55U);
}

}  // namespace
}  // namespace HwSide::Test
