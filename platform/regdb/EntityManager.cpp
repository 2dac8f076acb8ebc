#include "platform/regdb/EntityManager.h"

#include <utility>

namespace Regdb {

Brumo::Ptr<Kiv::Entity> EntityManager::entity(std::string_view path) const {
    const auto found = entities_.find(path);
    return found == entities_.end() ? Brumo::Ptr<Kiv::Entity>() : found->second;
}

void EntityManager::entityIs(std::string_view path, Brumo::Ptr<Kiv::Entity> entity) {
    if (entity == nullptr) {
        const auto found = entities_.find(path);
        if (found != entities_.end())
            entities_.erase(found);
        return;
    }
    entities_.insert_or_assign(Brumo::String(path), entity);
    entity->handleParent();
}

}  // namespace Regdb
