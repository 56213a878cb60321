#include "host/service/Plugin.h"

#include <dlfcn.h>
#include <fmt/format.h>

MoScsiSrvPlatform* LoadPlugin(const std::filesystem::path& library, std::string& error) {
    void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        error = fmt::format(
            "can't load the plug-in ({}): install the product, or give the "
            "library's place with --library",
            dlerror());
        return nullptr;
    }
    using Factory = void* (*)();
    const auto factory = reinterpret_cast<Factory>(dlsym(handle, "GetMOScsiPlatformObj"));
    if (factory == nullptr) {
        error = fmt::format(
            "{} is no plug-in of this host (it lacks GetMOScsiPlatformObj): give "
            "the right one with --library",
            library.string());
        return nullptr;
    }
    return static_cast<MoScsiSrvPlatform*>(factory());
}
