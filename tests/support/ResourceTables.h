// The two resource tables as tests drive them: one body of a test serves both.
#pragma once

#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/PolicerIndexRequestResourceTable.h"

namespace TestSupport {

struct CounterIndexes {
    using Binding = VornCountersLib::CounterBinding;
    using Table = VornCountersLib::CrpsIndexRequestResourceTable;
    static constexpr const char* kTitle = "counter";
    static constexpr const char* kName = "CrpsIndexRequest.CpuTrafficPolicyIngress";

    /// Counters have no settings.
    static auto request(Table::ClientInstance& client, std::uint32_t id, std::uint32_t /*rate*/) {
        return client.request({id}, nullptr);
    }
};

struct PolicerIndexes {
    using Binding = VornPolicerLib::PolicerBinding;
    using Table = VornPolicerLib::PolicerIndexRequestResourceTable;
    static constexpr const char* kTitle = "policer";
    static constexpr const char* kName = "PolicerIndexRequest.VornPolicyCpu";

    /// `rate`: packets a second; the burst is a tenth of it.
    static auto request(Table::ClientInstance& client, std::uint32_t id, std::uint32_t rate) {
        VornPolicerLib::PolicerIndexRequestClientData data;
        data.rate = rate;
        data.burst = rate / 10;
        data.mode = VornPolicerLib::PolicerMode::packets;
        return client.request({id}, data, nullptr);
    }
};

}  // namespace TestSupport
