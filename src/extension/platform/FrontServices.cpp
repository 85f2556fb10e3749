#include "extension/platform/FrontServices.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace stonewall::platform {

namespace {

// Replaced only by main() or a test fixture while no front work runs; the
// mutex only keeps a reader on another thread from seeing a half-assigned set.
std::mutex& registryMutex() {
    static std::mutex mutex;
    return mutex;
}

FrontServices& registry() {
    static FrontServices services;
    return services;
}

template <typename T>
T& require(const std::shared_ptr<T> FrontServices::*member, const char* name) {
    T* service = nullptr;
    {
        std::lock_guard lock(registryMutex());
        service = (registry().*member).get();
    }
    if (service == nullptr) {
        std::fprintf(stderr, "stonewall: the front service '%s' is used but not installed\n", name);
        std::fflush(stderr);
        std::abort();
    }
    return *service;
}

}  // namespace

FrontServices installFront(FrontServices services) {
    std::lock_guard lock(registryMutex());
    std::swap(registry(), services);
    return services;
}

const FrontServices& installedFront() { return registry(); }

SFSafariApplication& safariApplication() {
    return require(&FrontServices::application, "application");
}
NSWorkspace& sharedWorkspace() { return require(&FrontServices::workspace, "workspace"); }
Toolkit& toolkit() { return require(&FrontServices::toolkit, "toolkit"); }

}  // namespace stonewall::platform
