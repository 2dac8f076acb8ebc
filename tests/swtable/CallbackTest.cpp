// Response handlers, hooks and observers that call back into the table or let go of it.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using AnsweredHandle = Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>;
using Handler = Asic::OrderedSwTable::ResponseHandler;

template <class B>
class Callback : public SwTableFixture<B> {
protected:
    auto writeAnd(std::uint32_t number, const Handler& handler) {
        return this->table->entryWriteWithResponseHandler(this->key(number), this->entry(number),
                                                          nullptr, handler);
    }
    auto removeAnd(std::uint32_t number, const Handler& handler) {
        return this->table->entryRemoveWithResponseHandler(this->key(number), nullptr, handler);
    }
    /// A write that fails with its dependency, on the next turn.
    auto writeThatFailsAnd(std::uint32_t number, const Handler& handler) {
        return this->table->entryWriteWithResponseHandler(
            this->key(number), this->entry(number),
            Brumo::make<ForeignChange>(Asic::EntryState::failed), handler);
    }
    /// A table that only the fixture's member owns.
    void becomeSoleOwner() {
        this->table =
            Brumo::make<typename B::SwTable>(nullptr, B::kTableId, Asic::UnitId{1}, nullptr,
                                             this->table->entryLog(), this->table->groupResolver());
    }
};
TYPED_TEST_SUITE(Callback, AllBindings, TableName);

// When the hardware side has acknowledged.

TYPED_TEST(Callback, OfAnAcknowledgedChangeMayWrite) {
    Answers answers;
    this->writeAnd(1, [&](const AnsweredHandle&) { this->writeAnd(2, answers.handler()); });
    this->agent.settle();
    this->agent.acknowledgeAll();
    this->agent.settle();
    EXPECT_EQ(this->table->entrys(), 2U);
    EXPECT_EQ(answers.count, 0);
    this->agent.acknowledgeAll();
    EXPECT_EQ(answers.count, 1);
    this->table->assertConsistent();
}

TYPED_TEST(Callback, OfAnAcknowledgedChangeMayChangeItsOwnKey) {
    int rounds = 0;
    Handler again;
    again = [&](const AnsweredHandle&) {
        if (++rounds < 5)
            this->writeAnd(1, again);
    };
    this->writeAnd(1, again);
    for (int i = 0; i < 6; ++i) {
        this->agent.settle();
        this->agent.acknowledgeAll();
        this->table->assertConsistent();
    }
    EXPECT_EQ(rounds, 5);
    EXPECT_EQ(this->version(), 5U);
    EXPECT_FALSE(this->table->hasPendingHwWrites());
}

TYPED_TEST(Callback, OfAnAcknowledgedChangeMayRemoveAndRemoveAll) {
    this->writeAnd(1, [&](const AnsweredHandle&) { this->remove(1); });
    this->writeAnd(2, [&](const AnsweredHandle&) { this->table->entryRemoveAll(nullptr); });
    Answers answers;
    this->writeAnd(3, answers.handler());
    this->agent.settle();
    this->agent.acknowledgeAll();
    EXPECT_EQ(answers.count, 1) << "the handles behind are answered all the same";
    this->agent.settle();
    EXPECT_EQ(this->table->entrys(), 0U);
    this->table->assertConsistent();
}

TYPED_TEST(Callback, OfAnAcknowledgedChangeMayClearTheTable) {
    this->writeAnd(1, [&](const AnsweredHandle&) { this->table->clearTable(true); });
    Answers answers;
    this->writeAnd(2, answers.handler());
    this->agent.settle();
    this->agent.acknowledgeAll();
    EXPECT_EQ(answers.count, 1);
    EXPECT_EQ(this->table->entrys(), 0U);
}

TYPED_TEST(Callback, OfAnAcknowledgedChangeMayAcknowledgeFurther) {
    std::vector<std::uint64_t> order;
    for (std::uint32_t number = 1; number <= 3; ++number) {
        this->writeAnd(number, [&](const AnsweredHandle& handle) {
            order.push_back(handle->logVersion().value);
            if (order.size() == 1)
                this->table->tableStatusVersion({3});
        });
    }
    this->agent.settle();
    this->table->tableStatusVersion({1});
    EXPECT_EQ(order, (std::vector<std::uint64_t>{1, 2, 3})) << "each once, in order";
}

TYPED_TEST(Callback, OfAnAcknowledgedChangeSeesItsStateAndAShorterQueue) {
    this->writeAnd(1, [&](const AnsweredHandle& handle) {
        EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
        EXPECT_EQ(this->table->entryHandlesInLog().size(), 1U);
        EXPECT_FALSE(this->table->entryHandleInLogHas(1));
    });
    this->write(2);
    this->agent.settle();
    this->agent.acknowledge(TypeParam::kTableId, 1);
    EXPECT_EQ(this->table->entryHandlesInLog().size(), 1U);
}

TYPED_TEST(Callback, OfAnAcknowledgedChangeMayDropTheQueue) {
    Answers answers;
    this->writeAnd(1, [&](const AnsweredHandle&) { this->table->entryHandleInLogDelAll(); });
    this->writeAnd(2, answers.handler());
    this->agent.settle();
    this->agent.acknowledgeAll();
    EXPECT_EQ(answers.count, 0);
}

TYPED_TEST(Callback, OfAnAcknowledgedChangeMayDropTheLastReferences) {
    this->becomeSoleOwner();
    Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle> held;
    Answers answers;
    held = this->writeAnd(1, [&](const AnsweredHandle& handle) {
        held = nullptr;
        this->table = nullptr;
        EXPECT_EQ(handle->tableId(), TypeParam::kTableId);
    });
    this->writeAnd(2, answers.handler());
    this->agent.settle();
    this->table->tableStatusVersion({2});
    EXPECT_EQ(this->table, nullptr);
    EXPECT_EQ(answers.count, 1) << "the table lives until the call has ended";
    this->agent.settle();
}

// When the change completes or fails at its commit.

TYPED_TEST(Callback, OfAChangeThatCompletesAtItsCommitMayWrite) {
    this->removeAnd(1, [&](const AnsweredHandle&) { this->write(1); });
    this->agent.settle();
    EXPECT_TRUE(this->table->entryHas(this->key(1)));
    EXPECT_EQ(this->version(), 1U);
    this->table->assertConsistent();
}

TYPED_TEST(Callback, OfAChangeThatFailsMayWriteAgain) {
    this->writeThatFailsAnd(1, [&](const AnsweredHandle& handle) {
        EXPECT_EQ(handle->entryState(), Asic::EntryState::failed);
        this->write(1);
    });
    this->agent.settle();
    EXPECT_EQ(this->table->entryFromConfig(this->key(1)), this->entry(1));
    EXPECT_EQ(this->table->transientAddEntrys(), 0U);
    this->table->assertConsistent();
}

TYPED_TEST(Callback, OfAChangeThatFailsMayRemoveAll) {
    this->committed(2);
    this->writeThatFailsAnd(1,
                            [&](const AnsweredHandle&) { this->table->entryRemoveAll(nullptr); });
    this->agent.settle();
    EXPECT_EQ(this->table->entrys(), 0U);
    EXPECT_FALSE(this->table->transientRemoveAllVersion().valid());
}

TYPED_TEST(Callback, OfAChangeThatCompletesAtItsCommitMayDropTheLastReferences) {
    this->becomeSoleOwner();
    const auto resolver = this->table->groupResolver();
    const auto later = this->write(2);
    this->removeAnd(1, [&](const AnsweredHandle&) { this->table = nullptr; });
    this->remove(1);
    this->agent.settle();
    EXPECT_EQ(this->table, nullptr);
    EXPECT_EQ(resolver->queued(), 0U);
    EXPECT_EQ(later->entryState(), Asic::EntryState::written);
}

TYPED_TEST(Callback, OfAChangeThatFailsMayDropTheLastReferences) {
    this->becomeSoleOwner();
    const auto resolver = this->table->groupResolver();
    this->writeThatFailsAnd(1, [&](const AnsweredHandle&) { this->table = nullptr; });
    this->write(1);
    this->write(2);
    this->agent.settle();
    EXPECT_EQ(this->table, nullptr);
    EXPECT_EQ(resolver->queued(), 0U);
    EXPECT_EQ(this->agent.group()->announcedVersion(TypeParam::kTableId).value, 0U);
}

TYPED_TEST(Callback, OfAFailedRemoveAllMayDropTheLastReferences) {
    this->becomeSoleOwner();
    this->table->entryRemoveAllWithResponseHandler(
        Brumo::make<ForeignChange>(Asic::EntryState::failed),
        [&](const AnsweredHandle&) { this->table = nullptr; });
    this->write(1);
    this->agent.settle();
    EXPECT_EQ(this->table, nullptr);
}

// Hooks.

/// Hooks that do what the test says on every success.
template <class B>
struct ActingHelper final : SwTableHelperBase<B> {
    using Base = SwTableHelperBase<B>;
    explicit ActingHelper(std::function<void(bool)> a) : act(std::move(a)) {}
    void finalizeOnSuccess(const typename Base::WrapperPtr&, bool isDeleted,
                           const typename Base::TablePtr&) override {
        act(isDeleted);
    }
    std::function<void(bool)> act;
};

TYPED_TEST(Callback, OfAHookMayChangeTheKeyThatIsBeingCommitted) {
    int calls = 0;
    this->table->swTableHelperIs(Brumo::make<ActingHelper<TypeParam>>([&](bool isDeleted) {
        if (++calls > 2)
            return;
        isDeleted ? static_cast<void>(this->write(1, 9)) : static_cast<void>(this->remove(1));
        this->table->assertConsistent();
    }));
    const auto first = this->write(1);
    this->agent.settle();
    EXPECT_EQ(calls, 3) << "written, removed, written again";
    EXPECT_EQ(first->logVersion().value, 1U);
    EXPECT_EQ(this->version(), 3U);
    EXPECT_EQ(this->table->entryRead(this->key(1)), this->entry(1, 9));
    EXPECT_EQ(this->table->transientVersionForKeys(), 0U);
    this->table->assertConsistent();
}

TYPED_TEST(Callback, OfAHookMayReplaceTheHooks) {
    const auto other = Brumo::make<NotingHelper<TypeParam>>();
    this->table->swTableHelperIs(
        Brumo::make<ActingHelper<TypeParam>>([&](bool) { this->table->swTableHelperIs(other); }));
    this->write(1);
    this->write(2);
    this->agent.settle();
    EXPECT_EQ(other->calls, std::vector<std::string>{"success"});
}

TYPED_TEST(Callback, OfAHookMayDropTheLastReference) {
    this->becomeSoleOwner();
    this->table->swTableHelperIs(
        Brumo::make<ActingHelper<TypeParam>>([&](bool) { this->table = nullptr; }));
    const auto handle = this->write(1);
    this->agent.settle();
    EXPECT_EQ(this->table, nullptr);
    EXPECT_EQ(handle->logVersion().value, 1U) << "the commit is finished before the table goes";
}

// Observers.

TYPED_TEST(Callback, OfAHandlesObserverMayWrite) {
    const auto handle = this->write(1);
    const auto subscription = handle->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == Asic::DependencyEntryHandle::kEntryState &&
            handle->entryState() == Asic::EntryState::written)
            this->write(2);
    });
    this->agent.settle();
    EXPECT_EQ(this->table->entrys(), 2U);
    this->table->assertConsistent();
}

TYPED_TEST(Callback, OfATablesObserverMayReadWhatHasChanged) {
    std::vector<bool> staged;
    const auto subscription = this->table->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == Asic::OrderedSwTable::kTransientAddEntry)
            staged.push_back(this->table->entryHas(this->key(1)));
    });
    this->write(1);
    this->agent.settle();
    EXPECT_EQ(staged, (std::vector<bool>{true, false})) << "staged, then on its way into the log";
}

/// Each operation holds the table until it has ended.
TYPED_TEST(Callback, OfATablesObserverMayDropTheLastReference) {
    const auto resolver = this->table->groupResolver();
    using Act = std::function<void(typename TypeParam::SwTable&)>;
    const std::vector<Act> operations{
        [&](auto& own) { own.entryWrite(this->key(1), this->entry(1), nullptr); },
        [&](auto& own) { own.entryRemove(this->key(1), nullptr); },
        [&](auto& own) { own.entryRemoveAll(nullptr); },
    };
    const auto family = this->table;
    for (const Act& operation : operations) {
        this->table = family;
        this->becomeSoleOwner();
        const auto subscription =
            this->table->publisher().subscribe([&](const Kiv::Change&) { this->table = nullptr; });
        operation(*this->table);
        EXPECT_EQ(this->table, nullptr);
        EXPECT_EQ(resolver->queued(), 0U);
    }
}

TYPED_TEST(Callback, OfAHookMayDropTheLastReferenceInADirectCommit) {
    this->becomeSoleOwner();
    this->table->swTableHelperIs(
        Brumo::make<ActingHelper<TypeParam>>([&](bool) { this->table = nullptr; }));
    const auto change = this->change(Asic::EntryFlags::write, this->wrapper(1));
    this->commit(change);
    EXPECT_EQ(this->table, nullptr);
    EXPECT_EQ(change->entryWrapper()->entryHandle()->logVersion().value, 1U);
}

/// The action table alone has resources that are given up, or taken up again, on the way.
class ActionCallback : public Callback<PolicyCpuTcamActionBinding> {
protected:
    void becomeSoleOwnerWithLinkages() {
        using Counter = CrpsIndexRequestBinding;
        becomeSoleOwner();
        table->linkageIs<Counter>(policyCpuTcamActionCrpsIndexRequestLinkageFactory(
            table.get(), agent.counters()->makeClientInstance()));
    }
};

TEST_F(ActionCallback, OfAHookMayDropTheLastReferenceWhileEntriesAreRestored) {
    struct Dropping final : PolicyCpuTcamActionSwTableHelperBase {
        bool finalizeOnResourceUpdate(const WrapperPtr&, const TablePtr&, bool) override {
            drop();
            return true;
        }
        std::function<void()> drop;
    };
    for (std::uint32_t number = 1; number <= 3; ++number)
        table->entryWrite(actionKey(number), actionEntry(number, number), nullptr);
    agent.settle();
    becomeSoleOwnerWithLinkages();
    const auto helper = Brumo::make<Dropping>();
    int calls = 0;
    helper->drop = [&] {
        ++calls;
        table = nullptr;
    };
    table->swTableHelperIs(helper);
    table->restoreEntries();
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(calls, 3) << "the restore is finished before the table goes";
}

}  // namespace
