// Acknowledgements that outlive what they were made for.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/incidents/WholeSystem.h"

namespace Incidents {
namespace {

template <class B>
class OldAcknowledgement : public WholeSystem<B> {
protected:
    static constexpr std::uint32_t kChanges = 10;

    void writeAll() {
        for (std::uint32_t number = 1; number <= kChanges; ++number)
            handles_.push_back(this->write(number, 7));
        this->agent.settle();
        this->agent.group()->acknowledgementsArrived();
        this->agent.settle();
    }
    /// The agent loses all that it has stored, and begins anew while the hardware side is away.
    void SetUp() override {
        writeAll();
        this->settleAll();
        handles_.clear();
        this->hardware.stop(false);
        this->table = nullptr;
        this->agent.stop();
        std::filesystem::remove_all(this->agent.root() + "/asic");
        std::filesystem::remove_all(this->agent.root() + "/resources");
        this->agent.start();
        this->table = TestSupport::tableOf<B>(this->agent);
    }
    void expectAll(Asic::EntryState state) {
        for (const auto& handle : handles_)
            EXPECT_EQ(handle->entryState(), state);
    }

    std::vector<Brumo::Ptr<const typename WholeSystem<B>::Handle>> handles_;
};
TYPED_TEST_SUITE(OldAcknowledgement, TestSupport::AllBindings, TestSupport::TableName);

TYPED_TEST(OldAcknowledgement, OfAnotherHistoryEndsNoNewChange) {
    this->writeAll();
    EXPECT_EQ(this->version(), this->kChanges) << "the versions are those of before";
    this->expectAll(Asic::EntryState::written);
    EXPECT_TRUE(this->table->hasPendingHwWrites());
    EXPECT_TRUE(this->agent.group()->sleepPrepared()) << "nothing is there to be taken up";
    this->hardware.start();
    this->settleAll();
    this->expectAll(Asic::EntryState::complete);
    EXPECT_TRUE(this->notProgrammed().empty());
}

TYPED_TEST(OldAcknowledgement, OfAnotherHistoryIsNotTakenUpByTheNextProcessEither) {
    this->writeAll();
    this->remove(1);
    this->agent.settle();
    this->handles_.clear();
    this->restartAgent();
    this->agent.group()->acknowledgementsArrived();
    EXPECT_EQ(this->table->entryLog()->entryLogConfigs(), this->kChanges + 1);
    EXPECT_TRUE(this->table->hasPendingHwWrites());
    this->hardware.start();
    this->settleAll();
    EXPECT_FALSE(this->table->hasPendingHwWrites());
    EXPECT_TRUE(this->notProgrammed().empty());
}

}  // namespace
}  // namespace Incidents
