// Changes of one key in quick succession, whatever comes between them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/incidents/WholeSystem.h"

namespace Incidents {
namespace {

enum class Between : unsigned {
    nothing,
    agentTurns,
    oneIsTaken,
    allIsTaken,
    hardwareLosesAll,
    agentRestarts,
};
constexpr unsigned kInterruptions = 6;

template <class B>
class OneKey : public WholeSystem<B> {
protected:
    using typename WholeSystem<B>::HandlePtr;

    void happens(Between what) {
        if (what == Between::nothing)
            return;
        this->agent.settle();
        switch (what) {
            case Between::oneIsTaken:
                this->hardwareTakes(1);
                break;
            case Between::allIsTaken:
                this->settleAll();
                break;
            case Between::hardwareLosesAll:
                this->hardware.restart(true);
                break;
            case Between::agentRestarts:
                this->restartAgent();
                break;
            case Between::nothing:
            case Between::agentTurns:
                break;
        }
    }
    /// Does three changes of a key of their own with each pair of interruptions between them.
    template <class Change, class Check>
    void inEveryWay(const Change& change, const Check& check) {
        std::uint32_t number = 0;
        for (unsigned first = 0; first < kInterruptions; ++first) {
            for (unsigned second = 0; second < kInterruptions; ++second) {
                SCOPED_TRACE(fmt::format("interrupted by {} and {}", first, second));
                change(++number, 0);
                happens(Between{first});
                change(number, 1);
                happens(Between{second});
                const auto last = change(number, 2);
                this->settleAll();
                EXPECT_EQ(last->entryState(), Asic::EntryState::complete);
                check(number);
                EXPECT_EQ(this->table->entryLog()->entryLogConfigs(), 0U);
                EXPECT_FALSE(this->table->hasPendingHwWrites());
                EXPECT_EQ(this->notProgrammed(), std::vector<std::string>{});
            }
        }
        this->table->assertConsistent();
    }
};
TYPED_TEST_SUITE(OneKey, TestSupport::AllBindings, TestSupport::TableName);

TYPED_TEST(OneKey, WrittenRemovedAndWrittenHoldsTheLastEntryInTableLogAndHardware) {
    this->inEveryWay(
        [&](std::uint32_t number, unsigned step) {
            return step == 1 ? this->remove(number) : this->write(number, 5 + step);
        },
        [&](std::uint32_t number) {
            const auto expected = this->entry(number, 7);
            EXPECT_EQ(this->table->entryRead(this->key(number)), expected);
            const auto stored = this->config()->swTableEntries(this->key(number));
            ASSERT_TRUE(stored.has_value());
            EXPECT_FALSE(stored->inDeletion);
            EXPECT_TRUE(stored->logEntry.isEq(expected.toLogEntry()));
            ASSERT_NE(this->held(this->key(number)), nullptr);
            EXPECT_TRUE(this->held(this->key(number))->entry.isEq(expected.toLogEntry()));
            EXPECT_EQ(this->held(this->key(number))->version, stored->version);
        });
}

TYPED_TEST(OneKey, RemovedWrittenAndRemovedIsGoneFromTableLogAndHardware) {
    this->inEveryWay(
        [&](std::uint32_t number, unsigned step) {
            if (step == 0) {
                this->write(number, 4);
                this->settleAll();
            }
            return step == 1 ? this->write(number, 5) : this->remove(number);
        },
        [&](std::uint32_t number) {
            EXPECT_FALSE(this->table->entryHas(this->key(number)));
            EXPECT_FALSE(this->config()->swTableEntries(this->key(number)).has_value());
            EXPECT_EQ(this->held(this->key(number)), nullptr);
        });
    EXPECT_EQ(this->table->entrys(), 0U);
}

TYPED_TEST(OneKey, AcknowledgementOfAnOlderChangeCompletesNoNewerOne) {
    this->write(2);
    this->settleAll();  // what comes first is taken as a whole
    const std::uint64_t before = this->acknowledged();
    std::vector<Brumo::Ptr<const typename TestFixture::Handle>> changes;
    for (const std::uint32_t variant : {5U, 6U}) {
        changes.push_back(this->write(1, variant));
        this->agent.settle();
    }
    changes.push_back(this->remove(1));
    this->agent.settle();
    changes.push_back(this->write(1, 7));
    this->agent.settle();
    for (std::size_t taken = 0; taken <= changes.size(); ++taken) {
        SCOPED_TRACE(fmt::format("{} taken", taken));
        EXPECT_EQ(this->acknowledged(), before + taken);
        for (std::size_t i = 0; i < changes.size(); ++i)
            EXPECT_EQ(changes[i]->entryState(),
                      i < taken ? Asic::EntryState::complete : Asic::EntryState::written)
                << i;
        EXPECT_EQ(this->table->hasPendingHwWrites(), taken < changes.size());
        this->hardwareTakes(1);
    }
    EXPECT_THAT(this->notProgrammed(), testing::IsEmpty());
}

}  // namespace
}  // namespace Incidents
