// The action table: its binding and those of its two linkages.
#pragma once

#include <array>

#include "catalogue/Binding.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "platform/resources/PolicerIndexRequestResourceTable.h"
#include "types/PolicyCpuTcamAction.h"

namespace VornPolicyCpu {

class PolicyCpuTcamActionSwTable;
class PolicyCpuTcamActionEntryWrapper;

/// The counter that an action's traffic is counted with.
struct CrpsIndexRequestBinding {
    using ResourceTable = VornCountersLib::CrpsIndexRequestResourceTable;
    using ClientInstance = ResourceTable::ClientInstance;
    using ResourceHandle = ResourceTable::ResourceHandle;
    using ResourceKey = VornCountersLib::CrpsIndexRequestEntryKey;

    static constexpr std::string_view kClassName = "PolicyCpuTcamActionCrpsIndexRequestLinkage";
    static constexpr std::string_view kResourceLibrary = "VornCountersLib";
    static constexpr std::string_view kResourceTable = "CrpsIndexRequest.CpuTrafficPolicyIngress";

    static const ResourceKey& resourceKeyFromEntry(const PolicyCpuTcamActionEntry& entry) {
        return entry.counterRequestKey;
    }
    static auto request(ClientInstance& client, const PolicyCpuTcamActionEntry& entry) {
        return client.request(entry.counterRequestKey,
                              Brumo::Ptr<const Asic::DependencyEntryHandle>());
    }
    static void setResolvedFields(PolicyCpuTcamActionEntry& entry, const ResourceHandle* counter) {
        entry.counterIndex = counter == nullptr ? kNoCounterIndex : counter->counterIndex();
        entry.featureId = counter == nullptr ? std::uint8_t{0} : counter->featureId();
    }
    static void retrieveClientData(PolicyCpuTcamActionEntry& /*entry*/,
                                   const ResourceHandle& /*counter*/) {}
};

/// The policer that an action's traffic is limited by.
struct PolicerIndexRequestBinding {
    using ResourceTable = VornPolicerLib::PolicerIndexRequestResourceTable;
    using ClientInstance = ResourceTable::ClientInstance;
    using ResourceHandle = ResourceTable::ResourceHandle;
    using ResourceKey = VornPolicerLib::PolicerIndexRequestEntryKey;

    static constexpr std::string_view kClassName = "PolicyCpuTcamActionPolicerIndexRequestLinkage";
    static constexpr std::string_view kResourceLibrary = "VornPolicerLib";
    static constexpr std::string_view kResourceTable = "PolicerIndexRequest.VornPolicyCpu";

    static const ResourceKey& resourceKeyFromEntry(const PolicyCpuTcamActionEntry& entry) {
        return entry.policerRequestKey;
    }
    static auto request(ClientInstance& client, const PolicyCpuTcamActionEntry& entry) {
        return client.request(entry.policerRequestKey, entry.policerClientData,
                              Brumo::Ptr<const Asic::DependencyEntryHandle>());
    }
    static void setResolvedFields(PolicyCpuTcamActionEntry& entry, const ResourceHandle* policer) {
        entry.policerIndex = policer == nullptr ? kNoPolicerIndex : policer->policerIndex();
    }
    static void retrieveClientData(PolicyCpuTcamActionEntry& entry, const ResourceHandle& policer) {
        entry.policerClientData = policer.clientData();
    }
};

struct PolicyCpuTcamActionBinding
    : TableBinding<PolicyCpuTcamActionBinding, PolicyCpuTcamActionTypes, CrpsIndexRequestBinding,
                   PolicerIndexRequestBinding> {
    using SwTable = PolicyCpuTcamActionSwTable;
    using EntryWrapper = PolicyCpuTcamActionEntryWrapper;

    static constexpr std::array<std::string_view, 8> kResourceAttributes{"counterRequestKeyResPtr",
                                                                         "policerRequestKeyResPtr",
                                                                         "counterRequestKey",
                                                                         "policerRequestKey",
                                                                         "policerClientData",
                                                                         "counterIndex",
                                                                         "policerIndex",
                                                                         "featureId"};
};
static_assert(LinkageBinding<CrpsIndexRequestBinding, PolicyCpuTcamActionEntry>);
static_assert(LinkageBinding<PolicerIndexRequestBinding, PolicyCpuTcamActionEntry>);

}  // namespace VornPolicyCpu
