// The library with the tables, found by path and used without a symbol of it.
//
// Event thread only. A loaded library stays loaded until the process ends: its objects may outlive
// whoever loaded it.
#pragma once

#include <stdexcept>
#include <string>

#include "agent/Policy.h"
#include "catalogue/TableFamily.h"

namespace Agent {

/// Path and reason.
class PluginError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The registry names under which the families register themselves.
inline constexpr std::string_view kActionFamily = "VornPolicyCpu::PolicyCpuTcamActionInterface";
inline constexpr std::string_view kV4Family = "VornPolicyCpu::PolicyCpuV4TcamEntryInterface";
inline constexpr std::string_view kV6Family = "VornPolicyCpu::PolicyCpuV6TcamEntryInterface";

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
