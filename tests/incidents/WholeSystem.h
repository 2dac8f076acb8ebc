// An agent with one table and the hardware side that follows it, in the test's own process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/simulator/Hardware.h"
#include "tests/support/SwTableFixture.h"

namespace Incidents {

template <class B>
class WholeSystem : public TestSupport::SwTableFixture<B> {
protected:
    using Fixture = TestSupport::SwTableFixture<B>;
    using Types = typename B::Types;

    explicit WholeSystem(const TestSupport::InProcessAgent::Options& options = {})
        : Fixture(options) {}

    /// The hardware side takes that many announcements, and the agent what it acknowledges.
    void hardwareTakes(std::size_t announcements) {
        hardware.pump(announcements);
        this->agent.group()->acknowledgementsArrived();
        this->agent.settle();
    }
    /// Both have their turns until nothing is left.
    void settleAll() {
        this->agent.settle();
        std::uint64_t before = 0;
        do {
            before = hardware.acks().consumed();
            hardwareTakes(SIZE_MAX);
        } while (hardware.acks().consumed() != before);
    }
    /// Ends the agent's process; the next one makes its table again. Handles must be dropped first.
    void restartAgent() {
        this->table = nullptr;
        this->agent.restart();
        this->table = TestSupport::tableOf<B>(this->agent);
    }

    std::uint64_t acknowledged() {
        return hardware.acks().acknowledged(B::kTableId.whole()).value_or(0);
    }
    /// Null when hardware holds nothing under the key.
    auto* held(const typename B::Key& key) const {
        const auto& units = hardware.tcam().units();
        const auto unit = units.find(this->table->unitId());
        return unit == units.end() ? nullptr : unit->second.template table<Types>().find(key);
    }
    /// What the configuration, up to the acknowledged version, and hardware differ in.
    std::vector<std::string> notProgrammed() {
        std::vector<std::string> different;
        const auto config = this->config();
        for (auto value = config->swTableEntriesFromStart(); value.has_value();
             value = config->swTableEntriesAfter(value->key())) {
            if (value->version.value > acknowledged())
                continue;
            const auto* found = held(value->key());
            if ((found == nullptr) != value->inDeletion ||
                (found != nullptr && !found->entry.isEq(value->logEntry))) {
                different.push_back(fmt::format("{}@{}", value->key(), value->version));
            }
        }
        return different;
    }

    Simulator::Hardware hardware{this->agent.root()};
};

}  // namespace Incidents
