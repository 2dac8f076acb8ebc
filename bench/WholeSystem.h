// An agent with one full table, and a hardware side that does no more than read and acknowledge.
//
// One thread. Both sides work in their real files, and neither sleeps.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/asic/Constants.h"
#include "platform/kivshimo/AckMap.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "platform/kivshimo/MapReader.h"
#include "platform/kivshimo/Paths.h"
#include "platform/kivshimo/VersionLogReader.h"
#include "tests/support/InProcessAgent.h"
#include "types/Constants.h"

namespace Bench {

inline constexpr Asic::UnitId kUnit{1};

/// Reads each change of one table as a hardware side has to, and acknowledges it.
template <class B>
class Follower {
public:
    Follower(const std::string& root, KivShimo::AckMapWriter& acks)
        : acks_(&acks),
          announcements_(KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
              root, Asic::Constants::announcementsPath(VornPolicyCpu::canonicalGroupName())))),
          changes_(KivShimo::tableFile(root, Names::tableEntryLogShimoPath()),
                   Names::entryLogShimoType(), VornPolicyCpu::kEntryLogConfig),
          values_(KivShimo::tableFile(root, Names::configShimoPath(kUnit)),
                  Names::configShimoType(), VornPolicyCpu::kSwTableEntries),
          sleeper_(acks.sleepEpoch()) {
        acks_->announceIdentityIs(announcements_->identity());
    }

    void follow() {
        follow([] {});
    }
    /// Calls `onRead` for each change that was read, before it is acknowledged.
    template <class OnRead>
    void follow(const OnRead& onRead) {
        while (const auto announcement = announcements_->next(position_ + 1)) {
            if (announcement->tableId == B::kTableId.whole()) {
                read(announcement->version);
                onRead();
            }
            position_ = announcement->position;
            acks_->ackIs(announcement->tableId, announcement->version);
            acks_->consumedIs(position_);
        }
    }
    /// Changes read so far.
    std::uint64_t read() const { return read_; }
    KivShimo::Sleeper& sleeper() { return sleeper_; }
    /// For the agent, whose word lies in the mapping of this object.
    KivShimo::Waker waker(const std::string& bell) const {
        return {announcements_->sleepEpoch(), bell};
    }

private:
    using Types = typename B::Types;
    using Names = VornPolicyCpu::Constants<Types>;
    using Value = VornPolicyCpu::ConfigShimoEntry<typename Types::Key, typename Types::LogEntry,
                                                  typename Types::ResourceKeys>;

    void read(std::uint64_t version) {
        const auto record = changes_.find(version);
        const auto value = record ? values_.find(record->key) : std::nullopt;
        if (!value || value->version.value < version)
            throw std::runtime_error("a change was announced that cannot be read");
        ++read_;
    }

    KivShimo::AckMapWriter* acks_;
    std::optional<KivShimo::AnnounceLogReader> announcements_;
    KivShimo::VersionLogReader<VornPolicyCpu::LogShimoEntry<typename Types::Key>> changes_;
    KivShimo::MapReader<Value> values_;
    KivShimo::Sleeper sleeper_;
    std::uint64_t position_ = 0;
    std::uint64_t read_ = 0;
};

template <class B>
class WholeSystem {
public:
    using Entry = typename B::Types::Entry;
    using Table = Brumo::Ptr<typename B::SwTable>;

    /// `tableOf`: makes the table of an agent.
    WholeSystem(const TestSupport::InProcessAgent::Options& options,
                std::function<Table(TestSupport::InProcessAgent&)> tableOf)
        : agent_(options),
          tableOf_(std::move(tableOf)),
          table_(tableOf_(agent_)),
          group_(agent_.group()),
          follower_(agent_.root(), agent_.hardware()) {}

    /// From the write to its answer.
    void change(const Entry& entry) {
        const std::uint64_t before = answered_;
        table_->entryWriteWithResponseHandler(entry.key, entry, nullptr,
                                              [this](const auto&) { ++answered_; });
        settle();
        if (answered_ == before)
            throw std::runtime_error("a change was not answered");
    }
    /// Both sides work until nothing is left to do.
    void settle() {
        agent_.settle();
        follower_.follow();
        group_->acknowledgementsArrived();
        agent_.settle();
    }
    /// The agent's process ends, and another one begins.
    void stop() {
        table_ = nullptr;
        group_ = nullptr;
        agent_.stop();
    }
    void start() {
        agent_.start();
        table_ = tableOf_(agent_);
        group_ = agent_.group();
    }
    TestSupport::InProcessAgent& agent() { return agent_; }
    const Table& table() const { return table_; }

private:
    TestSupport::InProcessAgent agent_;
    std::function<Table(TestSupport::InProcessAgent&)> tableOf_;
    Table table_;
    Brumo::Ptr<Asic::GroupInterface> group_;
    Follower<B> follower_;
    std::uint64_t answered_ = 0;
};

}  // namespace Bench
