// One software table's access to a resource table.
//
// Event thread only. What holds is said with the resource table.
#pragma once

#include <cstdint>

#include "platform/resources/ResourceTable.h"

namespace Asic {

template <class Binding>
class ResourceClient : public Kiv::Entity {
public:
    using Key = typename Binding::Key;
    using ClientData = typename Binding::ClientData;
    using Handle = typename Binding::Handle;

    explicit ResourceClient(Brumo::Ptr<ResourceTable<Binding>> table);
    ~ResourceClient() override;

    const Brumo::Ptr<ResourceTable<Binding>>& table() const { return table_; }

    /// The client uses the resource in the state of `updateVersion`. `entryHandle` is the change
    /// that brings this to the hardware; null when nothing had to change.
    void ackUpdate(const Brumo::Ptr<const Handle>& handle, std::uint32_t updateVersion,
                   const Brumo::Ptr<const DependencyEntryHandle>& entryHandle);
    /// The client uses the resource no more. `entryHandle` is the change that ends the use in
    /// hardware; null when there is none.
    void release(const Brumo::Ptr<const Handle>& handle,
                 const Brumo::Ptr<const DependencyEntryHandle>& entryHandle);

protected:
    /// The live handle of the key, or a new one.
    Brumo::Ptr<const Handle> requestOf(const Key& key, const ClientData& clientData);

private:
    Brumo::Ptr<ResourceTable<Binding>> table_;
    std::uint32_t id_;
};

}  // namespace Asic
