#include "agent/Plugin.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "platform/kiv/Module.h"

namespace Agent {

namespace {

template <class Types>
void find(const std::string& path, VornPolicyCpu::TableFamilyFactory<Types>& factory) {
    const std::string name = familyName<Types>();
    factory =
        Kiv::ModuleRegistry::instance().factory<VornPolicyCpu::TableFamilyFactory<Types>>(name);
    if (factory == nullptr)
        throw PluginError(
            fmt::format("{}: no policy plug-in: it does not register {}", path, name));
}

}  // namespace

Plugin loadPlugin(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw PluginError(fmt::format("{}: {}", path, std::strerror(errno)));
    if (!S_ISREG(status.st_mode))
        throw PluginError(fmt::format("{}: no policy plug-in: it is no regular file", path));
    // A name without a slash would be looked for elsewhere.
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    if (::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
        const char* reason = ::dlerror();
        std::string text = reason == nullptr ? "cannot be loaded" : reason;
        if (text.starts_with(file + ": "))
            text.erase(0, file.size() + 2);
        throw PluginError(fmt::format("{}: no policy plug-in: {}", path, text));
    }
    Plugin plugin;
    find<ActionTypes>(path, plugin.actions);
    find<V4Types>(path, plugin.ipv4);
    find<V6Types>(path, plugin.ipv6);
    return plugin;
}

}  // namespace Agent
