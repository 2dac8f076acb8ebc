#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/asic/Constants.h"
#include "platform/kiv/Module.h"
#include "platform/kivshimo/Paths.h"
#include "platform/ringtrace/ProcessRing.h"
#include "tests/entrylog/Bindings.h"
#include "tests/support/InProcessAgent.h"
#include "tests/support/TraceCapture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

constexpr Asic::UnitId kUnit{1};

/// A table that is none of the families'.
class StrangerTable final : public Asic::OrderedSwTable {
public:
    StrangerTable(Asic::SwTableId tableId, Asic::OrderedSwTableSet* set)
        : Asic::OrderedSwTable(nullptr, tableId, kUnit, set) {}

    void tableStatusVersion(Asic::LogVersion /*version*/) override {}
    bool hasPendingHwWrites() const override { return false; }
    Asic::LogVersion logVersion() const override { return {}; }
};

template <class B>
class FamilyInterface : public ::testing::Test {
protected:
    using Family = Interface<B>;
    using TablePtr = typename Family::SwTablePtr;

    FamilyInterface() { withoutCoreFiles(); }

    static constexpr bool kHasLinkages = B::Linkages::kCount > 0;

    static std::string name() { return std::string(B::Types::kName); }
    static std::string handle() { return name() + "Interface"; }
    static std::string logHandle() { return name() + "EntryLog"; }
    static std::string idText() { return fmt::format("{}", B::kTableId); }

    const Brumo::Ptr<Family>& family() {
        if constexpr (std::is_same_v<B, PolicyCpuTcamActionBinding>) {
            return agent.actions();
        } else if constexpr (std::is_same_v<B, PolicyCpuV4TcamEntryBinding>) {
            return agent.v4Entries();
        } else {
            return agent.v6Entries();
        }
    }
    TablePtr table(bool reset = false, Asic::UnitId unit = kUnit) {
        return family()->makeSwTable(unit, nullptr, reset);
    }
    static typename B::Entry entryOf(std::uint32_t number) {
        typename B::Entry entry;
        entry.key = keyOf<B>(number);
        return entry;
    }
    /// Commits entries with the keys 1 to `count`.
    void write(SwTable<B>& table, std::uint32_t count) {
        for (std::uint32_t number = 1; number <= count; ++number)
            table.entryWrite(keyOf<B>(number), entryOf(number), nullptr);
        agent.settle();
    }
    /// The process before this one: some entries on a unit, and how far the hardware side was.
    void liveOnce(std::uint32_t entries, std::uint64_t acknowledged, Asic::UnitId unit = kUnit) {
        write(*table(false, unit), entries);
        if (acknowledged != 0)
            agent.acknowledge(B::kTableId, acknowledged);
        agent.restart();
    }

    TraceLine line(int level, const std::string& function, const std::string& text) {
        return {level, handle(), handle(), function, text};
    }
    /// The lines of the interface's handle.
    std::vector<TraceLine> own(const TraceCapture& traces) {
        std::vector<TraceLine> lines;
        for (const TraceLine& each : traces.lines()) {
            if (each.handle == handle())
                lines.push_back(each);
        }
        return lines;
    }
    std::vector<TraceLine> startUpLines(const std::vector<TraceLine>& caughtUp,
                                        std::uint64_t version) {
        std::vector<TraceLine> lines{
            line(8, "handleInitialized", ""),
            line(3, "handleInitialized", " Creating entry log for " + idText())};
        lines.insert(lines.end(), caughtUp.begin(), caughtUp.end());
        lines.push_back(line(
            2, "handleInitialized",
            fmt::format(" Entry log created for table id: {} at version: {}", idText(), version)));
        return lines;
    }
    TraceLine cleaned(std::uint64_t version) {
        return line(3, "handleInitialized",
                    fmt::format(" Cleaned entry log until table version: {}", version));
    }
    TraceLine pendingOn() { return line(2, "handleInitialized", " Turning ON pendingHwWrites"); }
    static std::vector<std::string> resourceTexts(std::size_t counters, std::size_t policers) {
        if (!kHasLinkages)
            return {};
        return {fmt::format(" ResourceTable: VornCountersLib::CrpsIndexRequest."
                            "CpuTrafficPolicyIngress started or restored with {} entries",
                            counters),
                fmt::format(" ResourceTable: VornPolicerLib::PolicerIndexRequest.VornPolicyCpu "
                            "started or restored with {} entries",
                            policers)};
    }
    /// What making a new table traces, up to the last line that is given.
    std::vector<TraceLine> newTableLines(const std::string& last) {
        std::vector<TraceLine> lines{line(8, "makeSwTable", "unitId: 1")};
        for (const std::string& text : resourceTexts(0, 0))
            lines.push_back(line(2, "makeSwTable", text));
        lines.push_back(line(2, "makeSwTable", last));
        return lines;
    }

    InProcessAgent agent;
};
TYPED_TEST_SUITE(FamilyInterface, AllBindings, TableName);

// Start-up.

TYPED_TEST(FamilyInterface, HasItsNamesAndIdentity) {
    const auto& family = this->family();
    EXPECT_EQ(family->tableName(), this->name());
    EXPECT_EQ(family->groupName(), "VornPolicyCpuGroup");
    EXPECT_EQ(family->agentName(), "VornPolicyCpu");
    EXPECT_EQ(family->tableNamespace(), "VornPolicyCpu");
    EXPECT_EQ(family->registryName(), "VornPolicyCpu::" + this->handle());
    EXPECT_EQ(family->typeData().name, family->registryName());
    EXPECT_EQ(family->tableId(), TypeParam::kTableId);
}

TYPED_TEST(FamilyInterface, StartUpMakesItsMembersAndRegisters) {
    const auto& family = this->family();
    ASSERT_NE(family->entryLog(), nullptr);
    EXPECT_EQ(family->entryLog()->tableId(), TypeParam::kTableId);
    EXPECT_EQ(family->entryLog()->entityManager(), this->agent.stateDatabase());
    EXPECT_EQ(family->entryLog()->groupInterface(), this->agent.group());
    EXPECT_EQ(family->entryLog()->agentName(), "VornPolicyCpu");
    ASSERT_NE(family->swTableStatus(), nullptr);
    EXPECT_EQ(family->swTableStatus()->tableId(), TypeParam::kTableId);
    ASSERT_NE(family->swTableSet(), nullptr);
    EXPECT_EQ(this->agent.group()->swTableSet(TypeParam::kTableId), family->swTableSet());
    EXPECT_EQ(this->agent.orderedTableIntf()->swTableIntf(family->registryName()), family.get());
    EXPECT_EQ(Asic::SwTableInterfacesSingleton::instance().swTableIntf(family->registryName()),
              family);
    EXPECT_EQ(this->agent.group()->agentAndGroupId(), 0x2C08);
}

TYPED_TEST(FamilyInterface, StartUpTracesItsStepsInOrder) {
    TraceCapture traces;
    this->family();
    EXPECT_EQ(this->own(traces), this->startUpLines({}, 0));
    std::vector<std::string> order;
    for (const TraceLine& each : traces.lines()) {
        if (each.level < 8 && (each.handle == this->handle() || each.handle == this->logHandle()))
            order.push_back(each.text.substr(0, 10));
    }
    EXPECT_EQ(order, (std::vector<std::string>{" Creating ", " Mounted e", " Entry log"}));
}

TYPED_TEST(FamilyInterface, GetIntfTwiceGivesTheSameAndStartsUpOnce) {
    TraceCapture traces;
    const auto first = TestFixture::Family::getIntf(this->agent.orderedTableIntf());
    const auto second = this->family();
    EXPECT_EQ(first, second);
    EXPECT_EQ(traces.count(this->handle(), 8, ""), 1U);
}

TYPED_TEST(FamilyInterface, FactoryInTheModuleRegistryGivesTheSame) {
    using Factory = TableFamilyFactory<typename TypeParam::Types>;
    const auto factory =
        Kiv::ModuleRegistry::instance().factory<Factory>(TestFixture::Family::registryName());
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(factory(this->agent.orderedTableIntf()), this->family());
}

TYPED_TEST(FamilyInterface, AcknowledgedUpToTheLastVersionLeavesPendingWritesOff) {
    this->liveOnce(3, 3);
    TraceCapture traces;
    EXPECT_FALSE(this->family()->swTableStatus()->pendingHwWrites());
    EXPECT_EQ(this->own(traces), this->startUpLines({this->cleaned(3)}, 3));
    EXPECT_EQ(this->family()->entryLog()->entryLogConfigs(), 0U);
    EXPECT_EQ(this->family()->entryLog()->cleanedUpTo().value, 3U);
}

TYPED_TEST(FamilyInterface, AcknowledgedUpToALowerVersionTurnsPendingWritesOn) {
    this->liveOnce(3, 2);
    TraceCapture traces;
    EXPECT_TRUE(this->family()->swTableStatus()->pendingHwWrites());
    EXPECT_EQ(this->own(traces), this->startUpLines({this->cleaned(2), this->pendingOn()}, 3));
    EXPECT_EQ(this->family()->entryLog()->entryLogConfigs(), 1U);
}

TYPED_TEST(FamilyInterface, NothingAcknowledgedLeavesTheLogAsItIs) {
    this->liveOnce(3, 0);
    TraceCapture traces;
    EXPECT_FALSE(this->family()->swTableStatus()->pendingHwWrites());
    EXPECT_EQ(this->own(traces), this->startUpLines({}, 3));
    EXPECT_EQ(this->family()->entryLog()->entryLogConfigs(), 3U);
}

/// Changes the bytes of the acknowledged version wherever the hardware side's map holds them.
void spoilAcknowledgement(InProcessAgent& agent, std::uint64_t version) {
    const std::string file = KivShimo::tableFile(
        agent.root(), Asic::Constants::acknowledgementsPath(canonicalGroupName()));
    std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
    std::string bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    const std::string wanted(reinterpret_cast<const char*>(&version), sizeof(version));
    std::size_t found = 0;
    // Word by word: a check may end in the same byte, with zeros behind it.
    for (std::size_t at = KivShimo::detail::kAreasOffset; at < bytes.size();
         at += sizeof(version)) {
        if (bytes.compare(at, sizeof(version), wanted) != 0)
            continue;
        stream.clear();
        stream.seekp(static_cast<std::streamoff>(at));
        stream.put(static_cast<char>(bytes[at] ^ 1));
        ++found;
    }
    ASSERT_EQ(found, 1U) << "the test looks for a number that is nowhere else";
}

TYPED_TEST(FamilyInterface, CorruptAcknowledgementIsReportedAndCountsAsZero) {
    this->liveOnce(0x11, 0x11);
    spoilAcknowledgement(this->agent, 0x11);
    const auto before = this->agent.group()->corruptions();
    TraceCapture traces;
    this->family();
    EXPECT_EQ(this->agent.group()->corruptions(), before + 1);
    EXPECT_EQ(this->own(traces), this->startUpLines({this->cleaned(0), this->pendingOn()}, 0x11));
    this->table();
    EXPECT_EQ(this->agent.group()->corruptions(), before + 2);
    EXPECT_TRUE(traces.has(this->logHandle(), 8, " unitId:1, logVersion: 0"));
}

TYPED_TEST(FamilyInterface, SecondConstructionDies) {
    this->family();
    EXPECT_DEATH(
        Brumo::make<typename TestFixture::Family>(this->agent.orderedTableIntf()),
        ::testing::HasSubstr("assertion failed: !singleton->swTableIntfHas( \"VornPolicyCpu::" +
                             this->handle() + "\" ): Interface already created"));
}

TYPED_TEST(FamilyInterface, StartUpWithoutItsGroupDies) {
    const auto otherAgent = Brumo::make<Asic::OrderedTableInterface>(
        this->agent.stateDatabase(), "OtherAgent", this->agent.loop());
    EXPECT_DEATH(Brumo::make<typename TestFixture::Family>(otherAgent),
                 ::testing::HasSubstr("assertion failed: groupIntf ("));
}

// A unit's table, new.

TYPED_TEST(FamilyInterface, NewTableIsRestoredAndTracesItsStepsInOrder) {
    this->family();
    TraceCapture traces;
    const auto table = this->table();
    EXPECT_EQ(this->own(traces),
              this->newTableLines(
                  fmt::format(" Restored 0 entries for table: {}, unitId: 1", this->name())));
    EXPECT_EQ(table->unitId(), kUnit);
    EXPECT_EQ(table->tableId(), TypeParam::kTableId);
    EXPECT_EQ(table->tableSet(), this->family()->swTableSet().get());
    EXPECT_EQ(table->entryLog(), this->family()->entryLog());
    EXPECT_EQ(table->groupResolver(), this->agent.group()->groupResolver());
    EXPECT_EQ(table->status(), this->family()->swTableStatus());
    EXPECT_EQ(table->canonicalTableName()->name(), "OrderedSwTable.VornPolicyCpu." + this->name());
    EXPECT_EQ(this->family()->swTableSet()->swTable(kUnit), table);
}

TYPED_TEST(FamilyInterface, NewTableWithResetIsClearedInsteadOfRestored) {
    this->liveOnce(3, 0);
    this->family();
    TraceCapture traces;
    const auto table = this->table(true);
    EXPECT_EQ(table->entrys(), 0U);
    EXPECT_EQ(this->own(traces), this->newTableLines(fmt::format(
                                     " Clearing entries for table: {}, unitId: 1", this->name())));
}

TYPED_TEST(FamilyInterface, NewTableRestoresWhatTheProcessBeforeLeft) {
    this->liveOnce(3, 0);
    this->family();
    TraceCapture traces;
    const auto table = this->table();
    EXPECT_EQ(table->entrys(), 3U);
    EXPECT_EQ(
        this->own(traces).back(),
        this->line(2, "makeSwTable",
                   fmt::format(" Restored 3 entries for table: {}, unitId: 1", this->name())));
}

TYPED_TEST(FamilyInterface, NewTableMountsItsConfigurationAtTheAcknowledgedVersion) {
    auto table = this->table();
    this->write(*table, 2);
    table->entryRemove(keyOf<TypeParam>(1), nullptr);
    this->agent.settle();
    table = nullptr;
    this->agent.restart();
    this->agent.hardware().ackIs(TypeParam::kTableId.whole(), 3);
    TraceCapture traces;
    table = this->table();
    EXPECT_TRUE(traces.has(this->logHandle(), 8, " unitId:1, logVersion: 3"));
    EXPECT_TRUE(traces.has(this->name() + "SwTable", 8, "tableVersion: 3"));
    EXPECT_EQ(table->entrys(), 1U);
    EXPECT_EQ(this->family()->entryLog()->entrysInDeletion(kUnit), 0U);
}

TYPED_TEST(FamilyInterface, NewTableReportsItsStatusVersionWhenItIsRegistered) {
    this->liveOnce(2, 1);
    this->family();
    std::vector<bool> registered;
    auto sink = Brumo::traceSinkIs([&](const Brumo::TraceRecord& record) {
        if (record.text == "tableVersion: 1")
            registered.push_back(this->family()->swTableSet()->swTableHas(kUnit));
    });
    const std::string filter = Brumo::traceFilter();
    Brumo::traceFilterIs("*/0-9");
    this->table();
    Brumo::traceFilterIs(filter);
    Brumo::traceSinkIs(std::move(sink));
    EXPECT_EQ(registered, (std::vector<bool>{true}));
}

TYPED_TEST(FamilyInterface, NewTableInARunningProcessTakesNothingBackWhereTheMapIsGone) {
    const auto first = this->table();
    this->write(*first, 3);
    this->agent.acknowledge(TypeParam::kTableId, 3);
    ASSERT_EQ(first->entryLog()->cleanedUpTo().value, 3U);
    std::filesystem::remove(this->agent.hardware().file());
    this->table(false, {2});
    EXPECT_EQ(first->entryLog()->cleanedUpTo().value, 3U);
}

TYPED_TEST(FamilyInterface, NewTableTakesTheHelperThatIsGiven) {
    const auto helper = Brumo::make<SwTableHelperBase<TypeParam>>();
    TraceCapture traces;
    const auto table = this->family()->makeSwTable(kUnit, helper, false);
    EXPECT_EQ(table->swTableHelper(), helper);
    EXPECT_FALSE(traces.has(this->handle(), 2, "Update software table helper"));
}

TYPED_TEST(FamilyInterface, NewTableHasTheDefaultHelperWhenNoneIsGiven) {
    EXPECT_NE(this->table()->swTableHelper(), nullptr);
}

TYPED_TEST(FamilyInterface, NewTableWithoutItsSetInTheGroupDies) {
    this->family();
    this->agent.group()->swTableSetDel(TypeParam::kTableId);
    EXPECT_DEATH(this->table(),
                 ::testing::HasSubstr("assertion failed: groupIntf->swTableSetHas( tableId() )"));
}

TYPED_TEST(FamilyInterface, NewTableIsWrittenToTheRingTrace) {
    this->liveOnce(2, 0);
    RingTrace::processRingIs(std::make_shared<RingTrace::Ring>(this->agent.root() + "/ring", 64));
    this->table();
    const auto messages = RingTrace::processRing()->dump();
    RingTrace::processRingIs(nullptr);
    auto expected = this->resourceTexts(0, 0);
    expected.push_back(fmt::format(" Restored 2 entries for table: {}, unitId: 1", this->name()));
    ASSERT_EQ(messages.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(messages[i].ends_with(expected[i])) << messages[i];
}

TYPED_TEST(FamilyInterface, ClearedTableIsNotInTheRingTrace) {
    RingTrace::processRingIs(std::make_shared<RingTrace::Ring>(this->agent.root() + "/ring", 64));
    this->table(true);
    const auto messages = RingTrace::processRing()->dump();
    RingTrace::processRingIs(nullptr);
    EXPECT_EQ(messages.size(), this->resourceTexts(0, 0).size());
}

// A unit's table, again.

TYPED_TEST(FamilyInterface, ExistingTableIsReturnedUnchanged) {
    const auto table = this->table();
    this->write(*table, 2);
    const auto helper = table->swTableHelper();
    TraceCapture traces;
    EXPECT_EQ(this->table(), table);
    EXPECT_EQ(table->entrys(), 2U);
    EXPECT_EQ(table->swTableHelper(), helper);
    EXPECT_EQ(
        this->own(traces),
        (std::vector<TraceLine>{this->line(8, "makeSwTable", "unitId: 1"),
                                this->line(3, "makeSwTable", "swTable with unitId: 1 exists")}));
    EXPECT_TRUE(traces.texts(this->logHandle(), 2).empty()) << "nothing is mounted";
}

TYPED_TEST(FamilyInterface, ExistingTableTakesANewHelperAndIsCleared) {
    const auto table = this->table();
    this->write(*table, 2);
    const auto helper = Brumo::make<SwTableHelperBase<TypeParam>>();
    TraceCapture traces;
    EXPECT_EQ(this->family()->makeSwTable(kUnit, helper, true), table);
    EXPECT_EQ(table->swTableHelper(), helper);
    EXPECT_EQ(table->entrys(), 0U);
    EXPECT_EQ(
        this->own(traces),
        (std::vector<TraceLine>{
            this->line(8, "makeSwTable", "unitId: 1"),
            this->line(3, "makeSwTable", "swTable with unitId: 1 exists"),
            this->line(2, "makeSwTable", "Update software table helper"),
            this->line(2, "makeSwTable", " Clearing entries for table id: " + this->idText())}));
}

TYPED_TEST(FamilyInterface, ExistingTableOfAnotherClassDies) {
    const auto& set = this->family()->swTableSet();
    set->swTableIs(Brumo::make<StrangerTable>(TypeParam::kTableId, set.get()));
    EXPECT_DEATH(this->table(), ::testing::HasSubstr("assertion failed: existingTbl"));
}

TYPED_TEST(FamilyInterface, UnitsHaveTablesOfTheirOwn) {
    const auto first = this->table();
    const auto second = this->table(false, {2});
    EXPECT_NE(first, second);
    this->write(*first, 2);
    EXPECT_EQ(second->entrys(), 0U);
    EXPECT_EQ(first->entryLog(), second->entryLog());
}

// Reconciliation.

TYPED_TEST(FamilyInterface, ReconcileClearsUnitsThatLeftStateBehind) {
    this->liveOnce(2, 0, {3});
    this->family();
    TraceCapture traces;
    this->family()->reconcile();
    ASSERT_TRUE(this->family()->swTableSet()->swTableHas({3}));
    EXPECT_EQ(this->table(false, {3})->entrys(), 0U);
    EXPECT_EQ(this->family()->entryLog()->entrysInDeletion({3}), 2U);
    const auto lines = this->own(traces);
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], this->line(8, "reconcile", ""));
    EXPECT_EQ(lines[1], this->line(3, "reconcile",
                                   " No. of config entities found: 1, in shimo path: " +
                                       Asic::Constants::canonicalGroupTableConfigShimoPathBase(
                                           canonicalGroupName())));
    EXPECT_EQ(lines[2], this->line(3, "reconcile", " Found inactive unit id: 3 "));
    EXPECT_EQ(lines[3], this->line(8, "makeSwTable", "unitId: 3"));
    EXPECT_TRUE(
        traces.has(this->handle(), 2,
                   fmt::format(" Clearing entries for table: {}, unitId: 3", this->name())));
}

TYPED_TEST(FamilyInterface, ReconcileLeavesUnitsWithATableAlone) {
    this->liveOnce(2, 0);
    const auto table = this->table();
    TraceCapture traces;
    this->family()->reconcile();
    EXPECT_EQ(table->entrys(), 2U);
    EXPECT_EQ(this->own(traces).size(), 2U) << "the call and the number found, nothing else";
}

TYPED_TEST(FamilyInterface, ReconcileOfAFreshSystemFindsNothing) {
    this->family();
    TraceCapture traces;
    this->family()->reconcile();
    EXPECT_EQ(this->own(traces).back().text,
              " No. of config entities found: 0, in shimo path: asic/VornPolicyCpu."
              "VornPolicyCpuGroup/tableConfig");
}

TYPED_TEST(FamilyInterface, ReconcileLooksWhereTheTablesAreMounted) {
    TempDir shared;
    KivShimo::EntityManager::rootIs(this->agent.systemName(), false, shared.path());
    const NotLocal notLocal;
    this->liveOnce(2, 0, {3});
    this->family()->reconcile();
    EXPECT_TRUE(this->family()->swTableSet()->swTableHas({3}));
}

// The end.

TYPED_TEST(FamilyInterface, OnDeleteUnregisters) {
    const auto& family = this->family();
    TraceCapture traces;
    family->onDelete();
    EXPECT_EQ(this->agent.orderedTableIntf()->swTableIntf(family->registryName()), nullptr);
    EXPECT_EQ(this->own(traces), (std::vector<TraceLine>{this->line(2, "onDelete", " onDelete ")}));
}

TYPED_TEST(FamilyInterface, MembersCanBeReplacedAndReleased) {
    const auto& family = this->family();
    const auto status = family->swTableStatus();
    family->swTableStatusIs(TypeParam::kTableId);
    EXPECT_NE(family->swTableStatus(), status);
    const auto set = family->swTableSet();
    family->swTableSetIs(TypeParam::kTableId, family->swTableStatus());
    EXPECT_NE(family->swTableSet(), set);
    const auto log = family->entryLog();
    family->entryLogIs(TypeParam::kTableId, this->agent.stateDatabase(), this->agent.group(),
                       "VornPolicyCpu");
    EXPECT_NE(family->entryLog(), log);
    family->swTableSetDel();
    EXPECT_EQ(family->swTableSet(), nullptr);
    family->swTableStatusDel();
    EXPECT_EQ(family->swTableStatus(), nullptr);
    family->entryLogDel();
    EXPECT_EQ(family->entryLog(), nullptr);
}

// The action table's resources.

class ActionInterface : public FamilyInterface<PolicyCpuTcamActionBinding> {};

TEST_F(ActionInterface, InstallsTheCounterAndThePolicerLinkage) {
    const auto made = table();
    EXPECT_NE(made->linkage<CrpsIndexRequestBinding>(), nullptr);
    EXPECT_NE(made->linkage<PolicerIndexRequestBinding>(), nullptr);
}

TEST_F(ActionInterface, TellsHowManyRequestsTheResourceTablesHold) {
    auto made = table();
    made->entryWrite(actionKey(1), actionEntry(1, 4, 5), nullptr);
    made->entryWrite(actionKey(2), actionEntry(2, 6, 0), nullptr);
    agent.settle();
    made = nullptr;
    agent.restart();
    TraceCapture traces;
    table();
    const auto texts = traces.texts(handle(), 2);
    const auto expected = resourceTexts(2, 1);
    ASSERT_EQ(texts.size(), 4U);
    EXPECT_EQ(texts[1], expected[0]);
    EXPECT_EQ(texts[2], expected[1]);
}

}  // namespace
