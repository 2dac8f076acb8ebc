// The software table as an object: its members and what they publish, its queue of handles, how it
// is made and how it goes.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using Attribute = Asic::OrderedSwTable::Attribute;

template <class B>
class TableObject : public SwTableFixture<B> {
protected:
    using Table = typename B::SwTable;

    /// A table of a unit that no table set knows, on the fixture's log and resolver.
    Brumo::Ptr<Table> looseTable(const Brumo::Ptr<const Asic::CanonicalTableName>& name = nullptr) {
        return Brumo::make<Table>(name, B::kTableId, this->table->unitId(), nullptr,
                                  this->table->entryLog(), this->table->groupResolver());
    }
};
TYPED_TEST_SUITE(TableObject, AllBindings, TableName);

/// Notes the publications of one attribute of a table, old values included.
template <class Old>
class Publications {
public:
    Publications(const Asic::OrderedSwTable& table, Attribute attribute)
        : subscription_(table.publisher().subscribe([this, attribute](const Kiv::Change& change) {
              if (change.attribute != attribute)
                  return;
              ++count;
              if (change.oldValue != nullptr)
                  olds.push_back(change.oldAs<Old>());
          })) {}

    int count = 0;
    std::vector<Old> olds;

private:
    Kiv::Subscription subscription_;
};

// Making one.

TYPED_TEST(TableObject, BeginsEmpty) {
    const auto& swTable = *this->table;
    EXPECT_EQ(swTable.transientAddEntrys(), 0U);
    EXPECT_EQ(swTable.transientRemoveEntrys(), 0U);
    EXPECT_EQ(swTable.transientVersionForKeys(), 0U);
    EXPECT_FALSE(swTable.transientRemoveAllVersion().valid());
    EXPECT_EQ(swTable.transientRemoveAllVersion().value, ~std::uint64_t{0});
    EXPECT_EQ(swTable.entryHandleInLogFront(), nullptr);
    EXPECT_EQ(swTable.entryHandleInLogBack(), nullptr);
    swTable.assertConsistent();
}

TYPED_TEST(TableObject, HoldsWhatItIsMadeOf) {
    const auto name =
        Brumo::make<Asic::CanonicalTableName>(Asic::TableType::ordered, "Own", "Second");
    Asic::OrderedSwTableSet tableSet(TypeParam::kTableId, nullptr);
    const Asic::SwTableId identity{1, 2, 0x1f};
    const auto swTable = Brumo::make<typename TypeParam::SwTable>(
        name, identity, Asic::UnitId{9}, &tableSet, this->table->entryLog(),
        this->table->groupResolver());
    EXPECT_EQ(swTable->canonicalTableName(), name);
    EXPECT_EQ(swTable->tableId(), identity);
    EXPECT_EQ(swTable->unitId(), Asic::UnitId{9});
    EXPECT_EQ(swTable->tableSet(), &tableSet);
    EXPECT_EQ(swTable->entryLog(), this->table->entryLog());
    EXPECT_EQ(swTable->groupResolver(), this->table->groupResolver());
}

TYPED_TEST(TableObject, TakesAReferenceOnLogAndResolverWhileItLives) {
    const auto logUsers = this->table->entryLog()->users();
    const auto resolverUsers = this->table->groupResolver()->users();
    auto swTable = this->looseTable();
    EXPECT_EQ(this->table->entryLog()->users(), logUsers + 1);
    EXPECT_EQ(this->table->groupResolver()->users(), resolverUsers + 1);
    swTable = nullptr;
    EXPECT_EQ(this->table->entryLog()->users(), logUsers);
    EXPECT_EQ(this->table->groupResolver()->users(), resolverUsers);
}

TYPED_TEST(TableObject, TracesWhatItDoesNotDoWhenItIsInitialized) {
    const TraceCapture traces;
    this->looseTable();
    ASSERT_FALSE(traces.lines().empty());
    EXPECT_EQ(traces.lines().front(), (TraceLine{8, this->name(), this->name(), "handleInitialized",
                                                 "doesMarkSweep: False hwErrorHandling: False"}));
}

TYPED_TEST(TableObject, InstallsDefaultHooksAndStatistics) {
    const auto swTable = this->looseTable();
    ASSERT_NE(swTable->swTableHelper(), nullptr);
    EXPECT_EQ(swTable->swTableHelper()->finalizeOnFailure(nullptr, false, nullptr), 0U);
    EXPECT_TRUE(swTable->swTableHelper()->finalizeOnResourceUpdate(nullptr, nullptr, true));
    ASSERT_NE(swTable->stats(), nullptr);
    EXPECT_EQ(swTable->stats()->entryWriteCnt(), 0U);
    EXPECT_EQ(swTable->stats()->lastCommitTime(), 0.0);
}

TYPED_TEST(TableObject, ReleasesAllWhenItsInitializationFails) {
    const auto logUsers = this->table->entryLog()->users();
    const auto resolverUsers = this->table->groupResolver()->users();
    const TraceCapture restoresTheFilter;
    auto before = Brumo::traceSinkIs([](const Brumo::TraceRecord& record) {
        if (record.function == "handleInitialized")
            throw std::runtime_error("no room");
    });
    EXPECT_THROW(this->looseTable(), std::runtime_error);
    Brumo::traceSinkIs(std::move(before));
    EXPECT_EQ(this->table->entryLog()->users(), logUsers);
    EXPECT_EQ(this->table->groupResolver()->users(), resolverUsers);
}

TYPED_TEST(TableObject, DescribesItsAttributesInTheirOrder) {
    std::vector<std::string> expected{
        "swTableHelper",          "transientAddEntry",         "transientRemoveEntry",
        "transientVersionForKey", "transientRemoveAllVersion", "entryLog",
        "groupResolver",          "entryHandleInLog"};
    if constexpr (TypeParam::Linkages::kCount > 0) {
        expected.insert(expected.end(), {"crpsIndexRequestLinkage", "policerIndexRequestLinkage"});
    }
    expected.push_back("tableEntries");
    EXPECT_EQ(this->table->typeData().name, "VornPolicyCpu::" + this->name());
    EXPECT_EQ(this->table->typeData().attributes, expected);
}

TYPED_TEST(TableObject, DoesNothingInTheFrameworksOtherOperations) {
    this->write(1);
    const TraceCapture traces;
    const auto users = this->table->users();
    this->table->doCreateHwTable();
    this->table->doCreateHwTableResponse();
    this->table->handleParent();
    Asic::NamedSwTable& named = *this->table;
    named.reconcile();
    EXPECT_TRUE(traces.lines().empty());
    EXPECT_EQ(this->table->users(), users);
    EXPECT_EQ(this->table->transientAddEntrys(), 1U);
    EXPECT_EQ(this->version(), 0U);
    this->table->assertConsistent();
}

// Members and what they publish.

TYPED_TEST(TableObject, PublishesNewHooksWithTheOldOnes) {
    using HelperPtr = Brumo::Ptr<SwTableHelperBase<TypeParam>>;
    const HelperPtr first = this->table->swTableHelper();
    const HelperPtr second = Brumo::make<NotingHelper<TypeParam>>();
    const Publications<HelperPtr> published(*this->table, Attribute::kSwTableHelper);
    this->table->swTableHelperIs(second);
    EXPECT_EQ(this->table->swTableHelper(), second);
    EXPECT_EQ(published.olds, std::vector<HelperPtr>{first});
    this->table->swTableHelperIs(second);
    EXPECT_EQ(published.count, 1) << "nothing has changed";
}

TYPED_TEST(TableObject, PublishesANewRemoveAllVersionWithTheOldOne) {
    const Publications<Asic::MajorVersion> published(*this->table,
                                                     Attribute::kTransientRemoveAllVersion);
    this->table->transientRemoveAllVersionIs({});
    EXPECT_EQ(published.count, 0) << "nothing has changed";
    this->table->transientRemoveAllVersionIs({0});
    this->table->transientRemoveAllVersionIs({0});
    this->table->transientRemoveAllVersionIs({1});
    this->table->transientRemoveAllVersionIs({});
    EXPECT_EQ(published.olds, (std::vector<Asic::MajorVersion>{{}, {0}, {1}}));
}

TYPED_TEST(TableObject, StoresARemoveAllVersionBeforeItIsPublished) {
    std::vector<std::uint64_t> seen;
    const auto subscription = this->table->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == Attribute::kTransientRemoveAllVersion)
            seen.push_back(this->table->transientRemoveAllVersion().value);
    });
    this->table->transientRemoveAllVersionIs({3});
    EXPECT_EQ(seen, std::vector<std::uint64_t>{3});
}

/// The two collections of staged wrappers behave alike; the tests below run on both.
template <class B>
struct Staged {
    using Table = typename B::SwTable;
    using WrapperPtr = Brumo::Ptr<typename B::EntryWrapper>;

    Attribute attribute;
    WrapperPtr (SwTable<B>::*at)(const typename B::Key&) const;
    void (SwTable<B>::*is)(const WrapperPtr&);
    void (SwTable<B>::*del)(const typename B::Key&);
    void (SwTable<B>::*delAll)();
    std::size_t (SwTable<B>::*count)() const;

    static std::array<Staged, 2> both() {
        using T = SwTable<B>;
        return {{{Attribute::kTransientAddEntry, &T::transientAddEntry, &T::transientAddEntryIs,
                  &T::transientAddEntryDel, &T::transientAddEntryDelAll, &T::transientAddEntrys},
                 {Attribute::kTransientRemoveEntry, &T::transientRemoveEntry,
                  &T::transientRemoveEntryIs, &T::transientRemoveEntryDel,
                  &T::transientRemoveEntryDelAll, &T::transientRemoveEntrys}}};
    }
};

TYPED_TEST(TableObject, KeepsStagedWrappersByTheirKey) {
    auto& swTable = *this->table;
    for (const auto& staged : Staged<TypeParam>::both()) {
        EXPECT_EQ((swTable.*staged.at)(this->key(1)), nullptr);
        const auto first = this->wrapper(1);
        const auto second = this->wrapper(1, 7);
        const auto other = this->wrapper(2);
        (swTable.*staged.is)(first);
        EXPECT_EQ((swTable.*staged.at)(this->key(1)), first);
        (swTable.*staged.is)(second);
        (swTable.*staged.is)(other);
        EXPECT_EQ((swTable.*staged.at)(this->key(1)), second) << "the later one replaces";
        EXPECT_EQ((swTable.*staged.count)(), 2U);
        (swTable.*staged.del)(this->key(1));
        EXPECT_EQ((swTable.*staged.at)(this->key(1)), nullptr);
        EXPECT_EQ((swTable.*staged.at)(this->key(2)), other);
        (swTable.*staged.del)(this->key(1));
        EXPECT_EQ((swTable.*staged.count)(), 1U);
        (swTable.*staged.delAll)();
        EXPECT_EQ((swTable.*staged.count)(), 0U);
        EXPECT_EQ(first->users() + second->users() + other->users(), 3U) << "nothing is kept";
    }
}

TYPED_TEST(TableObject, PublishesStagedWrappersWithWhatTheKeyHadBefore) {
    using Held = Brumo::Ptr<typename TypeParam::EntryWrapper>;
    auto& swTable = *this->table;
    for (const auto& staged : Staged<TypeParam>::both()) {
        const Publications<Held> published(swTable, staged.attribute);
        const auto first = this->wrapper(1);
        const auto second = this->wrapper(1, 7);
        (swTable.*staged.is)(first);
        (swTable.*staged.is)(first);
        (swTable.*staged.is)(second);
        (swTable.*staged.del)(this->key(1));
        (swTable.*staged.del)(this->key(1));
        EXPECT_EQ(published.olds, (std::vector<Held>{nullptr, first, second}));
        EXPECT_EQ(published.count, 3) << "only real changes";
        (swTable.*staged.delAll)();
        EXPECT_EQ(published.count, 3) << "nothing was there";
        (swTable.*staged.is)(first);
        (swTable.*staged.is)(this->wrapper(2));
        (swTable.*staged.delAll)();
        EXPECT_EQ(published.count, 6) << "all at once is one change";
    }
}

TYPED_TEST(TableObject, KnowsNoVersionOfAnUnknownKey) {
    const auto version = this->table->transientVersionForKey(this->key(1));
    EXPECT_FALSE(version.valid());
    EXPECT_EQ(version.sequence, ~std::uint64_t{0});
    EXPECT_EQ(version.generation, 65535U);
}

TYPED_TEST(TableObject, KeepsVersionsByKey) {
    auto& swTable = *this->table;
    swTable.transientVersionForKeyIs(this->key(1), {4, 2});
    swTable.transientVersionForKeyIs(this->key(2), {5, 0});
    swTable.transientVersionForKeyIs(this->key(1), {6, 2});
    EXPECT_TRUE(swTable.transientVersionForKey(this->key(1)).isEq({6, 2}));
    EXPECT_EQ(swTable.transientVersionForKeys(), 2U);
    swTable.transientVersionForKeyDel(this->key(1));
    swTable.transientVersionForKeyDel(this->key(1));
    EXPECT_FALSE(swTable.transientVersionForKey(this->key(1)).valid());
    EXPECT_TRUE(swTable.transientVersionForKey(this->key(2)).isEq({5, 0}));
    swTable.transientVersionForKeyDelAll();
    EXPECT_EQ(swTable.transientVersionForKeys(), 0U);
}

TYPED_TEST(TableObject, PublishesVersionsWithWhatTheKeyHadBefore) {
    auto& swTable = *this->table;
    const Publications<Asic::EntryVersion> published(swTable, Attribute::kTransientVersionForKey);
    swTable.transientVersionForKeyIs(this->key(1), {0, 0});
    swTable.transientVersionForKeyIs(this->key(1), {0, 0});
    swTable.transientVersionForKeyIs(this->key(1), {1, 0});
    swTable.transientVersionForKeyDel(this->key(1));
    swTable.transientVersionForKeyDel(this->key(1));
    swTable.transientVersionForKeyDelAll();
    ASSERT_EQ(published.olds.size(), 3U);
    EXPECT_FALSE(published.olds[0].valid());
    EXPECT_TRUE(published.olds[1].isEq({0, 0}));
    EXPECT_TRUE(published.olds[2].isEq({1, 0}));
    EXPECT_EQ(published.count, 3);
}

// The queue of handles.

TYPED_TEST(TableObject, NumbersQueuedHandlesFromOneAndPublishesTheNumber) {
    auto& swTable = *this->table;
    const Publications<std::uint32_t> published(swTable, Attribute::kEntryHandleInLog);
    std::vector<Brumo::Ptr<typename SwTable<TypeParam>::EntryHandle>> handles;
    for (std::uint32_t i = 0; i < 5; ++i) {
        handles.push_back(this->handle(i));
        swTable.entryHandleInLogEnq(handles.back());
    }
    EXPECT_EQ(published.olds, (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(swTable.entryHandlesInLog().capacities(), (std::vector<std::size_t>{4, 8}));
    EXPECT_EQ(swTable.entryHandleInLogFront(), handles[0]);
    EXPECT_EQ(swTable.entryHandleInLogBack(), handles[4]);
    EXPECT_EQ(swTable.entryHandleInLog(3), handles[2]);
    EXPECT_TRUE(swTable.entryHandleInLogHas(5));
    EXPECT_FALSE(swTable.entryHandleInLogHas(6));
    EXPECT_EQ(swTable.entryHandleInLog(6), nullptr);
    EXPECT_EQ(swTable.entryHandleInLogDeq(), handles[0]);
    EXPECT_FALSE(swTable.entryHandleInLogHas(1));
    swTable.entryHandleInLogDelAll();
    EXPECT_EQ(swTable.entryHandleInLogDeq(), nullptr);
    EXPECT_EQ(published.count, 5) << "only what is appended is published";
    swTable.entryHandleInLogEnq(handles[0]);
    EXPECT_EQ(published.olds.back(), 6U);
    swTable.entryHandleInLogDelAll();
}

TYPED_TEST(TableObject, AppendsAHandleBeforeItIsPublished) {
    Brumo::Ptr<typename SwTable<TypeParam>::EntryHandle> seen;
    const auto subscription = this->table->publisher().subscribe([&](const Kiv::Change& change) {
        if (change.attribute == Attribute::kEntryHandleInLog)
            seen = this->table->entryHandleInLog(change.oldAs<std::uint32_t>());
    });
    const auto handle = this->handle(1);
    this->table->entryHandleInLogEnq(handle);
    EXPECT_EQ(seen, handle);
    this->table->entryHandleInLogDelAll();
}

// Pending hardware writes.

template <class B>
class PendingHwWrites : public SwTableFixture<B> {
protected:
    std::string line(bool pending) const {
        return fmt::format(" pendingHwWrites for swTable: tableId: {}, unitId1 is {}", B::kTableId,
                           pending);
    }
    /// What the table says, which is traced once.
    bool asked() {
        const TraceCapture traces;
        const bool pending = this->table->hasPendingHwWrites();
        EXPECT_EQ(traces.texts(this->name(), 3), std::vector<std::string>{line(pending)});
        EXPECT_EQ(traces.lines().back().className, "OrderedSwTableAccessor");
        EXPECT_EQ(traces.lines().back().function, "hasPendingHwWrites");
        return pending;
    }
};
TYPED_TEST_SUITE(PendingHwWrites, AllBindings, TableName);

TYPED_TEST(PendingHwWrites, AreNoneInAFreshTable) {
    EXPECT_FALSE(this->asked());
}

TYPED_TEST(PendingHwWrites, AreThereWithAStagedWrite) {
    this->table->transientAddEntryIs(this->wrapper(1));
    EXPECT_TRUE(this->asked());
    this->table->transientAddEntryDelAll();
    EXPECT_FALSE(this->asked());
}

TYPED_TEST(PendingHwWrites, AreThereWithAStagedRemove) {
    this->table->transientRemoveEntryIs(this->wrapper(1));
    EXPECT_TRUE(this->asked());
    this->table->transientRemoveEntryDelAll();
    EXPECT_FALSE(this->asked());
}

TYPED_TEST(PendingHwWrites, AreThereWithARemoveAllAlone) {
    this->table->transientRemoveAllVersionIs({0});
    EXPECT_EQ(this->table->transientAddEntrys() + this->table->transientRemoveEntrys(), 0U);
    EXPECT_TRUE(this->asked());
    this->table->transientRemoveAllVersionIs({});
    EXPECT_FALSE(this->asked());
}

TYPED_TEST(PendingHwWrites, AreNotSeenInAStagedVersionAlone) {
    this->table->transientVersionForKeyIs(this->key(1), {0, 0});
    EXPECT_FALSE(this->asked());
}

TYPED_TEST(PendingHwWrites, AreThereUntilTheLogIsCleanedUpToItsLastVersion) {
    this->committed(1);
    this->committed(2);
    EXPECT_TRUE(this->asked());
    this->agent.acknowledge(TypeParam::kTableId, 1);
    EXPECT_TRUE(this->asked());
    this->agent.acknowledge(TypeParam::kTableId, 2);
    EXPECT_FALSE(this->asked());
}

// Going.

/// Notes its end, and in which order ends come.
class Sentinel {
public:
    Sentinel(std::vector<std::string>& ends, std::string name, std::function<void()> look = {})
        : ends_(ends), name_(std::move(name)), look_(std::move(look)) {}
    Sentinel(const Sentinel&) = delete;
    Sentinel& operator=(const Sentinel&) = delete;
    ~Sentinel() {
        ends_.push_back(name_);
        if (look_)
            look_();
    }

private:
    std::vector<std::string>& ends_;
    std::string name_;
    std::function<void()> look_;
};

/// Hooks that end with their table.
template <class B>
struct MortalHelper final : SwTableHelperBase<B> {
    explicit MortalHelper(std::shared_ptr<Sentinel> s) : sentinel(std::move(s)) {}
    std::shared_ptr<Sentinel> sentinel;
};

TYPED_TEST(TableObject, GivesItsMembersUpInOrder) {
    std::vector<std::string> ends;
    auto swTable = this->looseTable();
    const auto log = swTable->entryLog();
    const auto resolver = swTable->groupResolver();
    const auto logUsers = log->users();
    const auto resolverUsers = resolver->users();
    const auto handleThatEndsAs = [&](const char* name, std::function<void()> look = {}) {
        const auto handle = entryHandleFactory<TypeParam>({0, 0}, this->key(1), swTable.get());
        handle->responseHandlerIs(
            [end = std::make_shared<Sentinel>(ends, name, std::move(look))](const auto&) {});
        return handle;
    };
    using WrapperType = typename TypeParam::EntryWrapper;
    swTable->transientAddEntryIs(
        Brumo::make<WrapperType>(this->entry(1), handleThatEndsAs("add", [&] {
                                     EXPECT_EQ(resolver->users(), resolverUsers - 1);
                                     EXPECT_EQ(log->users(), logUsers - 1);
                                 })));
    swTable->transientRemoveEntryIs(
        Brumo::make<WrapperType>(this->entry(2), handleThatEndsAs("remove")));
    swTable->entryHandleInLogEnq(handleThatEndsAs("queue", [&] {
        EXPECT_EQ(resolver->users(), resolverUsers) << "the queue goes before the resolver";
        EXPECT_EQ(log->users(), logUsers);
    }));
    swTable->swTableHelperIs(
        Brumo::make<MortalHelper<TypeParam>>(std::make_shared<Sentinel>(ends, "helper")));
    swTable = nullptr;
    EXPECT_EQ(ends, (std::vector<std::string>{"queue", "remove", "add", "helper"}));
}

TYPED_TEST(TableObject, TakesItsQueuedChangesFromTheResolver) {
    const auto resolver = this->table->groupResolver();
    auto swTable = this->looseTable();
    const auto handle = swTable->entryWrite(this->key(1), this->entry(1), nullptr);
    swTable->entryRemove(this->key(1), nullptr);
    swTable->entryRemoveAll(nullptr);
    swTable->entryWrite(this->key(2), this->entry(2), nullptr);
    EXPECT_EQ(resolver->queued(), 4U);
    swTable = nullptr;
    EXPECT_EQ(resolver->queued(), 0U);
    this->agent.settle();
    EXPECT_EQ(handle->entryState(), Asic::EntryState::created);
    EXPECT_EQ(this->version(), 0U);
}

TYPED_TEST(TableObject, GoesWithAnyNumberOfQueuedChangesOfOneKey) {
    const TraceCapture restoresTheFilter;
    Brumo::traceFilterIs("");
    auto swTable = this->looseTable();
    for (std::uint32_t i = 0; i < 200000; ++i)
        swTable->entryWrite(this->key(1), this->entry(1, i), nullptr);
    const auto resolver = this->table->groupResolver();
    EXPECT_EQ(resolver->queued(), 200000U);
    swTable = nullptr;
    EXPECT_EQ(resolver->queued(), 0U);
    this->agent.settle();
}

TYPED_TEST(TableObject, MayGoWithTheHandlerOfAnothersQueuedChange) {
    const auto resolver = this->table->groupResolver();
    auto first = this->looseTable();
    auto second = this->looseTable();
    first->entryWriteWithResponseHandler(
        this->key(1), this->entry(1), nullptr,
        [second](const Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>&) {});
    first->entryRemove(this->key(1), nullptr);
    second->entryWrite(this->key(1), this->entry(1), nullptr);
    second->entryWrite(this->key(2), this->entry(2), nullptr);
    second = nullptr;
    EXPECT_EQ(resolver->queued(), 4U);
    first = nullptr;
    EXPECT_EQ(resolver->queued(), 0U);
    this->agent.settle();
    EXPECT_EQ(this->version(), 0U);
}

// Factories under the tables' names.

TEST(TableFactories, MakeTablesOfTheirNames) {
    const auto name =
        Brumo::make<Asic::CanonicalTableName>(Asic::TableType::ordered, "Own", "Second");
    const auto check = [&](auto factory, Asic::SwTableId id) {
        const auto table = factory(name, id, Asic::UnitId{3}, nullptr, nullptr, nullptr);
        EXPECT_EQ(table->canonicalTableName(), name);
        EXPECT_EQ(table->tableId(), id);
        EXPECT_EQ(table->unitId(), Asic::UnitId{3});
        EXPECT_EQ(table->tableSet(), nullptr);
        EXPECT_EQ(table->entryLog(), nullptr);
        EXPECT_EQ(table->groupResolver(), nullptr);
        return table;
    };
    const auto action =
        check(policyCpuTcamActionSwTableFactory, PolicyCpuTcamActionBinding::kTableId);
    EXPECT_EQ(action->crpsIndexRequestLinkage(), nullptr) << "linkages are installed later";
    EXPECT_EQ(action->policerIndexRequestLinkage(), nullptr);
    check(PolicyCpuTcamActionSwTableIs, PolicyCpuTcamActionBinding::kTableId);
    check(policyCpuV4TcamEntrySwTableFactory, PolicyCpuV4TcamEntryBinding::kTableId);
    check(PolicyCpuV4TcamEntrySwTableIs, PolicyCpuV4TcamEntryBinding::kTableId);
    check(policyCpuV6TcamEntrySwTableFactory, PolicyCpuV6TcamEntryBinding::kTableId);
    check(PolicyCpuV6TcamEntrySwTableIs, PolicyCpuV6TcamEntryBinding::kTableId);
}

TYPED_TEST(TableObject, HasAFactoryOfStatesForWalksThatHaveNotBegun) {
    const Brumo::Ptr<const typename TypeParam::SwTable> swTable = this->table;
    const Brumo::Ptr<SwTableIteratorState<TypeParam>> state = [&swTable] {
        if constexpr (std::is_same_v<TypeParam, PolicyCpuTcamActionBinding>) {
            return policyCpuTcamActionSwTableIteratorStateFactory(swTable);
        } else if constexpr (std::is_same_v<TypeParam, PolicyCpuV4TcamEntryBinding>) {
            return policyCpuV4TcamEntrySwTableIteratorStateFactory(swTable);
        } else {
            return policyCpuV6TcamEntrySwTableIteratorStateFactory(swTable);
        }
    }();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->flags(), 0U);
    EXPECT_EQ(state->swTable(), swTable);
}

// The action table's linkages.

class ActionTableLinkages : public SwTableFixture<PolicyCpuTcamActionBinding> {
protected:
    Brumo::Ptr<PolicyCpuTcamActionSwTable> bare = policyCpuTcamActionSwTableFactory(
        nullptr, PolicyCpuTcamActionBinding::kTableId, Asic::UnitId{1}, nullptr, table->entryLog(),
        table->groupResolver());
};

TEST_F(ActionTableLinkages, AreInstalledByTheFamily) {
    ASSERT_NE(table->crpsIndexRequestLinkage(), nullptr);
    ASSERT_NE(table->policerIndexRequestLinkage(), nullptr);
    EXPECT_EQ(table->crpsIndexRequestLinkage()->swTable(), table.get());
    EXPECT_EQ(table->policerIndexRequestLinkage()->swTable(), table.get());
}

TEST_F(ActionTableLinkages, AreSetOnceAndPublishedWithTheOldOne) {
    using LinkagePtr = Brumo::Ptr<PolicyCpuTcamActionCrpsIndexRequestLinkage>;
    const Publications<LinkagePtr> published(*bare, Attribute::kLinkage);
    const auto first = policyCpuTcamActionCrpsIndexRequestLinkageFactory(
        bare.get(), agent.counters()->makeClientInstance());
    const auto second = policyCpuTcamActionCrpsIndexRequestLinkageFactory(
        bare.get(), agent.counters()->makeClientInstance());
    bare->crpsIndexRequestLinkageIs(first);
    bare->crpsIndexRequestLinkageIs(first);
    EXPECT_EQ(bare->crpsIndexRequestLinkage(), first);
    bare->crpsIndexRequestLinkageIs(second);
    EXPECT_EQ(bare->crpsIndexRequestLinkage(), second);
    EXPECT_EQ(published.olds, (std::vector<LinkagePtr>{nullptr, first}));
    EXPECT_EQ(bare->policerIndexRequestLinkage(), nullptr);
    const auto policer = policyCpuTcamActionPolicerIndexRequestLinkageFactory(
        bare.get(), agent.policers()->makeClientInstance());
    bare->policerIndexRequestLinkageIs(policer);
    EXPECT_EQ(bare->policerIndexRequestLinkage(), policer);
    EXPECT_EQ(published.count, 3);
}

TEST_F(ActionTableLinkages, GoBeforeTheQueueOfHandles) {
    const auto counterClient = agent.counters()->makeClientInstance();
    const auto policerClient = agent.policers()->makeClientInstance();
    bare->crpsIndexRequestLinkageIs(
        policyCpuTcamActionCrpsIndexRequestLinkageFactory(bare.get(), counterClient));
    bare->policerIndexRequestLinkageIs(
        policyCpuTcamActionPolicerIndexRequestLinkageFactory(bare.get(), policerClient));
    EXPECT_EQ(counterClient->users() + policerClient->users(), 4U);
    std::vector<std::string> ends;
    const auto look = [&] { EXPECT_EQ(counterClient->users() + policerClient->users(), 2U); };
    {
        const auto handle =
            entryHandleFactory<PolicyCpuTcamActionBinding>({0, 0}, key(1), bare.get());
        handle->responseHandlerIs(
            [end = std::make_shared<Sentinel>(ends, "queue", look)](const auto&) {});
        bare->entryHandleInLogEnq(handle);
    }
    bare = nullptr;
    EXPECT_EQ(ends, std::vector<std::string>{"queue"});
}

}  // namespace
