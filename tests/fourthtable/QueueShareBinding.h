// The binding of the tests' own table: one linkage, to the counter indexes.
#pragma once

#include "catalogue/Binding.h"
#include "platform/resources/CrpsIndexRequestResourceTable.h"
#include "tests/fourthtable/QueueShareTypes.h"

namespace VornPolicyCpu {

struct QueueShareCounterBinding {
    using ResourceTable = VornCountersLib::CrpsIndexRequestResourceTable;
    using ClientInstance = ResourceTable::ClientInstance;
    using ResourceHandle = ResourceTable::ResourceHandle;
    using ResourceKey = VornCountersLib::CrpsIndexRequestEntryKey;

    static constexpr std::string_view kClassName = "QueueShareCounterLinkage";
    static constexpr std::string_view kResourceLibrary = "VornCountersLib";
    static constexpr std::string_view kResourceTable = "CrpsIndexRequest.CpuTrafficPolicyIngress";

    static const ResourceKey& resourceKeyFromEntry(const QueueShareEntry& entry) {
        return entry.counterRequestKey;
    }
    static auto request(ClientInstance& client, const QueueShareEntry& entry) {
        return client.request(entry.counterRequestKey,
                              Brumo::Ptr<const Asic::DependencyEntryHandle>());
    }
    static void setResolvedFields(QueueShareEntry& entry, const ResourceHandle* counter) {
        entry.counterIndex = counter == nullptr ? 0xFFFFFFFF : counter->counterIndex();
    }
    static void retrieveClientData(QueueShareEntry&, const ResourceHandle&) {}
};
static_assert(LinkageBinding<QueueShareCounterBinding, QueueShareEntry>);

struct QueueShareBinding
    : TableBinding<QueueShareBinding, QueueShareTypes, QueueShareCounterBinding> {};

}  // namespace VornPolicyCpu
