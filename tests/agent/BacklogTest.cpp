// Ages of changes that are not acknowledged, on real tables.

#include <gtest/gtest.h>

#include "agent/Backlog.h"
#include "agent/Plugin.h"
#include "platform/kivshimo/AckMap.h"
#include "tests/support/TempDir.h"

namespace {

using Agent::V4Types;

class BacklogTest : public testing::Test {
protected:
    BacklogTest() {
        options_.units = {{1}};
        options_.stateDirectory = directory_.path();
        options_.capacity = 1024;
        start();
    }
    void start() {
        tables_ = std::make_unique<Agent::Tables>(options_, Agent::loadPlugin(VORN_PLUGIN_PATH),
                                                  loop_, directory_.path());
    }
    void at(int seconds) { loop_.turnTimeIs(std::chrono::seconds(seconds)); }
    void write(std::uint32_t rule) {
        V4Types::Entry entry;
        entry.key = {rule, 1};
        tables_->units()[0].ipv4->write(entry.key, entry, nullptr, nullptr);
        loop_.runUntilIdle();
    }
    Agent::Unacknowledged figures() { return backlog_.of(*tables_, V4Types::kTableId); }

    TestSupport::TempDir directory_;
    Agent::Options options_;
    Kiv::ManualEventLoop loop_;
    std::unique_ptr<Agent::Tables> tables_;
    Agent::Backlog backlog_;
};

TEST_F(BacklogTest, IsNothingWhereNothingIsCommitted) {
    backlog_.look(*tables_);
    EXPECT_EQ(figures().count, 0U);
    EXPECT_FALSE(figures().oldestVersion);
    EXPECT_FALSE(figures().oldest_s);
}

TEST_F(BacklogTest, IsAsOldAsTheOldestHandle) {
    at(100);
    write(1);
    at(107);
    write(2);
    EXPECT_EQ(figures().count, 2U);
    EXPECT_EQ(figures().oldestVersion, 1U);
    EXPECT_EQ(figures().oldest_s, 7.0);
}

TEST_F(BacklogTest, OfAProcessBeforeCountsFromTheFirstLook) {
    at(100);
    write(1);
    tables_.reset();
    start();
    at(200);
    backlog_.look(*tables_);
    for (int second = 201; second <= 300; ++second) {
        at(second);
        write(static_cast<std::uint32_t>(second));
        backlog_.look(*tables_);
    }
    EXPECT_EQ(figures().count, 101U);
    EXPECT_EQ(figures().oldest_s, 100.0) << "also with more looks than there are marks";
}

}  // namespace
