// The state database: entities by path.
//
// Event thread only.
//
// What always holds:
//  1. A path leads to one entity; setting it again replaces the entity, setting null removes it.
#pragma once

#include <map>
#include <string_view>

#include "platform/brumo/String.h"
#include "platform/kiv/Entity.h"

namespace Regdb {

class EntityManager final : public Brumo::RefCounted {
public:
    EntityManager(Brumo::String systemName, bool local)
        : systemName_(std::move(systemName)), local_(local) {}

    const Brumo::String& systemName() const { return systemName_; }
    /// The database is this process's own, not one that several systems share.
    bool local() const { return local_; }

    /// Null when there is none at the path.
    Brumo::Ptr<Kiv::Entity> entity(std::string_view path) const;
    /// Puts the entity at the path and tells it that it has a parent.
    void entityIs(std::string_view path, Brumo::Ptr<Kiv::Entity> entity);

private:
    Brumo::String systemName_;
    bool local_;
    std::map<Brumo::String, Brumo::Ptr<Kiv::Entity>, std::less<>> entities_;
};

}  // namespace Regdb
