// Entry wrappers, resolver entries and hooks: what carries one change through its table.
#include <gtest/gtest.h>

#include "platform/kiv/Module.h"
#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class Wrappers : public SwTableFixture<B> {
protected:
    Brumo::Ptr<const typename B::SwTable> constTable() const {
        return Brumo::Ptr<const typename B::SwTable>(this->table);
    }
};
TYPED_TEST_SUITE(Wrappers, AllBindings, TableName);

TYPED_TEST(Wrappers, CopyTheEntryAndTakeAReferenceOnTheHandle) {
    const auto handle = this->handle(1);
    auto entry = this->entry(1, 5);
    const auto wrapper = Brumo::make<typename TypeParam::EntryWrapper>(entry, handle);
    entry = this->entry(2);
    EXPECT_EQ(wrapper->entry(), this->entry(1, 5));
    EXPECT_EQ(wrapper->swTableEntry(), this->entry(1, 5));
    EXPECT_TRUE(wrapper->key().isEq(this->key(1)));
    EXPECT_EQ(wrapper->entryHandle(), handle);
    EXPECT_EQ(handle->users(), 2U);
    EXPECT_FALSE(wrapper->isDeleted());
}

TYPED_TEST(Wrappers, ShowTheEntryInTheFormOfTheLogAndItsResourceKeys) {
    const auto wrapper = this->wrapper(1, 5);
    EXPECT_TRUE(wrapper->logEntry().isEq(this->entry(1, 5).toLogEntry()));
    EXPECT_TRUE(wrapper->rsrcKeys().isEq(this->entry(1, 5).resourceKeys()));
}

TYPED_TEST(Wrappers, FinalizeASuccessThroughTheHooks) {
    const auto helper = this->notingHelper();
    for (const bool isDeleted : {false, true}) {
        const auto wrapper = this->wrapper(1, 5);
        helper->calls.clear();
        wrapper->finalizeOnSuccess(this->constTable(), isDeleted);
        EXPECT_EQ(helper->calls,
                  std::vector<std::string>{isDeleted ? "success of a delete" : "success"});
        EXPECT_EQ(helper->last.key, this->key(1));
        EXPECT_EQ(wrapper->isDeleted(), isDeleted);
        EXPECT_EQ(wrapper->users(), 1U);
    }
}

TYPED_TEST(Wrappers, FinalizeAFailureThroughTheHooksAndReturnTheirAnswer) {
    const auto helper = this->notingHelper();
    for (const std::uint32_t answer : {0U, 1U, 0xFFFFFFFFU}) {
        helper->calls.clear();
        helper->commitFailed = answer;
        EXPECT_EQ(this->wrapper(1)->finalizeOnFailure(this->constTable(), false), answer);
        EXPECT_EQ(helper->calls, std::vector<std::string>{"failure"});
        EXPECT_EQ(this->wrapper(1)->finalizeOnFailure(this->constTable(), true), answer);
        EXPECT_EQ(helper->calls.back(), "failure of a delete");
    }
}

TYPED_TEST(Wrappers, TraceWhatTheyFinalize) {
    const std::string className = std::string(TypeParam::Types::kName) + "EntryWrapper";
    const auto line = [&](int level, const char* function, const std::string& text) {
        return TraceLine{level, this->name(), className, function, text};
    };
    this->notingHelper()->commitFailed = 17;
    const auto wrapper = this->wrapper(1);
    const TraceCapture traces;
    wrapper->finalizeOnSuccess(this->constTable(), true);
    wrapper->finalizeOnSuccess(this->constTable(), false);
    wrapper->finalizeOnFailure(this->constTable(), true);
    const std::string key = " key: " + this->text(1);
    EXPECT_EQ(traces.lines(), (std::vector<TraceLine>{
                                  line(8, "finalizeOnSuccess", key + " isDeleted: true"),
                                  line(8, "finalizeOnSuccess", key + " isDeleted: false"),
                                  line(8, "finalizeOnFailure", key + " isDeleted: true"),
                                  line(3, "finalizeOnFailure", " retVal: 17"),
                              }));
}

TYPED_TEST(Wrappers, KeepHooksAndWrapperForTheLengthOfACall) {
    struct Leaving final : SwTableHelperBase<TypeParam> {
        void leave() {
            wrapper = nullptr;
            table->swTableHelperIs(Brumo::make<SwTableHelperBase<TypeParam>>());
            EXPECT_EQ(this->users(), 1U) << "the call's own reference";
        }
        void finalizeOnSuccess(const typename SwTableHelperBase<TypeParam>::WrapperPtr& passed,
                               bool,
                               const typename SwTableHelperBase<TypeParam>::TablePtr&) override {
            leave();
            EXPECT_EQ(passed->users(), 1U);
        }
        std::uint32_t finalizeOnFailure(
            const typename SwTableHelperBase<TypeParam>::WrapperPtr& passed, bool,
            const typename SwTableHelperBase<TypeParam>::TablePtr&) override {
            leave();
            EXPECT_EQ(passed->users(), 1U);
            return 5;
        }
        typename TypeParam::SwTable* table = nullptr;
        Brumo::Ptr<typename TypeParam::EntryWrapper> wrapper;
    };
    const auto leaving = [&] {
        const auto helper = Brumo::make<Leaving>();
        helper->table = this->table.get();
        helper->wrapper = this->wrapper(1);
        this->table->swTableHelperIs(helper);
        return helper->wrapper.get();
    };
    leaving()->finalizeOnSuccess(this->constTable(), false);
    EXPECT_EQ(leaving()->finalizeOnFailure(this->constTable(), false), 5U);
}

TYPED_TEST(Wrappers, OfAnEntryWithoutResourcesHaveNothingToSetOrRetrieve) {
    const auto wrapper = this->wrapper(1, 5);
    const auto before = wrapper->entry();
    const TraceCapture traces;
    wrapper->setResolvedFields();
    wrapper->retrieveClientData();
    EXPECT_EQ(wrapper->entry(), before);
    EXPECT_TRUE(traces.lines().empty());
}

TYPED_TEST(Wrappers, DescribeTheirAttributes) {
    std::vector<std::string> expected{"entry",    "entryHandle", "logEntry",
                                      "rsrcKeys", "isDeleted",   "swTableEntry"};
    if constexpr (TypeParam::Linkages::kCount > 0) {
        expected = {"entry",
                    "entryHandle",
                    "counterRequestKeyResPtr",
                    "policerRequestKeyResPtr",
                    "logEntry",
                    "rsrcKeys",
                    "isDeleted",
                    "swTableEntry",
                    "counterRequestKey",
                    "policerRequestKey",
                    "policerClientData",
                    "counterIndex",
                    "policerIndex",
                    "featureId"};
    }
    const auto* module = Kiv::ModuleRegistry::instance().module(
        "VornPolicyCpu::" + std::string(TypeParam::Types::kName) + "InfraTypes");
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->types.at(0).attributes, expected);
    EXPECT_EQ(
        module->types.at(1).attributes,
        (std::vector<std::string>{"dependantEntryHandle", "flags", "swTable", "entryWrapper"}));
    EXPECT_TRUE(module->types.at(2).attributes.empty());
}

// The action's resolved fields.

class ActionWrappers : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    ActionWrappers() {
        counter->counterIndexIs(0x01020304);
        counter->featureIdIs(9);
        policer->policerIndexIs(0x0506);
        VornPolicerLib::PolicerIndexRequestClientData data;
        data.rate = 700;
        data.burst = 80;
        policer->clientDataIs(data);
        written.counterIndex = 11;
        written.featureId = 12;
        written.policerIndex = 13;
        written.policerClientData.rate = 14;
        wrapper = policyCpuTcamActionEntryWrapperFactory(written, handle(1));
    }
    void counterIs() { wrapper->resourceIs<CrpsIndexRequestBinding>(counter); }
    void policerIs() { wrapper->resourceIs<PolicerIndexRequestBinding>(policer); }
    void expectResolved(std::uint32_t counterIndex, unsigned featureId, unsigned policerIndex) {
        EXPECT_EQ(wrapper->entry().counterIndex, counterIndex);
        EXPECT_EQ(wrapper->entry().featureId, featureId);
        EXPECT_EQ(wrapper->entry().policerIndex, policerIndex);
    }
    void finalize(bool isDeleted) {
        wrapper->finalizeOnSuccess(Brumo::Ptr<const PolicyCpuTcamActionSwTable>(table), isDeleted);
    }

    const Brumo::Ptr<VornCountersLib::CounterResourceHandle> counter =
        Brumo::make<VornCountersLib::CounterResourceHandle>(actionEntry(1, 2, 3).counterRequestKey);
    const Brumo::Ptr<VornPolicerLib::PolicerResourceHandle> policer =
        Brumo::make<VornPolicerLib::PolicerResourceHandle>(actionEntry(1, 2, 3).policerRequestKey);
    PolicyCpuTcamActionEntry written = actionEntry(1, 2, 3);
    Brumo::Ptr<PolicyCpuTcamActionEntryWrapper> wrapper;
};

TEST_F(ActionWrappers, BeginWithoutResources) {
    EXPECT_EQ(wrapper->counterRequestKeyResPtr(), nullptr);
    EXPECT_EQ(wrapper->policerRequestKeyResPtr(), nullptr);
    EXPECT_EQ(wrapper->counterIndex(), 0xFFFFFFFFU);
    EXPECT_EQ(wrapper->featureId(), 0U);
    EXPECT_EQ(wrapper->policerIndex(), 0xFFFFU);
    expectResolved(11, 12, 13);
}

TEST_F(ActionWrappers, ShowWhatTheEntryAsksFor) {
    EXPECT_TRUE(wrapper->counterRequestKey().isEq(written.counterRequestKey));
    EXPECT_TRUE(wrapper->policerRequestKey().isEq(written.policerRequestKey));
    EXPECT_EQ(wrapper->policerClientData(), written.policerClientData);
}

TEST_F(ActionWrappers, ReportWhatTheResourcesHold) {
    counterIs();
    policerIs();
    EXPECT_EQ(wrapper->counterRequestKeyResPtr(), counter);
    EXPECT_EQ(wrapper->policerRequestKeyResPtr(), policer);
    EXPECT_EQ(wrapper->counterIndex(), 0x01020304U);
    EXPECT_EQ(wrapper->featureId(), 9U);
    EXPECT_EQ(wrapper->policerIndex(), 0x0506U);
}

TEST_F(ActionWrappers, SetAllResolvedFields) {
    counterIs();
    policerIs();
    wrapper->setResolvedFields();
    expectResolved(0x01020304, 9, 0x0506);
}

TEST_F(ActionWrappers, WithAPolicerOnlySetTheCountersFieldsToUnresolved) {
    policerIs();
    wrapper->setResolvedFields();
    expectResolved(0xFFFFFFFF, 0, 0x0506);
}

TEST_F(ActionWrappers, WithACounterOnlySetThePolicersFieldToUnresolved) {
    counterIs();
    wrapper->setResolvedFields();
    expectResolved(0x01020304, 9, 0xFFFF);
}

TEST_F(ActionWrappers, SetResolvedFieldsWhenAWriteSucceeds) {
    counterIs();
    policerIs();
    finalize(false);
    expectResolved(0x01020304, 9, 0x0506);
}

TEST_F(ActionWrappers, SetResolvedFieldsBeforeTheHookIsCalled) {
    counterIs();
    policerIs();
    const auto helper = notingHelper();
    finalize(false);
    EXPECT_EQ(helper->last.counterIndex, 0x01020304U);
    EXPECT_EQ(helper->last.policerIndex, 0x0506U);
}

TEST_F(ActionWrappers, LeaveTheFieldsOfADeletedEntryAsTheyAre) {
    counterIs();
    policerIs();
    finalize(true);
    expectResolved(11, 12, 13);
}

TEST_F(ActionWrappers, LeaveTheFieldsOfAFailedEntryAsTheyAre) {
    counterIs();
    policerIs();
    for (const bool isDeleted : {false, true}) {
        wrapper->finalizeOnFailure(Brumo::Ptr<const PolicyCpuTcamActionSwTable>(table), isDeleted);
        expectResolved(11, 12, 13);
    }
}

TEST_F(ActionWrappers, TakeOverThePolicersClientData) {
    policerIs();
    const TraceCapture traces;
    wrapper->retrieveClientData();
    EXPECT_EQ(wrapper->entry().policerClientData, policer->clientData());
    EXPECT_EQ(traces.lines(),
              (std::vector<TraceLine>{
                  {3, name(), "PolicyCpuTcamActionEntryWrapper", "retrieveClientData",
                   fmt::format(" Setting clientData to: {} ", policer->clientData())}}));
}

TEST_F(ActionWrappers, KeepTheClientDataAsWrittenWithoutAPolicer) {
    counterIs();
    const TraceCapture traces;
    wrapper->retrieveClientData();
    EXPECT_EQ(wrapper->entry().policerClientData, written.policerClientData);
    EXPECT_TRUE(traces.lines().empty());
}

// Hooks that nobody has overridden.

TYPED_TEST(Wrappers, DefaultHooksDoNothingAndCommitUpdatesOnly) {
    const auto helper = Brumo::make<SwTableHelperBase<TypeParam>>();
    const auto wrapper = this->wrapper(1, 5);
    const auto swTable = this->constTable();
    for (const bool flag : {false, true}) {
        helper->finalizeOnSuccess(wrapper, flag, swTable);
        EXPECT_EQ(helper->finalizeOnFailure(wrapper, flag, swTable), 0U);
        EXPECT_TRUE(helper->finalizeOnResourceUpdate(wrapper, swTable, flag));
    }
    EXPECT_EQ(wrapper->entry(), this->entry(1, 5));
}

// Resolver entries.

TYPED_TEST(Wrappers, ResolverEntriesHoldWhatTheyAreMadeOf) {
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::written);
    const auto wrapper = this->wrapper(1);
    const auto users = this->table->users();
    const auto change = this->change(Asic::EntryFlags::write, wrapper, dependency);
    EXPECT_EQ(change->dependantEntryHandle(), dependency);
    EXPECT_EQ(change->flags(), Asic::EntryFlags::write);
    EXPECT_EQ(change->swTable(), this->table.get());
    EXPECT_EQ(change->entryWrapper(), wrapper);
    EXPECT_EQ(wrapper->users(), 2U);
    EXPECT_EQ(this->table->users(), users) << "the table is not kept";
}

TYPED_TEST(Wrappers, ResolverEntriesTellWritesFromDeletes) {
    using Asic::EntryFlags;
    const auto wrapper = this->wrapper(1);
    const std::array<std::tuple<EntryFlags, unsigned, bool, bool>, 3> swTable{
        {{EntryFlags::write, 0, false, false},
         {EntryFlags::entryDelete, 1, true, false},
         {EntryFlags::tableDelete, 2, false, true}}};
    for (const auto& [flags, value, isEntryDeleted, isTableDeleted] : swTable) {
        EXPECT_EQ(static_cast<unsigned>(flags), value);
        EXPECT_EQ(this->change(flags, wrapper)->isEntryDeleted(), isEntryDeleted);
        EXPECT_EQ(this->change(flags, wrapper)->isTableDeleted(), isTableDeleted);
    }
}

TYPED_TEST(Wrappers, ResolverEntriesAskTheirTable) {
    const auto pending = Brumo::make<ForeignChange>(Asic::EntryState::created);
    EXPECT_TRUE(this->change(Asic::EntryFlags::entryDelete, this->wrapper(1))->isResolved());
    EXPECT_FALSE(
        this->change(Asic::EntryFlags::entryDelete, this->wrapper(1), pending)->isResolved());
}

TYPED_TEST(Wrappers, ResolverEntriesHaveTheirTableCommitTheGivenEntry) {
    const auto asked = this->change(Asic::EntryFlags::write, this->wrapper(1));
    const auto given = this->change(Asic::EntryFlags::write, this->wrapper(2));
    asked->commitEntry(given);
    EXPECT_FALSE(this->table->entryHas(this->key(1)));
    EXPECT_TRUE(this->table->entryHas(this->key(2)));
}

// Factories under the tables' names.

/// Both ways to make an object of each kind.
template <class MakeWrapper, class MakeResolver, class MakeHelper, class B>
void expectMade(MakeWrapper makeWrapper, MakeResolver makeResolver, MakeHelper makeHelper, B) {
    const auto entry = entryOf<B>(1, 5);
    const auto handle = entryHandleFactory<B>({0, 0}, entry.key, nullptr);
    const auto wrapper = makeWrapper(entry, handle);
    EXPECT_EQ(wrapper->entry(), entry);
    EXPECT_EQ(wrapper->entryHandle(), handle);
    const auto dependency = Brumo::make<ForeignChange>(Asic::EntryState::written);
    const auto change = makeResolver(dependency, Asic::EntryFlags::tableDelete, nullptr, wrapper);
    EXPECT_EQ(change->dependantEntryHandle(), dependency);
    EXPECT_TRUE(change->isTableDeleted());
    EXPECT_EQ(change->swTable(), nullptr);
    EXPECT_EQ(change->entryWrapper(), wrapper);
    EXPECT_EQ(makeHelper()->finalizeOnFailure(wrapper, false, nullptr), 0U);
}

TEST(WrapperFactories, MakeTheSameUnderBothNames) {
    expectMade(policyCpuTcamActionEntryWrapperFactory, policyCpuTcamActionResolverEntryFactory,
               policyCpuTcamActionSwTableHelperBaseFactory, PolicyCpuTcamActionBinding{});
    expectMade(PolicyCpuTcamActionEntryWrapperIs, PolicyCpuTcamActionResolverEntryIs,
               PolicyCpuTcamActionSwTableHelperBaseIs, PolicyCpuTcamActionBinding{});
    expectMade(policyCpuV4TcamEntryEntryWrapperFactory, policyCpuV4TcamEntryResolverEntryFactory,
               policyCpuV4TcamEntrySwTableHelperBaseFactory, PolicyCpuV4TcamEntryBinding{});
    expectMade(PolicyCpuV4TcamEntryEntryWrapperIs, PolicyCpuV4TcamEntryResolverEntryIs,
               PolicyCpuV4TcamEntrySwTableHelperBaseIs, PolicyCpuV4TcamEntryBinding{});
    expectMade(policyCpuV6TcamEntryEntryWrapperFactory, policyCpuV6TcamEntryResolverEntryFactory,
               policyCpuV6TcamEntrySwTableHelperBaseFactory, PolicyCpuV6TcamEntryBinding{});
    expectMade(PolicyCpuV6TcamEntryEntryWrapperIs, PolicyCpuV6TcamEntryResolverEntryIs,
               PolicyCpuV6TcamEntrySwTableHelperBaseIs, PolicyCpuV6TcamEntryBinding{});
}

}  // namespace
