// Results that nobody takes and changes that cannot go on: neither grows nor holds others up.
#include <gtest/gtest.h>

#include <memory>
#include <numeric>

#include "tests/incidents/WholeSystem.h"

namespace Incidents {
namespace {

using namespace TestSupport;

/// A caller that keeps no handle and never looks at a result.
template <class B>
class UntakenResults : public WholeSystem<B> {
protected:
    explicit UntakenResults(const InProcessAgent::Options& options = {}) : WholeSystem<B>(options) {
        Brumo::traceFilterIs("*/0");
    }
    ~UntakenResults() override { Brumo::traceFilterIs(filter_); }

    /// The token lives as long as anything keeps the handle.
    auto handler() {
        return [token = token_](const Brumo::Ptr<const Asic::OrderedSwTable::EntryHandle>&) {};
    }
    void writeUnseen(const typename B::Entry& entry) {
        this->table->entryWriteWithResponseHandler(entry.key, entry, nullptr, handler());
    }
    void removeUnseen(std::uint32_t number) {
        this->table->entryRemoveWithResponseHandler(this->key(number), nullptr, handler());
    }
    long handlesKept() const { return token_.use_count() - 1; }

    void expectNothingKept() {
        EXPECT_EQ(handlesKept(), 0);
        EXPECT_TRUE(this->table->entryHandlesInLog().empty());
        EXPECT_EQ(this->table->transientAddEntrys() + this->table->transientRemoveEntrys(), 0U);
        EXPECT_EQ(this->table->transientVersionForKeys(), 0U);
        EXPECT_EQ(this->table->groupResolver()->queued(), 0U);
        EXPECT_EQ(this->table->entryLog()->entryLogConfigs(), 0U);
        EXPECT_EQ(this->agent.group()->announcementsWaiting(), 0U);
        EXPECT_EQ(this->hardware.waiting(), 0U);
    }

private:
    std::string filter_ = Brumo::traceFilter();
    std::shared_ptr<int> token_ = std::make_shared<int>(0);
};
TYPED_TEST_SUITE(UntakenResults, AllBindings, TableName);

TYPED_TEST(UntakenResults, AreGoneOnceTheHardwareSideHasTheirChanges) {
    for (std::uint32_t round = 0; round < 30; ++round) {
        for (std::uint32_t number = 1; number <= 60; ++number) {
            this->writeUnseen(this->entry(100 * round + number, round));
            if (number % 3 == 0)
                this->removeUnseen(100 * round + number);
        }
        this->settleAll();
        for (std::uint32_t number = 1; number <= 60; ++number)
            this->removeUnseen(100 * round + number);
        this->settleAll();
        this->expectNothingKept();
    }
    const auto segments = this->table->entryHandlesInLog().capacities();
    EXPECT_EQ(std::accumulate(segments.begin(), segments.end(), std::size_t{0}), 0U);
}

template <class B>
class UntakenByHardware : public UntakenResults<B> {
protected:
    static constexpr std::size_t kSlots = 64;

    UntakenByHardware() : UntakenResults<B>({.capacityCeiling = kSlots}) {}
};
TYPED_TEST_SUITE(UntakenByHardware, AllBindings, TableName);

/// Nothing more is committed than there is room for, and what is answered in the end is all.
TYPED_TEST(UntakenByHardware, ResultsAreNoMoreThanTheLogHoldsAndAllComeInTheEnd) {
    for (std::uint32_t round = 0; round < 20; ++round) {
        for (std::uint32_t number = 1; number <= 16; ++number)
            this->writeUnseen(this->entry(number, round));
        this->agent.settle();
        EXPECT_LE(this->table->entryHandlesInLog().size(), this->kSlots);
        EXPECT_LE(this->table->entryLog()->entryLogConfigs(), this->kSlots);
        EXPECT_EQ(this->agent.group()->announcementsWaiting(), 0U);
    }
    EXPECT_EQ(this->handlesKept(), 20 * 16) << "what was asked for, and nothing twice";
    this->settleAll();
    this->expectNothingKept();
    EXPECT_TRUE(this->notProgrammed().empty());
}

using Actions = VornPolicyCpu::PolicyCpuTcamActionBinding;

class UntakenFailures : public UntakenResults<Actions> {
protected:
    UntakenFailures() : UntakenResults({.counters = 1, .policers = 1}) {}
};

TEST_F(UntakenFailures, AreGoneAtOnceAndSoIsWhatTheyAskedFor) {
    writeUnseen(actionEntry(1, 1, 1));
    settleAll();
    for (std::uint32_t id = 2; id < 500; ++id) {
        writeUnseen(actionEntry(id, id, id));
        agent.settle();
        EXPECT_EQ(agent.counters()->entries(), 1U);
        EXPECT_EQ(agent.policers()->entries(), 1U);
    }
    expectNothingKept();
}

/// Thousands of changes of which each waits for something of its own.
template <class B>
class StuckChanges : public WholeSystem<B> {
protected:
    static constexpr std::uint32_t kStuck = 3000;

    void SetUp() override {
        for (std::uint32_t number = 1; number <= kStuck; ++number) {
            blockers_.push_back(Brumo::make<ForeignChange>(Asic::EntryState::created));
            this->table->entryWrite(this->key(number), this->entry(number), blockers_.back());
        }
        this->agent.settle();
        ASSERT_EQ(this->table->groupResolver()->queued(), kStuck);
    }
    std::size_t questions(const TraceCapture& traces) const {
        return callsOf(traces, this->name(), "isResolverEntryResolved");
    }

    std::vector<Brumo::Ptr<ForeignChange>> blockers_;
};
TYPED_TEST_SUITE(StuckChanges, AllBindings, TableName);

TYPED_TEST(StuckChanges, AreNotTriedAgainAndAgainWhileNewWorkPassesThem) {
    constexpr std::uint32_t kNew = 50;
    const TraceCapture traces;
    for (std::uint32_t number = 1; number <= kNew; ++number) {
        const auto passing = this->write(this->kStuck + number);
        this->agent.loop().turn();
        EXPECT_EQ(passing->entryState(), Asic::EntryState::written) << "on the very next turn";
        this->hardwareTakes(SIZE_MAX);
        EXPECT_EQ(passing->entryState(), Asic::EntryState::complete);
    }
    EXPECT_EQ(this->questions(traces), kNew) << "one a new change, none of those that wait";
}

TYPED_TEST(StuckChanges, AreEachTriedOnceWhenWhatTheyWaitForHasCome) {
    const TraceCapture traces;
    for (std::uint32_t number = 1; number <= this->kStuck; number += 100) {
        this->blockers_[number - 1]->entryStateIs(Asic::EntryState::complete);
        this->agent.settle();
        EXPECT_TRUE(this->table->entryLog()->entryHas(this->key(number), this->table->unitId()));
    }
    EXPECT_EQ(this->questions(traces), this->kStuck / 100);
    EXPECT_EQ(this->table->groupResolver()->queued(), this->kStuck - this->kStuck / 100);
}

/// Writes that failed for want of a policer, tried again by their caller at every failure.
class FailedRetries : public WholeSystem<Actions> {
protected:
    FailedRetries() : WholeSystem({.counters = 8, .policers = 1}) {}

    void retry(std::uint32_t id) {
        ++attempts;
        table->entryWriteWithResponseHandler(actionKey(id), actionEntry(id, 0, id), nullptr,
                                             [this, id](const auto& handle) {
                                                 if (handle->failed() && keepTrying)
                                                     retry(id);
                                             });
    }

    std::size_t attempts = 0;
    bool keepTrying = true;
};

TEST_F(FailedRetries, LeaveNewWorkItsTurn) {
    constexpr std::uint32_t kFailing = 200;
    constexpr std::size_t kBudget = 16;
    table->entryWrite(actionKey(1), actionEntry(1, 0, 1), nullptr);
    settleAll();
    table->groupResolver()->budgetIs(kBudget);
    for (std::uint32_t id = 2; id < 2 + kFailing; ++id)
        retry(id);
    const auto turn = [&](std::size_t turns) {
        for (; turns > 0; --turns)
            agent.loop().turn();
    };
    turn(100);
    ASSERT_GT(attempts, 2 * kFailing) << "they are tried all the time";
    const auto passing = table->entryWrite(actionKey(1000), actionEntry(1000), nullptr);
    // Each of those before it, asked twice: it waits, it fails.
    turn(2 * kFailing / kBudget + 1);
    EXPECT_EQ(passing->entryState(), State::written);
    keepTrying = false;
    settleAll();
    EXPECT_EQ(passing->entryState(), State::complete);
    EXPECT_EQ(table->groupResolver()->queued(), 0U);
}

}  // namespace
}  // namespace Incidents
