// Policer indexes by request; a request says how the policer is to work.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/resources/Keys.h"
#include "platform/resources/ResourceClient.h"
#include "platform/resources/ResourceHandle.h"
#include "platform/resources/ResourceTable.h"

namespace VornPolicerLib {

class PolicerResourceHandle final : public Asic::ResourceHandle<PolicerIndexRequestEntryKey> {
public:
    using ResourceHandle::ResourceHandle;

    /// All ones before the request is answered.
    std::uint16_t policerIndex() const { return policerIndex_; }
    /// What the policer is requested with, and set to once the request is answered.
    const PolicerIndexRequestClientData& clientData() const { return clientData_; }

    void policerIndexIs(std::uint16_t index) { policerIndex_ = index; }
    void clientDataIs(const PolicerIndexRequestClientData& data) { clientData_ = data; }

private:
    std::uint16_t policerIndex_ = 0xFFFF;
    PolicerIndexRequestClientData clientData_;
};

struct PolicerBinding {
    using Key = PolicerIndexRequestEntryKey;
    using Handle = PolicerResourceHandle;
    using ClientData = PolicerIndexRequestClientData;

    static constexpr std::string_view kLibrary = "VornPolicerLib";
    static constexpr std::string_view kClassName = "PolicerIndexRequestResourceTable";
    static constexpr std::uint64_t kIndexLimit = 0xFFFF;

    static std::uint8_t featureId(const Key& /*key*/) { return 0; }
    static void valuesIs(Handle& handle, std::uint32_t index, std::uint8_t /*featureId*/,
                         const ClientData& clientData) {
        handle.policerIndexIs(static_cast<std::uint16_t>(index));
        handle.clientDataIs(clientData);
    }
    static bool shows(const Handle& handle, std::uint32_t index, std::uint8_t /*featureId*/,
                      const ClientData& clientData) {
        return handle.policerIndex() == index && handle.clientData() == clientData;
    }
};

class PolicerIndexRequestResourceTable final : public Asic::ResourceTable<PolicerBinding> {
public:
    using ResourceHandle = PolicerResourceHandle;
    class ClientInstance;

    static constexpr Asic::SwTableId kTableId{0x2C080502};
    static constexpr std::uint32_t kPoolSize = 16384;

    /// `name` as in "PolicerIndexRequest.VornPolicyCpu"; the rest as for every resource table.
    PolicerIndexRequestResourceTable(std::string name,
                                     const Brumo::Ptr<Regdb::EntityManager>& entityManager,
                                     const Brumo::Ptr<Asic::GroupInterface>& group,
                                     Kiv::EventLoop& loop, std::uint32_t poolSize = kPoolSize,
                                     Asic::SwTableId tableId = kTableId)
        : ResourceTable(std::move(name), tableId, poolSize, entityManager, group, loop) {}

    Brumo::Ptr<ClientInstance> makeClientInstance();
};

class PolicerIndexRequestResourceTable::ClientInstance final
    : public Asic::ResourceClient<PolicerBinding> {
public:
    using ResourceClient::ResourceClient;

    /// Null for the default key, which means that no policer is needed. Other client data than
    /// before sets the policer anew, in place. The dependency is the change that the request is
    /// made for; it does not influence the answer.
    Brumo::Ptr<const ResourceHandle> request(
        const PolicerIndexRequestEntryKey& key, const PolicerIndexRequestClientData& clientData,
        const Brumo::Ptr<const Asic::DependencyEntryHandle>& /*dependency*/) {
        return requestOf(key, clientData);
    }
};

}  // namespace VornPolicerLib

extern template class Asic::ResourceTable<VornPolicerLib::PolicerBinding>;
extern template class Asic::ResourceClient<VornPolicerLib::PolicerBinding>;
