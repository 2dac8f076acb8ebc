// A hardware side that has lost everything it programmed, but not what it had acknowledged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/incidents/WholeSystem.h"

namespace Incidents {
namespace {

using testing::IsEmpty;

template <class B>
class Reconnect : public WholeSystem<B> {
protected:
    static constexpr std::uint32_t kEntries = 40;

    void SetUp() override {
        for (std::uint32_t number = 1; number <= kEntries; ++number)
            this->write(number, number);
        this->settleAll();
    }
    std::size_t programmed() const {
        return this->hardware.tcam().template entries<typename B::Types>();
    }
};
TYPED_TEST_SUITE(Reconnect, TestSupport::AllBindings, TestSupport::TableName);

TYPED_TEST(Reconnect, OfAnEmptyHardwareSideProgramsAllBeforeItAcknowledgesAnything) {
    ASSERT_EQ(this->acknowledged(), this->kEntries);
    this->hardware.restart(true);
    ASSERT_EQ(this->programmed(), 0U);
    this->write(1, 7);
    this->remove(2);
    const auto added = this->write(this->kEntries + 1);
    this->agent.settle();
    this->hardware.pump(0);  // takes no announcement
    EXPECT_EQ(this->programmed(), this->kEntries);
    EXPECT_THAT(this->notProgrammed(), IsEmpty());
    while (added->entryState() != Asic::EntryState::complete) {
        const std::uint64_t before = this->hardware.total().announcements;
        this->hardwareTakes(1);
        EXPECT_THAT(this->notProgrammed(), IsEmpty());
        if (added->entryState() != Asic::EntryState::complete) {
            ASSERT_GT(this->hardware.total().announcements, before);
        }
    }
    EXPECT_EQ(this->acknowledged(), this->kEntries + 3);
    EXPECT_EQ(this->programmed(), this->kEntries);
}

TYPED_TEST(Reconnect, OfAnEmptyHardwareSideToWhatADeadAgentLeftProgramsAll) {
    this->write(1, 7);
    this->agent.settle();
    this->table = nullptr;
    this->agent.stop();
    this->hardware.restart(true);
    this->hardware.pump(0);
    EXPECT_EQ(this->programmed(), this->kEntries);
    this->agent.start();
    this->table = TestSupport::tableOf<TypeParam>(this->agent);
    this->settleAll();
    EXPECT_EQ(this->acknowledged(), this->kEntries + 1);
    EXPECT_THAT(this->notProgrammed(), IsEmpty());
}

/// In the middle of an update: hardware comes back at every place, as it was or empty.
TYPED_TEST(Reconnect, AtAnyPlaceOfAnUpdateLeavesTheAgentAtWorkAndBringsAllIn) {
    constexpr std::size_t kChanges = 6;
    for (std::size_t taken = 0; taken <= kChanges; ++taken) {
        for (const bool isEmpty : {false, true}) {
            SCOPED_TRACE(fmt::format("after {} of {}, empty: {}", taken, kChanges, isEmpty));
            const auto variant = static_cast<std::uint32_t>(100 + 2 * taken + (isEmpty ? 1 : 0));
            std::vector<Brumo::Ptr<const typename TestFixture::Handle>> handles;
            for (std::uint32_t number = 1; number < kChanges; ++number)
                handles.push_back(this->write(number, variant));
            handles.push_back(this->remove(this->kEntries));
            this->agent.settle();
            this->hardwareTakes(taken);
            this->hardware.restart(isEmpty);
            handles.push_back(this->write(this->kEntries, variant));
            this->settleAll();
            for (const auto& handle : handles)
                EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
            EXPECT_THAT(this->notProgrammed(), IsEmpty());
            EXPECT_EQ(this->programmed(), this->kEntries);
        }
    }
}

/// There was never a hardware side: no file of it is there.
template <class B>
class FirstConnect : public WholeSystem<B> {
protected:
    static constexpr std::uint32_t kEntries = 40;

    FirstConnect() {
        this->hardware.stop(true);
        std::filesystem::remove_all(this->agent.root() + "/hwside");
    }
    void changeAll() {
        for (std::uint32_t number = 1; number <= kEntries; ++number)
            handles_.push_back(this->write(number, number));
        handles_.push_back(this->write(1, 77));
        handles_.push_back(this->remove(2));
        this->agent.settle();
        this->agent.group()->acknowledgementsArrived();
        this->agent.settle();
    }
    void expectAllOnceItComes() {
        this->hardware.start();
        this->settleAll();
        EXPECT_EQ(this->acknowledged(), this->version());
        EXPECT_FALSE(this->table->hasPendingHwWrites());
        EXPECT_EQ(this->hardware.tcam().template entries<typename B::Types>(), kEntries - 1);
        EXPECT_THAT(this->notProgrammed(), IsEmpty());
        EXPECT_EQ(this->table->entryLog()->entryLogConfigs(), 0U);
    }

    std::vector<Brumo::Ptr<const typename WholeSystem<B>::Handle>> handles_;
};
TYPED_TEST_SUITE(FirstConnect, TestSupport::AllBindings, TestSupport::TableName);

TYPED_TEST(FirstConnect, ProgramsAllThatWasChangedBeforeTheHardwareSideEverRegistered) {
    this->changeAll();
    for (const auto& handle : this->handles_)
        EXPECT_EQ(handle->entryState(), Asic::EntryState::written);
    EXPECT_TRUE(this->table->hasPendingHwWrites());
    this->expectAllOnceItComes();
    for (const auto& handle : this->handles_)
        EXPECT_EQ(handle->entryState(), Asic::EntryState::complete);
}

TYPED_TEST(FirstConnect, ProgramsAllThatAProcessBeforeChangedWithoutAHardwareSide) {
    this->changeAll();
    this->handles_.clear();
    this->restartAgent();
    EXPECT_TRUE(this->table->hasPendingHwWrites());
    this->expectAllOnceItComes();
}

}  // namespace
}  // namespace Incidents
