#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "catalogue/Modules.h"
#include "interface/PolicyCpuTcamActionInterface.h"
#include "interface/PolicyCpuV4TcamEntryInterface.h"
#include "interface/PolicyCpuV6TcamEntryInterface.h"
#include "linkage/PolicyCpuTcamActionLinkages.h"
#include "platform/asic/CanonicalTableName.h"
#include "tests/entrylog/Bindings.h"
#include "tests/support/InProcessAgent.h"
#include "types/Shimo.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

// Names and identities.

TEST(CanonicalTableName, OfAnOrderedTableIsItsSecondComponentAndItsName) {
    const Asic::CanonicalTableName name(Asic::TableType::ordered, "PolicyCpuTcamAction", "Vorn");
    EXPECT_EQ(name.name(), "OrderedSwTable.Vorn.PolicyCpuTcamAction");
}

TEST(CanonicalTableName, OfAPartiallyOrderedTableIgnoresTheSecondComponent) {
    const Asic::CanonicalTableName name(Asic::TableType::partiallyOrdered, "A", "ignored");
    EXPECT_EQ(name.name(), "PartiallyOrderedSwTable.A");
}

TEST(CanonicalTableName, OfAResourceTableJoinsLibraryAndName) {
    const Asic::CanonicalTableName name(Asic::TableType::resource, "CrpsIndexRequest.X", "Library");
    EXPECT_EQ(name.name(), "ResourceTable.Library::CrpsIndexRequest.X");
}

TEST(CanonicalTableNameDeathTest, OfAnotherTypeIsABrokenInvariant) {
    withoutCoreFiles();
    EXPECT_DEATH(Asic::canonicalName(static_cast<Asic::TableType>(3), "A", "B"),
                 ::testing::HasSubstr("assertion failed: false: Table type undefined!"));
}

TEST(TableIdentity, PrintsAgentGroupAndTableInHexadecimal) {
    Asic::SwTableId id;
    id.agentId = 1;
    id.groupId = 2;
    id.tblId = 0x1f;
    EXPECT_EQ(fmt::format("{}", id), "01:02:001f");
    EXPECT_EQ(fmt::format("{}", Asic::SwTableId{0xABCDEF01}), "ab:cd:ef01");
}

TEST(TableIdentity, HasItsThreePartsInOneNumber) {
    const Asic::SwTableId id{0x2C080403};
    EXPECT_EQ(id.agentId, 0x2C);
    EXPECT_EQ(id.groupId, 0x08);
    EXPECT_EQ(id.tblId, 0x0403);
    EXPECT_EQ(id.whole(), 0x2C080403U);
    EXPECT_EQ(id.agentAndGroupId(), 0x2C08);
}

TEST(TableIdentity, OfEachTableIsFixed) {
    EXPECT_EQ(PolicyCpuTcamActionBinding::kTableId.whole(), 0x2C080403U);
    EXPECT_EQ(PolicyCpuV4TcamEntryBinding::kTableId.whole(), 0x2C080404U);
    EXPECT_EQ(PolicyCpuV6TcamEntryBinding::kTableId.whole(), 0x2C080405U);
}

TEST(VersionNumbers, PrintAsNumbers) {
    EXPECT_EQ(fmt::format("{}", Asic::UnitId{7}), "7");
    EXPECT_EQ(fmt::format("{}", Asic::LogVersion{1234567890123}), "1234567890123");
    EXPECT_EQ(fmt::format("{}", Asic::MajorVersion{3}), "3");
}

TEST(TableNames, AreSpeltExactly) {
    EXPECT_EQ(PolicyCpuTcamActionTypes::kName, "PolicyCpuTcamAction");
    EXPECT_EQ(PolicyCpuV4TcamEntryTypes::kName, "PolicyCpuV4TcamEntry");
    EXPECT_EQ(PolicyCpuV6TcamEntryTypes::kName, "PolicyCpuV6TcamEntry");
}

// The classes of each table, under their names.

template <class B, class SwTableT, class IteratorState, class Wrapper, class Resolver, class Helper,
          class Log, class LogShimo, class ConfigShimoT, class ConstantsT, class InterfaceT>
constexpr bool kClassSetOf = std::conjunction_v<
    std::is_same<typename B::SwTable, SwTableT>,
    std::is_same<SwTableIteratorState<B>, IteratorState>,
    std::is_same<typename B::EntryWrapper, Wrapper>, std::is_same<ResolverEntry<B>, Resolver>,
    std::is_same<SwTableHelperBase<B>, Helper>, std::is_same<EntryLog<B>, Log>,
    std::is_same<EntryLogShimo<typename B::Types>, LogShimo>,
    std::is_same<ConfigShimo<typename B::Types>, ConfigShimoT>,
    std::is_same<Constants<typename B::Types>, ConstantsT>, std::is_same<Interface<B>, InterfaceT>>;

static_assert(kClassSetOf<PolicyCpuTcamActionBinding, PolicyCpuTcamActionSwTable,
                          PolicyCpuTcamActionSwTableIteratorState, PolicyCpuTcamActionEntryWrapper,
                          PolicyCpuTcamActionResolverEntry, PolicyCpuTcamActionSwTableHelperBase,
                          PolicyCpuTcamActionEntryLog, PolicyCpuTcamActionEntryLogShimo,
                          PolicyCpuTcamActionConfigShimo, PolicyCpuTcamActionConstants,
                          PolicyCpuTcamActionInterface>);
static_assert(kClassSetOf<PolicyCpuV4TcamEntryBinding, PolicyCpuV4TcamEntrySwTable,
                          PolicyCpuV4TcamEntrySwTableIteratorState,
                          PolicyCpuV4TcamEntryEntryWrapper, PolicyCpuV4TcamEntryResolverEntry,
                          PolicyCpuV4TcamEntrySwTableHelperBase, PolicyCpuV4TcamEntryEntryLog,
                          PolicyCpuV4TcamEntryEntryLogShimo, PolicyCpuV4TcamEntryConfigShimo,
                          PolicyCpuV4TcamEntryConstants, PolicyCpuV4TcamEntryInterface>);
static_assert(kClassSetOf<PolicyCpuV6TcamEntryBinding, PolicyCpuV6TcamEntrySwTable,
                          PolicyCpuV6TcamEntrySwTableIteratorState,
                          PolicyCpuV6TcamEntryEntryWrapper, PolicyCpuV6TcamEntryResolverEntry,
                          PolicyCpuV6TcamEntrySwTableHelperBase, PolicyCpuV6TcamEntryEntryLog,
                          PolicyCpuV6TcamEntryEntryLogShimo, PolicyCpuV6TcamEntryConfigShimo,
                          PolicyCpuV6TcamEntryConstants, PolicyCpuV6TcamEntryInterface>);

template <class T, class Key, class Entry, class LogEntry, class ResourceKeys>
constexpr bool kRecordsOf =
    std::conjunction_v<std::is_same<typename T::Key, Key>, std::is_same<typename T::Entry, Entry>,
                       std::is_same<typename T::LogEntry, LogEntry>,
                       std::is_same<typename T::ResourceKeys, ResourceKeys>>;

static_assert(
    kRecordsOf<PolicyCpuTcamActionTypes, PolicyCpuTcamActionEntryKey, PolicyCpuTcamActionEntry,
               PolicyCpuTcamActionLogEntry, PolicyCpuTcamActionResourceKeys>);
static_assert(
    kRecordsOf<PolicyCpuV4TcamEntryTypes, PolicyCpuV4TcamEntryEntryKey, PolicyCpuV4TcamEntryEntry,
               PolicyCpuV4TcamEntryLogEntry, PolicyCpuV4TcamEntryResourceKeys>);
static_assert(
    kRecordsOf<PolicyCpuV6TcamEntryTypes, PolicyCpuV6TcamEntryEntryKey, PolicyCpuV6TcamEntryEntry,
               PolicyCpuV6TcamEntryLogEntry, PolicyCpuV6TcamEntryResourceKeys>);

// Linkages: the counter's comes first.
static_assert(std::is_same_v<PolicyCpuTcamActionBinding::Linkages,
                             LinkageList<CrpsIndexRequestBinding, PolicerIndexRequestBinding>>);
static_assert(PolicyCpuV4TcamEntryBinding::Linkages::kCount == 0);
static_assert(PolicyCpuV6TcamEntryBinding::Linkages::kCount == 0);
static_assert(std::is_same_v<PolicyCpuTcamActionCrpsIndexRequestLinkage,
                             Linkage<PolicyCpuTcamActionBinding, CrpsIndexRequestBinding>>);
static_assert(std::is_same_v<PolicyCpuTcamActionPolicerIndexRequestLinkage,
                             Linkage<PolicyCpuTcamActionBinding, PolicerIndexRequestBinding>>);

// What loading the library registers.

std::set<std::string> registeredModules() {
    std::set<std::string> own;
    for (const std::string& name : Kiv::ModuleRegistry::instance().moduleNames()) {
        if (name.starts_with("VornPolicyCpu::"))
            own.insert(name);
    }
    return own;
}

TEST(LoadTimeRegistration, RegistersEachSourceUnitButTheMatchTablesLinkages) {
    std::set<std::string> expected{"VornPolicyCpu::PolicyCpuTcamActionResourceTableLinkage"};
    for (const char* table :
         {"PolicyCpuTcamAction", "PolicyCpuV4TcamEntry", "PolicyCpuV6TcamEntry"}) {
        for (const char* unit : {"InfraTypes", "SwTable", "EntryLog", "Interface"})
            expected.insert(std::string("VornPolicyCpu::") + table + unit);
    }
    EXPECT_EQ(registeredModules(), expected);
}

TEST(LoadTimeRegistration, DescribesBothLinkagesOfTheActionTable) {
    const auto* module = Kiv::ModuleRegistry::instance().module(
        "VornPolicyCpu::PolicyCpuTcamActionResourceTableLinkage");
    ASSERT_NE(module, nullptr);
    ASSERT_EQ(module->types.size(), 4U);
    const std::string counters = "VornPolicyCpu::PolicyCpuTcamActionCrpsIndexRequestLinkage";
    const std::string policers = "VornPolicyCpu::PolicyCpuTcamActionPolicerIndexRequestLinkage";
    EXPECT_EQ(module->types[0].name, counters);
    EXPECT_EQ(module->types[1].name, policers);
    EXPECT_EQ(module->types[2].name, counters + "::LocalUsageUpdateSm");
    EXPECT_EQ(module->types[3].name, policers + "::LocalUsageUpdateSm");
    for (const std::size_t machine : {2U, 3U}) {
        EXPECT_EQ(module->types[machine].attributes,
                  (std::vector<std::string>{"resPtr", "parent", "resourceKey",
                                            "hasNotificationActive", "entryUsage"}));
    }
}

template <class B>
class Catalogue : public ::testing::Test {
protected:
    static std::string name(const std::string& role) { return std::string(B::Types::kName) + role; }
    static const Kiv::Module* module(const std::string& unit) {
        return Kiv::ModuleRegistry::instance().module("VornPolicyCpu::" + name(unit));
    }
};
TYPED_TEST_SUITE(Catalogue, AllBindings, TableName);

TYPED_TEST(Catalogue, ModulesDescribeTheirClasses) {
    const auto* infra = this->module("InfraTypes");
    ASSERT_NE(infra, nullptr);
    ASSERT_EQ(infra->types.size(), 3U);
    EXPECT_EQ(infra->types[0].name, "VornPolicyCpu::" + this->name("EntryWrapper"));
    EXPECT_EQ(infra->types[1].name, "VornPolicyCpu::" + this->name("ResolverEntry"));
    EXPECT_EQ(infra->types[2].name, "VornPolicyCpu::" + this->name("SwTableHelperBase"));
    const auto* table = this->module("SwTable");
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(table->types.size(), 4U);
    EXPECT_EQ(table->types[0].name, "VornPolicyCpu::" + this->name("SwTable"));
    EXPECT_EQ(table->types[1].name, "VornPolicyCpu::" + this->name("SwTable::EntryHandle"));
    EXPECT_EQ(table->types[2].name, "VornPolicyCpu::" + this->name("SwTableIteratorState"));
    EXPECT_EQ(table->types[3].name, "VornPolicyCpu::" + this->name("SwTable::SwTableEntries_py"));
    for (const char* unit : {"EntryLog", "Interface"}) {
        const auto* module = this->module(unit);
        ASSERT_NE(module, nullptr) << unit;
        ASSERT_EQ(module->types.size(), 1U) << unit;
        EXPECT_EQ(module->types[0].name, "VornPolicyCpu::" + this->name(unit));
    }
}

TYPED_TEST(Catalogue, AttributesOfWhatATableHandsOutAreInTheirOrder) {
    const auto& types = this->module("SwTable")->types;
    EXPECT_EQ(types[1].attributes,
              (std::vector<std::string>{"entryVersion", "logVersion", "entryState", "key",
                                        "swTable", "responseHandler"}));
    EXPECT_EQ(types[2].attributes, (std::vector<std::string>{"flags", "swTable", "bookmark"}));
    EXPECT_EQ(types[3].attributes, std::vector<std::string>{"tableEntries"});
}

TYPED_TEST(Catalogue, HandlesKnowTheirType) {
    using Handle = typename SwTable<TypeParam>::EntryHandle;
    const auto handle = Brumo::make<Handle>(Asic::EntryVersion{0, 0}, keyOf<TypeParam>(1), nullptr);
    EXPECT_EQ(handle->typeData().name, "VornPolicyCpu::" + this->name("SwTable::EntryHandle"));
    EXPECT_EQ(handle->typeData().attributes, this->module("SwTable")->types[1].attributes);
}

TYPED_TEST(Catalogue, EntryLogsAttributesAreInTheirOrder) {
    EXPECT_EQ(this->module("EntryLog")->types[0].attributes,
              (std::vector<std::string>{"tableId", "entityManager", "groupInterface", "agentName",
                                        "tableVersion", "tableEntryLog", "tableConfigShimo"}));
}

TYPED_TEST(Catalogue, InterfacesAttributesAreInTheirOrder) {
    EXPECT_EQ(this->module("Interface")->types[0].attributes,
              (std::vector<std::string>{"tableName", "groupName", "agentName", "tableNamespace",
                                        "entryLog", "swTableStatus", "swTableSet"}));
}

TYPED_TEST(Catalogue, TraceHandlesAreMadeUnderTheClassNames) {
    const std::vector<std::string> names = Brumo::traceHandleNames();
    for (const std::string& handle : {this->name("SwTable"), this->name("EntryLog"),
                                      this->name("Interface"), std::string("SwTableIter")}) {
        EXPECT_TRUE(std::ranges::binary_search(names, handle)) << handle;
    }
}

TYPED_TEST(Catalogue, HooksFactoryMakesTheDefaultHooks) {
    const Brumo::Ptr<SwTableHelperBase<TypeParam>> helper = [] {
        if constexpr (std::is_same_v<TypeParam, PolicyCpuTcamActionBinding>) {
            return policyCpuTcamActionSwTableHelperBaseFactory();
        } else if constexpr (std::is_same_v<TypeParam, PolicyCpuV4TcamEntryBinding>) {
            return policyCpuV4TcamEntrySwTableHelperBaseFactory();
        } else {
            return policyCpuV6TcamEntrySwTableHelperBaseFactory();
        }
    }();
    ASSERT_NE(helper, nullptr);
    EXPECT_EQ(helper->finalizeOnFailure(nullptr, false, nullptr), 0U);
}

TEST(ActionWrapper, WithoutResourcesReportsTheUnresolvedValues) {
    PolicyCpuTcamActionEntry entry = actionEntry(1);
    entry.counterIndex = 5;
    entry.policerIndex = 6;
    entry.featureId = 7;
    const auto wrapper = policyCpuTcamActionEntryWrapperFactory(entry, nullptr);
    wrapper->setResolvedFields();
    EXPECT_EQ(wrapper->entry().counterIndex, 0xFFFFFFFFU);
    EXPECT_EQ(wrapper->entry().featureId, 0U);
    EXPECT_EQ(wrapper->entry().policerIndex, 0xFFFFU);
}

TEST(ActionResolverEntry, IsMadeByItsFactory) {
    const auto wrapper = policyCpuTcamActionEntryWrapperFactory(actionEntry(1), nullptr);
    const auto resolverEntry = policyCpuTcamActionResolverEntryFactory(
        nullptr, Asic::EntryFlags::entryDelete, nullptr, wrapper);
    EXPECT_EQ(resolverEntry->entryWrapper(), wrapper);
    EXPECT_TRUE(resolverEntry->isEntryDeleted());
}

}  // namespace
