#include "platform/kiv/Module.h"

#include <utility>

#include "platform/brumo/Assert.h"

namespace Kiv {

const TypeData& Entity::typeData() const {
    static const TypeData anonymous{"Kiv::Entity", {}};
    return anonymous;
}

ModuleRegistry& ModuleRegistry::instance() {
    static ModuleRegistry registry;
    return registry;
}

const Module* ModuleRegistry::module(std::string_view name) const {
    const auto found = modules_.find(name);
    return found == modules_.end() ? nullptr : &found->second;
}

std::vector<std::string> ModuleRegistry::moduleNames() const {
    std::vector<std::string> names;
    for (const auto& entry : modules_)
        names.push_back(entry.first);
    return names;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): it is moved into the registry
ModuleRegistration::ModuleRegistration(Module module) : name_(module.name) {
    const bool inserted =
        ModuleRegistry::instance().modules_.try_emplace(name_, std::move(module)).second;
    Brumo::require(inserted, "module registered once", name_);
}

ModuleRegistration::~ModuleRegistration() {
    ModuleRegistry::instance().modules_.erase(name_);
}

}  // namespace Kiv
