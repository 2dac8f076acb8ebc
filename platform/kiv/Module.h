// The module registry: what a library describes of itself when it is loaded.
//
// Each source unit registers one module with the type data of its classes and, where others make
// its objects, a factory. Whoever has loaded a library finds its factories here by name and type,
// and so needs no symbol of it. Registration happens in static initialisers; look-ups on the event
// thread.
#pragma once

#include <any>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kiv/Entity.h"

namespace Kiv {

struct Module {
    std::string name;
    std::vector<TypeData> types;
    /// A function pointer, or empty.
    std::any factory;
};

class ModuleRegistry {
public:
    static ModuleRegistry& instance();

    /// Null when no such module is registered.
    const Module* module(std::string_view name) const;
    std::vector<std::string> moduleNames() const;

    /// The factory of a module as a function pointer type; null when there is no such module or
    /// its factory is of another type.
    template <class Function>
    Function factory(std::string_view name) const {
        const Module* found = module(name);
        const Function* function =
            found == nullptr ? nullptr : std::any_cast<Function>(&found->factory);
        return function == nullptr ? nullptr : *function;
    }

private:
    friend class ModuleRegistration;
    ModuleRegistry() = default;

    std::map<std::string, Module, std::less<>> modules_;
};

/// Registers a module for as long as the library that owns this object stays loaded. The same name
/// registered twice ends the process: two copies of a library must not be loaded together.
class ModuleRegistration {
public:
    explicit ModuleRegistration(Module module);
    ModuleRegistration(const ModuleRegistration&) = delete;
    ModuleRegistration& operator=(const ModuleRegistration&) = delete;
    ~ModuleRegistration();

private:
    std::string name_;
};

}  // namespace Kiv
