// The library with the tables, found by path and used without a symbol of it.
//
// Event thread only. A loaded library stays loaded until the process ends: its objects may outlive
// whoever loaded it.
#pragma once

#include <stdexcept>
#include <string>

#include "agent/Policy.h"
#include "catalogue/TableFamily.h"
#include "types/Constants.h"

namespace Agent {

/// Path and reason.
class PluginError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The registry name under which a family registers itself.
template <class Types>
std::string familyName() {
    return VornPolicyCpu::qualifiedClassName<Types>("Interface");
}

/// How the three families are made.
struct Plugin {
    VornPolicyCpu::TableFamilyFactory<ActionTypes> actions = nullptr;
    VornPolicyCpu::TableFamilyFactory<V4Types> ipv4 = nullptr;
    VornPolicyCpu::TableFamilyFactory<V6Types> ipv6 = nullptr;
};

/// Loads the library. Throws PluginError when it cannot be loaded or does not register the
/// families.
Plugin loadPlugin(const std::string& path);

}  // namespace Agent
