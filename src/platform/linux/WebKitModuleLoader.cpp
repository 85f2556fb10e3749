#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/linux/LinuxHost.h"
#include "platform/linux/WebKitModule.h"

namespace stonewall::platform::gnulinux {

namespace {

// $STONEWALL_WEBKIT_MODULE, else the installed module when it exists, else
// the one of the build tree (the same order as the bundle's resources).
std::string webKitModulePath() {
    if (const char* path = std::getenv("STONEWALL_WEBKIT_MODULE"); path && *path) return path;
    if (std::string installed = installedPath(STONEWALL_WEBKIT_MODULE_FROM_BINDIR);
        !installed.empty()) {
        return installed;
    }
    return STONEWALL_WEBKIT_MODULE_BUILT;
}

}  // namespace

const StonewallWebKitModule* openWebKitModule(std::string& failure) {
    const std::string path = webKitModulePath();
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* reason = ::dlerror();
        failure = "WebKit cannot be loaded (" + path +
                  "): " + (reason ? std::string(reason) : std::string("unknown error"));
        return nullptr;
    }
    using Entry = const StonewallWebKitModule* (*)();
    auto entry = reinterpret_cast<Entry>(::dlsym(handle, kWebKitModuleEntryPoint));
    const StonewallWebKitModule* module = entry ? entry() : nullptr;
    if (!module || module->interfaceVersion != kWebKitModuleInterfaceVersion) {
        failure = "WebKit cannot be loaded: " + path + " is a module of another build";
        return nullptr;
    }
    return module;
}

}  // namespace stonewall::platform::gnulinux
