// What the hardware side had acknowledged of the resource tables is lost: in each way, actions that
// use a counter are still programmed when they are written again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/kivshimo/detail/FileHeader.h"
#include "tests/incidents/WholeSystem.h"

namespace Incidents {
namespace {

using namespace TestSupport;
using namespace VornPolicyCpu;
using testing::IsEmpty;

constexpr std::uint32_t kActions = 10;
constexpr std::uint64_t kSlots = 128;
constexpr Asic::SwTableId kCounters = VornCountersLib::CrpsIndexRequestResourceTable::kTableId;

class LostAcknowledgements : public WholeSystem<PolicyCpuTcamActionBinding> {
protected:
    LostAcknowledgements() : WholeSystem({.capacityCeiling = kSlots, .counters = kActions}) {}

    void SetUp() override {
        for (std::uint32_t id = 1; id <= kActions; ++id)
            writeAction(id, 0);
        settleAll();
        ASSERT_EQ(acknowledged(), kActions);
    }
    /// Each action keeps its counter.
    void writeAction(std::uint32_t id, std::uint32_t redirect) {
        auto action = actionEntry(id, id);
        action.redirect = redirect;
        table->entryWrite(actionKey(id), action, nullptr);
    }
    void restartAgentWithoutAnnouncements() {
        table = nullptr;
        agent.stop();
        std::filesystem::remove(KivShimo::tableFile(
            agent.root(), Asic::Constants::announcementsPath(canonicalGroupName())));
        agent.start();
        table = tableOf<PolicyCpuTcamActionBinding>(agent);
    }
    void expectThatRewritesAreProgrammed() {
        settleAll();
        for (std::uint32_t id = 1; id <= kActions; ++id)
            writeAction(id, 1000 + id);
        settleAll();
        EXPECT_EQ(acknowledged(), version());
        EXPECT_THAT(notProgrammed(), IsEmpty());
        EXPECT_EQ(hardware.waiting(), 0U);
    }
    std::string acknowledgementsFile() { return hardware.acks().file(); }
    /// The hardware side ends, the row of the counters rots, and the next process finds it so.
    void restartHardwareWithARottenRow(bool isEmpty) {
        const std::string file = acknowledgementsFile();
        hardware.stop(isEmpty);
        rotAcknowledgementOfCounters(file);
        hardware.start();
    }
    static void rotAcknowledgementOfCounters(const std::string& file) {
        const std::uint32_t label = kCounters.whole();
        const std::string wanted(reinterpret_cast<const char*>(&label), sizeof(label));
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
        const std::size_t at = bytes.find(wanted, KivShimo::detail::kAreasOffset);
        ASSERT_NE(at, std::string::npos);
        stream.seekp(static_cast<std::streamoff>(at)).put(static_cast<char>(bytes[at] ^ 1));
        ASSERT_TRUE(stream.good());
    }
};

TEST_F(LostAcknowledgements, WithTheAnnouncementsAloneDoNotHoldAnActionUp) {
    restartAgentWithoutAnnouncements();
    expectThatRewritesAreProgrammed();
    EXPECT_EQ(hardware.acks().acknowledged(kCounters.whole()), kActions) << "announced anew";
}

TEST_F(LostAcknowledgements, WithAnnouncementsThatWereNotTakenYetDoNotHoldAnActionUp) {
    writeAction(1, 7);
    writeAction(2, 7);
    agent.settle();
    restartAgentWithoutAnnouncements();
    settleAll();
    EXPECT_EQ(acknowledged(), kActions + 2);
    EXPECT_THAT(notProgrammed(), IsEmpty());
    expectThatRewritesAreProgrammed();
}

TEST_F(LostAcknowledgements, OfResourcesThatNoAnnouncementNamesAnyMoreDoNotHoldAnActionUp) {
    for (std::uint32_t round = 1; round <= 2 * kSlots; ++round) {
        writeAction(kActions, round);
        settleAll();
    }
    const std::string file = acknowledgementsFile();
    hardware.stop(true);
    std::filesystem::remove(file);
    hardware.start();
    expectThatRewritesAreProgrammed();
}

TEST_F(LostAcknowledgements, InARottenRowDoNotHoldAnActionUp) {
    restartHardwareWithARottenRow(false);
    expectThatRewritesAreProgrammed();
}

TEST_F(LostAcknowledgements, InARottenRowDoNotHoldAnActionOfAnEmptyHardwareSideUp) {
    restartHardwareWithARottenRow(true);
    expectThatRewritesAreProgrammed();
}

}  // namespace
}  // namespace Incidents
