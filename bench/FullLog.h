// An entry log of IPv6 entries with a value for every key, and a hardware side that consumes.
#pragma once

#include <optional>
#include <vector>

#include "bench/Keys.h"
#include "entrylog/PolicyCpuV6TcamEntryEntryLog.h"
#include "platform/asic/Constants.h"
#include "platform/kivshimo/AnnounceLog.h"
#include "platform/kivshimo/Doorbell.h"
#include "platform/kivshimo/Paths.h"
#include "tests/support/InProcessAgent.h"

namespace Bench {

class FullLog {
public:
    using B = VornPolicyCpu::PolicyCpuV6TcamEntryBinding;

    struct Shape {
        std::uint32_t keys = kKeys;  ///< of each unit
        std::uint32_t units = 1;
        std::uint64_t logSlots = std::uint64_t{1} << 20U;
        std::uint64_t left = 0;  ///< records that the hardware side is behind
    };

    FullLog() : FullLog(Shape{}) {}
    explicit FullLog(const Shape& shape)
        : shape_(shape),
          agent_({.capacityCeiling = shape.logSlots, .counters = 8, .policers = 8}),
          log_(VornPolicyCpu::entryLogFactory<B>(B::kTableId, agent_.stateDatabase(),
                                                 agent_.group(), "VornPolicyCpu")) {
        for (std::uint32_t unit = 0; unit < shape.units; ++unit) {
            log_->mountShimoConfig(idOf(unit), {});
            for (std::uint32_t number = 0; number < shape.keys; ++number) {
                write(number, unit);
                if (number % kRound == kRound - 1)
                    consume();
            }
        }
        consume();
        for (std::uint64_t i = 0; i < shape.left; ++i)
            write(static_cast<std::uint32_t>(i % shape.keys));
    }
    void write(std::uint32_t number, std::uint32_t unit = 0) {
        entry_.key = keyOf(number);
        entry_.priority = entry_.priority + 1;
        log_->entryIs(entry_, {}, needed_, idOf(unit), stats_, false);
    }
    void consume() { consumeUpTo(log_->tableVersion()); }
    /// All but what the shape leaves.
    void consumeButLeft() { consumeUpTo({log_->tableVersion().value - shape_.left}); }

private:
    static Asic::UnitId idOf(std::uint32_t unit) { return {static_cast<std::uint16_t>(unit + 1)}; }

    void consumeUpTo(Asic::LogVersion version) {
        agent_.hardware().announceIdentityIs(announcements().identity());
        // One announcement a version: position and version are the same.
        agent_.hardware().consumedIs(version.value);
        agent_.acknowledge(B::kTableId, version.value);
        log_->cleanupEntryLog(version);
    }
    KivShimo::AnnounceLogReader& announcements() {
        if (!announcements_) {
            announcements_ = KivShimo::AnnounceLogReader::open(KivShimo::tableFile(
                agent_.root(), Asic::Constants::announcementsPath(agent_.group()->name())));
        }
        return *announcements_;
    }

    Shape shape_;
    TestSupport::InProcessAgent agent_;
    KivShimo::Sleeper hardware_{agent_.hardware().sleepEpoch()};  ///< awake all the time
    Brumo::Ptr<VornPolicyCpu::EntryLog<B>> log_;
    Brumo::Ptr<Asic::SwTableStats> stats_ = Brumo::make<Asic::SwTableStats>();
    Brumo::Ptr<const Asic::NeededEntry> needed_ = Brumo::make<const Asic::NeededEntry>();
    B::LogEntry entry_;
    std::optional<KivShimo::AnnounceLogReader> announcements_;
};

}  // namespace Bench
