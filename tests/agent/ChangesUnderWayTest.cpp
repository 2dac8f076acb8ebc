// What the agent says that changes wait for, cause by cause, on real tables.

#include <gtest/gtest.h>

#include "agent/ChangesUnderWay.h"
#include "agent/Plugin.h"
#include "tests/support/TempDir.h"

namespace {

using Agent::ActionTypes;
using Agent::ChangesUnderWay;
using Agent::Json;
using Agent::V4Types;
using Asic::Blocker;

class Handle final : public Asic::OrderedSwTable::EntryHandle {
public:
    Handle() : EntryHandle({0, 0}) {}
    Asic::SwTableId tableId() const override { return V4Types::kTableId; }
    std::string keyText() const override { return "00000001.00000001"; }
};

/// A change of a table that waits for what the test says.
class WaitingChange final : public Asic::ResolverEntry {
public:
    WaitingChange(const Asic::OrderedSwTable* table, Blocker blocker)
        : ResolverEntry(nullptr, Asic::EntryFlags::write),
          table_(table),
          waitsFor_(std::move(blocker)) {}

    bool isResolved() override {
        blockerIs(waitsFor_);
        return false;
    }
    void commitEntry(const Brumo::Ptr<ResolverEntry>& /*resolverEntry*/) override {}
    const Asic::OrderedSwTable::EntryHandle* changeHandle() const override { return handle_.get(); }
    const Asic::OrderedSwTable* orderingTable() const override { return table_; }
    std::uint64_t orderingKey() const override { return 4711; }

private:
    const Asic::OrderedSwTable* table_;
    Blocker waitsFor_;
    Brumo::Ptr<Handle> handle_ = Brumo::make<Handle>();
};

class ChangesUnderWayTest : public testing::Test {
protected:
    void start(std::uint64_t capacity = 1024) {
        Agent::Options options;
        options.units = {{1}};
        options.stateDirectory = directory_.path();
        options.capacity = capacity;
        tables_ = std::make_unique<Agent::Tables>(options, Agent::loadPlugin(VORN_PLUGIN_PATH),
                                                  loop_, directory_.path());
    }
    auto& v4() { return *tables_->units()[0].ipv4; }
    void write(std::uint32_t rule,
               const Brumo::Ptr<const Asic::DependencyEntryHandle>& dependency = nullptr) {
        V4Types::Entry entry;
        entry.key = {rule, 1};
        v4().write(entry.key, entry, dependency, nullptr);
    }
    void enqueueWaiting(Blocker::Cause cause, const Brumo::Ptr<const Kiv::Entity>& entity) {
        tables_->group().groupResolver()->resolverQueueEnq(
            Brumo::make<WaitingChange>(&v4(), Blocker{cause, entity}));
    }
    void settle() { ASSERT_TRUE(loop_.runUntilIdle()); }
    Json explain(const std::string& key) {
        return ChangesUnderWay(*tables_).explain(V4Types::kTableId, 1, key);
    }
    static Json waitsFor(const Json& explained, std::size_t link = 0) {
        return explained.at("chain").at(link).at("waitsFor");
    }
    std::size_t counted(Agent::WaitCause cause) {
        return Agent::waitCounts(*tables_)[V4Types::kTableId][static_cast<std::size_t>(cause)];
    }

    TestSupport::TempDir directory_;
    Kiv::ManualEventLoop loop_;
    std::unique_ptr<Agent::Tables> tables_;
};

TEST_F(ChangesUnderWayTest, NameTheResourceTheyWaitFor) {
    start();
    const auto client =
        Brumo::make<Agent::Tables::Policers::ClientInstance>(Brumo::Ptr(&tables_->policers()));
    const auto pending = client->request({0x2a, 1, 0}, {}, nullptr);
    enqueueWaiting(Blocker::Cause::resource, pending);
    loop_.turn();
    const Json waits = waitsFor(explain("00000001.00000001"));
    EXPECT_EQ(waits["cause"], "resource");
    EXPECT_EQ(waits["pool"], "policer");
    EXPECT_EQ(waits["key"], "0000002a/1");
    EXPECT_EQ(counted(Agent::WaitCause::resource), 1U);
}

TEST_F(ChangesUnderWayTest, SayHowFullTheLogIsThatTheyWaitFor) {
    start();
    enqueueWaiting(Blocker::Cause::logFull, nullptr);
    settle();
    const Json waits = waitsFor(explain("00000001.00000001"));
    EXPECT_EQ(waits["cause"], "logFull");
    EXPECT_EQ(waits["table"], "PolicyCpuV4TcamEntry");
    EXPECT_EQ(waits["used"], 0);
    EXPECT_EQ(waits["capacity"], 1024);
}

TEST_F(ChangesUnderWayTest, WaitForTheChangesBeforeARemoveAllAndForTheRemoveAll) {
    start();
    const auto never = Brumo::make<Handle>();
    write(1, never);
    v4().removeAll(nullptr, nullptr);
    write(2);
    settle();
    const Json explained = explain("00000002.00000001");
    ASSERT_EQ(explained["chain"].size(), 3U) << explained.dump(1);
    EXPECT_EQ(waitsFor(explained, 0)["cause"], "removeAll");
    EXPECT_EQ(explained["chain"][1]["operation"], "removeAll");
    EXPECT_EQ(waitsFor(explained, 1)["cause"], "earlierChanges");
    EXPECT_EQ(waitsFor(explained, 2)["cause"], "dependency");
    EXPECT_EQ(
        explained["root"],
        "a change of PolicyCpuV4TcamEntry that will not end: it is neither queued nor committed");
    EXPECT_EQ(counted(Agent::WaitCause::removeAll), 1U);
    EXPECT_EQ(counted(Agent::WaitCause::earlierChanges), 1U);
}

TEST_F(ChangesUnderWayTest, WaitForRoomInTheAnnouncementLog) {
    start(64);
    for (std::uint32_t rule = 1; counted(Agent::WaitCause::announcements) == 0; ++rule) {
        ASSERT_LT(rule, 1000U);
        write(1);
        settle();
    }
    EXPECT_EQ(waitsFor(explain("00000001.00000001"))["cause"], "announcements");
}

TEST_F(ChangesUnderWayTest, WaitForTheirTurnOnly) {
    start();
    write(1);
    EXPECT_EQ(waitsFor(explain("00000001.00000001"))["cause"], "turn");
    EXPECT_EQ(counted(Agent::WaitCause::turn), 1U);
    settle();
    const Json committed = explain("00000001.00000001");
    EXPECT_TRUE(committed["chain"].empty());
    EXPECT_EQ(committed["changes"][0]["waitsFor"]["cause"], "hardware");
}

TEST_F(ChangesUnderWayTest, AreListedOldestFirstUpToALimit) {
    start();
    const auto never = Brumo::make<Handle>();
    for (std::uint32_t rule = 1; rule <= 5; ++rule) {
        loop_.turnTimeIs(std::chrono::seconds(100 - rule));
        write(rule, never);
    }
    settle();
    loop_.turnTimeIs(std::chrono::seconds(200));
    const Json list = ChangesUnderWay(*tables_).list({}, 2);
    EXPECT_EQ(list["total"], 5);
    ASSERT_EQ(list["changes"].size(), 2U);
    EXPECT_EQ(list["changes"][0]["key"], "00000005.00000001");
    EXPECT_EQ(list["changes"][0]["age_s"], 105.0);
    EXPECT_EQ(list["changes"][1]["key"], "00000004.00000001");
    Agent::ChangeFilter ofUnit2;
    ofUnit2.unit = 2;
    EXPECT_EQ(ChangesUnderWay(*tables_).list(ofUnit2, 9)["total"], 0);
    Agent::ChangeFilter ofOneKey;
    ofOneKey.key = "00000003.00000001";
    EXPECT_EQ(ChangesUnderWay(*tables_).list(ofOneKey, 9)["total"], 1);
}

TEST_F(ChangesUnderWayTest, ShowBothEndsOfALongChain) {
    start();
    const auto never = Brumo::make<Handle>();
    for (int i = 0; i < 1000; ++i)
        write(1, i == 0 ? never : nullptr);
    settle();
    const Json explained = explain("00000001.00000001");
    EXPECT_EQ(explained["total"], 1000);
    EXPECT_EQ(explained["links"], 1000);
    EXPECT_EQ(explained["changes"].size(), ChangesUnderWay::kMostShown);
    ASSERT_EQ(explained["chain"].size(), ChangesUnderWay::kMostShown);
    EXPECT_EQ(explained["chain"][0]["entryVersion"], "999.0");
    EXPECT_EQ(explained["chain"].back()["entryVersion"], "0.0");
}

TEST_F(ChangesUnderWayTest, AgeFromTheTurnInWhichTheyWereStaged) {
    start();
    const auto never = Brumo::make<Handle>();
    loop_.turnTimeIs(std::chrono::seconds(100));
    write(1, never);
    settle();
    loop_.turnTimeIs(std::chrono::seconds(103));
    write(2, never);
    EXPECT_EQ(Agent::oldestStaged_s(*tables_), 3.0);
    const Json staged = explain("00000001.00000001")["stages"];
    ASSERT_EQ(staged.size(), 1U);
    EXPECT_EQ(staged[0]["seconds"], 3.0);
    settle();
    write(3);
    loop_.turnTimeIs(std::chrono::seconds(105));
    settle();
    loop_.turnTimeIs(std::chrono::seconds(112));
    const Json committed = explain("00000003.00000001")["stages"];
    ASSERT_EQ(committed.size(), 2U);
    EXPECT_EQ(committed[0]["seconds"], 2.0);
    EXPECT_EQ(committed[1]["seconds"], 7.0);
}

}  // namespace
