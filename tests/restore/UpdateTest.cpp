// Re-evaluating one committed entry, and what it is made of: wrappers from the configuration.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;

template <class B>
class Update : public SwTableFixture<B> {
protected:
    /// Makes the stored log entry one that this version of the entry would not write.
    void differs(std::uint32_t number) {
        auto stored = *this->config()->swTableEntries(this->key(number));
        stored.logEntry.head = LogEntryHead{.revision = 1, .origin = 99};
        this->config()->swTableEntriesIs(stored);
    }
};
TYPED_TEST_SUITE(Update, AllBindings, TableName);

TYPED_TEST(Update, OfAnAbsentKeyDoesNothing) {
    const auto helper = this->notingHelper();
    const TraceCapture traces;
    EXPECT_EQ(this->table->updateEntry(this->key(1)), nullptr);
    EXPECT_TRUE(traces.has(this->name(), 3, " key: " + this->text(1) + " entry does not exist "));
    EXPECT_TRUE(helper->calls.empty());
    EXPECT_EQ(this->version(), 0U);
}

TYPED_TEST(Update, OfAStagedOrDeletedKeyDoesNothing) {
    this->committed(1);
    this->remove(1);
    this->agent.settle();
    this->write(2);
    EXPECT_EQ(this->table->updateEntry(this->key(1)), nullptr);
    EXPECT_EQ(this->table->updateEntry(this->key(2)), nullptr);
}

TYPED_TEST(Update, WithoutAnyChangeWritesNothingAndGivesTheHandle) {
    this->committed(1);
    const auto helper = this->notingHelper();
    const TraceCapture traces;
    const auto handle = this->table->updateEntry(this->key(1));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->logVersion().value, 1U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->version(), 1U);
    EXPECT_EQ(this->table->stats()->updateCnt(), 0U);
    EXPECT_EQ(helper->calls, std::vector<std::string>{"update"});
    EXPECT_TRUE(traces.has(this->name(), 3,
                           " key: " + this->text(1) +
                               ", commitToLog: true, no change in logEntry or don't commit to "
                               "log"));
}

TYPED_TEST(Update, OfAChangedEntryIsWrittenButNotQueued) {
    this->committed(1);
    this->agent.acknowledgeAll();
    this->differs(1);
    const TraceCapture traces;
    const auto handle = this->table->updateEntry(this->key(1));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->logVersion().value, 2U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->record(2)->operation, LogOperation::entryWritten);
    EXPECT_EQ(this->table->stats()->updateCnt(), 1U);
    EXPECT_EQ(this->table->stats()->commitCnt(), 1U) << "an update is no commit";
    EXPECT_EQ(this->table->stats()->suppressCheckDiffCnt(), 0U) << "suppression is off";
    EXPECT_EQ(this->table->entryHandleInLogFront(), nullptr);
    EXPECT_TRUE(traces.has(this->name(), 3,
                           " key: " + this->text(1) + ", neededEntry: {}, entryLogVersion: 2 "));
    EXPECT_TRUE(this->neededOf(2).empty());
    EXPECT_EQ(this->table->updateEntry(this->key(1))->logVersion().value, 2U);
    EXPECT_EQ(this->version(), 2U);
}

TYPED_TEST(Update, IsNotWrittenWhenTheHookSaysNo) {
    this->committed(1);
    this->differs(1);
    this->notingHelper()->commitUpdates = false;
    const TraceCapture traces;
    const auto handle = this->table->updateEntry(this->key(1));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->logVersion().value, 1U);
    EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_EQ(this->version(), 1U);
    EXPECT_EQ(this->table->stats()->updateCnt(), 0U);
    EXPECT_TRUE(traces.has(this->name(), 3,
                           " key: " + this->text(1) +
                               ", commitToLog: false, no change in logEntry or don't commit to "
                               "log"));
}

TYPED_TEST(Update, ComparesWithTheLogWhateverTheHookSays) {
    this->committed(1);
    this->notingHelper()->commitUpdates = false;
    const TraceCapture traces;
    this->table->updateEntry(this->key(1));
    EXPECT_EQ(callsOf(traces, std::string(TypeParam::Types::kName) + "EntryLog", "entry"), 1U);
}

/// A hook that writes the log itself, what the update is about to write.
template <class B>
class WritingHelper final : public SwTableHelperBase<B> {
public:
    using Base = SwTableHelperBase<B>;

    bool finalizeOnResourceUpdate(const typename Base::WrapperPtr& wrapper,
                                  const typename Base::TablePtr& swTable,
                                  bool /*failed*/) override {
        swTable->entryLog()->entryIs(wrapper->logEntry(), wrapper->rsrcKeys(),
                                     Brumo::make<Asic::NeededEntry>(), swTable->unitId(),
                                     swTable->stats(), false);
        return true;
    }
};

TYPED_TEST(Update, ComparesWithWhatTheLogHoldsAfterTheHook) {
    this->committed(1);
    this->differs(1);
    this->table->swTableHelperIs(Brumo::make<WritingHelper<TypeParam>>());
    const auto handle = this->table->updateEntry(this->key(1));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(this->version(), 2U) << "of the hook";
    EXPECT_EQ(handle->logVersion().value, 2U);
    EXPECT_EQ(this->table->stats()->updateCnt(), 0U);
}

TYPED_TEST(Update, MakesItsWrapperWithoutARequest) {
    this->committed(1);
    const TraceCapture traces;
    this->table->updateEntry(this->key(1));
    EXPECT_TRUE(traces.has(this->name(), 8, "key: " + this->text(1) + ", refreshRsrcPtrs: false"));
    EXPECT_TRUE(traces.has(this->name(), 8, "key: " + this->text(1) + ", refresh: false"));
}

// Wrappers from the configuration.

template <class B>
class FromConfiguration : public SwTableFixture<B> {};
TYPED_TEST_SUITE(FromConfiguration, AllBindings, TableName);

TYPED_TEST(FromConfiguration, MakesAHandleOfTheKeyItsVersionAndTheTable) {
    this->committed(1, 5);
    this->committed(1, 6);
    typename TestFixture::HandlePtr handle;
    const TraceCapture traces;
    const auto wrapper = this->table->entryWrapperFromConfig(this->key(1), true, handle);
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(handle->key().isEq(this->key(1)));
    EXPECT_EQ(handle->swTable(), this->table.get());
    EXPECT_TRUE(handle->entryVersion().isEq({2, 0}));
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_EQ(wrapper->entryHandle(), handle);
    EXPECT_EQ(wrapper->entry(), this->entry(1, 6));
    EXPECT_TRUE(traces.has(this->name(), 8, "key: " + this->text(1) + ", refreshRsrcPtrs: true"));
    EXPECT_TRUE(traces.has(this->name(), 8, "key: " + this->text(1) + ", refresh: true"));
}

TYPED_TEST(FromConfiguration, KeepsAHandleThatIsThere) {
    this->committed(1);
    const auto given = this->handle(7);
    auto handle = given;
    const auto wrapper = this->table->entryWrapperFromConfig(this->key(1), false, handle);
    EXPECT_EQ(handle, given);
    EXPECT_EQ(wrapper->entryHandle(), given);
}

TYPED_TEST(FromConfiguration, NeedsNothingWithoutResources) {
    EXPECT_TRUE(this->table->getNeededEntrySet(this->wrapper(1))->empty());
}

// Resources of an action.

class ActionUpdate : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    ActionUpdate() : helper(notingHelper()) {
        table->entryWrite(actionKey(1), actionEntry(1, 5, 6), nullptr);
        agent.settle();
        helper->calls.clear();
    }

    Brumo::Ptr<NotingHelper<PolicyCpuTcamActionBinding>> helper;
};

TEST_F(ActionUpdate, TakesTheHandlesThatTheLinkagesTrack) {
    HandlePtr handle;
    const TraceCapture traces;
    const auto wrapper = table->entryWrapperFromConfig(actionKey(1), false, handle);
    EXPECT_EQ(wrapper->counterRequestKeyResPtr(),
              table->crpsIndexRequestLinkage()->entryUsageSm({5})->resPtr());
    EXPECT_EQ(wrapper->policerRequestKeyResPtr(),
              table->policerIndexRequestLinkage()->entryUsageSm({6})->resPtr());
    EXPECT_EQ(callsOf(traces, "CrpsIndexRequestResourceTable", "request"), 0U);
    EXPECT_EQ(callsOf(traces, "PolicerIndexRequestResourceTable", "request"), 0U);
}

TEST_F(ActionUpdate, RefreshAsksTheCounterTableThenThePolicerTable) {
    HandlePtr handle;
    const TraceCapture traces;
    table->entryWrapperFromConfig(actionKey(1), true, handle);
    std::vector<std::string> asked;
    for (const TraceLine& line : traces.lines()) {
        if (line.function == "request" && line.level == 8)
            asked.push_back(line.handle);
    }
    EXPECT_EQ(asked, (std::vector<std::string>{"CrpsIndexRequestResourceTable",
                                               "PolicerIndexRequestResourceTable"}));
}

TEST_F(ActionUpdate, TakesThePolicersClientData) {
    auto data = table->entryFromConfig(actionKey(1)).policerClientData;
    data.rate = 9999;
    const auto user = agent.policers()->makeClientInstance();
    const auto resource = user->request({6}, data, nullptr);
    HandlePtr handle;
    const TraceCapture traces;
    const auto wrapper = table->entryWrapperFromConfig(actionKey(1), false, handle);
    EXPECT_EQ(wrapper->entry().policerClientData, data);
    EXPECT_TRUE(traces.has(name(), 3, " Setting clientData to: " + data.toText() + " "));
}

TEST_F(ActionUpdate, WritesWhatTheResourcesNowGive) {
    const auto resource = table->crpsIndexRequestLinkage()->entryUsageSm({5})->resPtr();
    const_cast<CrpsIndexRequestBinding::ResourceHandle&>(*resource).counterIndexIs(321);
    const auto handle = table->updateEntry(actionKey(1));
    EXPECT_EQ(handle->logVersion().value, 2U);
    EXPECT_EQ(table->entryFromConfig(actionKey(1)).counterIndex, 321U);
    EXPECT_EQ(helper->calls, std::vector<std::string>{"update"});
    EXPECT_EQ(helper->last.counterIndex, 321U) << "the hook sees the resolved fields";
    EXPECT_EQ(neededOf(2).size(), 2U) << "the counter's version and the policer's";
}

TEST_F(ActionUpdate, WithAFailedResourceIsCountedTracedToldAndWritten) {
    const auto resource = table->policerIndexRequestLinkage()->entryUsageSm({6})->resPtr();
    auto& policer = const_cast<PolicerIndexRequestBinding::ResourceHandle&>(*resource);
    policer.entryStateIs(State::resourceFailed);
    policer.policerIndexIs(77);
    const TraceCapture traces;
    table->updateEntry(actionKey(1));
    EXPECT_EQ(helper->calls, std::vector<std::string>{"update with failure"});
    EXPECT_EQ(table->stats()->updateWithFailedResourceCnt(), 1U);
    EXPECT_EQ(table->stats()->updateCnt(), 1U);
    EXPECT_TRUE(
        traces.has(name(), 3, " key: " + actionKey(1).toText() + ", some resource had failed"));
    EXPECT_TRUE(traces.has(name(), 3,
                           "SwTable key: " + actionKey(1).toText() +
                               ", resourceKey: 00000006/0 has failed resolution!"));
    EXPECT_EQ(table->entryFromConfig(actionKey(1)).policerIndex, 77U);
}

TEST_F(ActionUpdate, WithAFailedResourceIsNotWrittenWhenNothingDiffers) {
    const auto resource = table->policerIndexRequestLinkage()->entryUsageSm({6})->resPtr();
    const_cast<PolicerIndexRequestBinding::ResourceHandle&>(*resource).entryStateIs(State::failed);
    EXPECT_EQ(table->updateEntry(actionKey(1))->logVersion().value, 1U);
    EXPECT_EQ(table->stats()->updateWithFailedResourceCnt(), 1U);
    EXPECT_EQ(version(), 1U);
}

TEST_F(ActionUpdate, NeedsTheCountersVersionsThenThePolicers) {
    HandlePtr handle;
    const auto wrapper = table->entryWrapperFromConfig(actionKey(1), false, handle);
    const auto needed = table->getNeededEntrySet(wrapper);
    ASSERT_EQ(needed->size(), 2U);
    EXPECT_EQ(needed->begin()->tableId, agent.counters()->tableId());
    EXPECT_EQ((needed->begin() + 1)->tableId, agent.policers()->tableId());
}

template <class B>
class UpdateOfMatches : public SwTableFixture<B> {};
using MatchBindings = ::testing::Types<PolicyCpuV4TcamEntryBinding, PolicyCpuV6TcamEntryBinding>;
TYPED_TEST_SUITE(UpdateOfMatches, MatchBindings, TableName);

TYPED_TEST(UpdateOfMatches, KnowsNoFailedResource) {
    const auto helper = this->notingHelper();
    this->committed(1);
    helper->calls.clear();
    const TraceCapture traces;
    this->table->updateEntry(this->key(1));
    EXPECT_EQ(helper->calls, std::vector<std::string>{"update"});
    EXPECT_EQ(this->table->stats()->updateWithFailedResourceCnt(), 0U);
    EXPECT_FALSE(
        traces.has(this->name(), 3, " key: " + this->text(1) + ", some resource had failed"));
}

}  // namespace
