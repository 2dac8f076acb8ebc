// A table of actions, each with a counter and a policer: empty, or filled.
#pragma once

#include "bench/Keys.h"
#include "bench/WholeSystem.h"

namespace Bench {

class Actions {
public:
    using B = VornPolicyCpu::PolicyCpuTcamActionBinding;

    /// `sharing`: actions that have one counter and one policer together. `keys`: of a full table.
    explicit Actions(std::uint32_t sharing, std::uint32_t keys = kKeys)
        : sharing_(sharing),
          keys_(keys),
          system_({.capacityCeiling = std::uint64_t{1} << 20U,
                   .counters = kKeys / sharing + 1,
                   .policers = kKeys / sharing + 1},
                  [](auto& agent) { return agent.actionTable(kUnit.value); }) {}
    void fill() {
        for (std::uint32_t number = 0; number < keys_; ++number)
            system_.change(entryOf(number));
    }
    /// Another one under the same key each time.
    const VornPolicyCpu::PolicyCpuTcamActionEntry& entryOf(std::uint32_t number) {
        const std::uint32_t resource = number / sharing_ + 1;
        entry_.key.id = number;
        entry_.counterRequestKey.requestId = resource;
        entry_.policerRequestKey.requestId = resource;
        entry_.redirect = (entry_.redirect + 1) % VornPolicyCpu::kNoRedirect;
        return entry_;
    }
    WholeSystem<B>& system() { return system_; }

private:
    std::uint32_t sharing_;
    std::uint32_t keys_;
    WholeSystem<B> system_;
    VornPolicyCpu::PolicyCpuTcamActionEntry entry_ = TestSupport::actionEntry(1, 1, 1);
};

class FullActions : public Actions {
public:
    explicit FullActions(std::uint32_t sharing, std::uint32_t keys = kKeys)
        : Actions(sharing, keys) {
        fill();
    }
};

}  // namespace Bench
