// Counter indexes by request.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/resources/Keys.h"
#include "platform/resources/ResourceClient.h"
#include "platform/resources/ResourceHandle.h"
#include "platform/resources/ResourceTable.h"

namespace VornCountersLib {

class CounterResourceHandle final : public Asic::ResourceHandle<CrpsIndexRequestEntryKey> {
public:
    using ResourceHandle::ResourceHandle;

    /// All ones before the request is answered.
    std::uint32_t counterIndex() const { return counterIndex_; }
    /// 1 to 255, given by the request key alone: moves and restarts do not change it. 0 before the
    /// request is answered.
    std::uint8_t featureId() const { return featureId_; }

    void counterIndexIs(std::uint32_t index) { counterIndex_ = index; }
    void featureIdIs(std::uint8_t featureId) { featureId_ = featureId; }

private:
    std::uint32_t counterIndex_ = 0xFFFFFFFF;
    std::uint8_t featureId_ = 0;
};

struct CounterBinding {
    using Key = CrpsIndexRequestEntryKey;
    using Handle = CounterResourceHandle;
    using ClientData = Asic::NoClientData;

    static constexpr std::string_view kLibrary = "VornCountersLib";
    static constexpr std::string_view kClassName = "CrpsIndexRequestResourceTable";
    static constexpr std::uint64_t kIndexLimit = 0xFFFFFFFF;

    static std::uint8_t featureId(const Key& key) {
        return static_cast<std::uint8_t>(1 + key.hash(0) % 255);
    }
    static void valuesIs(Handle& handle, std::uint32_t index, std::uint8_t featureId,
                         const ClientData& /*clientData*/) {
        handle.counterIndexIs(index);
        handle.featureIdIs(featureId);
    }
    static bool shows(const Handle& handle, std::uint32_t index, std::uint8_t featureId,
                      const ClientData& /*clientData*/) {
        return handle.counterIndex() == index && handle.featureId() == featureId;
    }
};

class CrpsIndexRequestResourceTable final : public Asic::ResourceTable<CounterBinding> {
public:
    using ResourceHandle = CounterResourceHandle;
    class ClientInstance;

    static constexpr Asic::SwTableId kTableId{0x2C080501};
    static constexpr std::uint32_t kPoolSize = 65536;

    /// `name` as in "CrpsIndexRequest.CpuTrafficPolicyIngress"; the rest as for every resource
    /// table.
    CrpsIndexRequestResourceTable(std::string name,
                                  const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                                  const Brumo::Ptr<Asic::GroupInterface>& group,
                                  Kiv::EventLoop& loop, std::uint32_t poolSize = kPoolSize,
                                  Asic::SwTableId tableId = kTableId)
        : ResourceTable(std::move(name), tableId, poolSize, entityManager, group, loop) {}

    Brumo::Ptr<ClientInstance> makeClientInstance();
};

class CrpsIndexRequestResourceTable::ClientInstance final
    : public Asic::ResourceClient<CounterBinding> {
public:
    using ResourceClient::ResourceClient;

    /// Null for the default key, which means that no counter is needed. The dependency is the
    /// change that the request is made for; it does not influence the answer.
    Brumo::Ptr<const ResourceHandle> request(
        const CrpsIndexRequestEntryKey& key,
        const Brumo::Ptr<const Asic::DependencyEntryHandle>& /*dependency*/) {
        return requestOf(key, {});
    }
};

}  // namespace VornCountersLib

extern template class Asic::ResourceTable<VornCountersLib::CounterBinding>;
extern template class Asic::ResourceClient<VornCountersLib::CounterBinding>;
