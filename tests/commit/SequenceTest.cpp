// Several changes of one key, and acknowledgements that come between them.
#include <gtest/gtest.h>

#include "tests/support/SwTableFixture.h"

namespace {

using namespace TestSupport;

template <class B>
class Sequence : public SwTableFixture<B> {
protected:
    void acknowledge(std::uint64_t version) {
        this->agent.acknowledge(B::kTableId, version);
        this->agent.settle();
    }
};
TYPED_TEST_SUITE(Sequence, AllBindings, TableName);

TYPED_TEST(Sequence, AnAcknowledgementOfAnOlderChangeLeavesANewerOneOfTheKeyOpen) {
    const auto older = this->write(1, 5);
    this->agent.settle();
    const auto newer = this->write(1, 6);
    this->agent.settle();
    const auto newest = this->write(1, 7);
    this->acknowledge(1);
    EXPECT_EQ(older->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(newer->entryState(), Asic::EntryState::written);
    EXPECT_EQ(newest->entryState(), Asic::EntryState::written) << "committed, not acknowledged";
    EXPECT_TRUE(this->table->hasPendingHwWrites());
    this->acknowledge(2);
    EXPECT_EQ(newer->entryState(), Asic::EntryState::complete);
    EXPECT_EQ(newest->entryState(), Asic::EntryState::written);
    this->acknowledge(3);
    EXPECT_EQ(newest->entryState(), Asic::EntryState::complete);
    EXPECT_FALSE(this->table->hasPendingHwWrites());
}

/// Writes 5, removes, writes 6; the agent gets a turn where the bit of the step is set, and the
/// hardware side acknowledges everything there where the bit of `acknowledged` is.
TYPED_TEST(Sequence, WriteRemoveWriteOfOneKeyEndsWithTheLastEntryHoweverItIsInterrupted) {
    for (unsigned turns = 0; turns < 4; ++turns) {
        for (unsigned acknowledged = 0; acknowledged < 4; ++acknowledged) {
            const std::uint32_t key = 1 + turns * 4 + acknowledged;
            const auto between = [&](unsigned step) {
                if ((turns & 1U << step) != 0)
                    this->agent.settle();
                if ((acknowledged & 1U << step) != 0)
                    this->agent.acknowledgeAll();
            };
            this->write(key, 5);
            between(0);
            this->remove(key);
            between(1);
            const auto last = this->write(key, 6);
            this->agent.settle();
            this->agent.acknowledgeAll();
            this->agent.settle();
            EXPECT_EQ(last->entryState(), Asic::EntryState::complete);
            EXPECT_EQ(this->table->entryFromConfig(this->key(key)), this->entry(key, 6));
            EXPECT_FALSE(this->config()->swTableEntries(this->key(key))->inDeletion);
            this->table->assertConsistent();
        }
    }
    EXPECT_EQ(this->table->entrys(), 16U);
    EXPECT_FALSE(this->table->hasPendingHwWrites());
}

}  // namespace
