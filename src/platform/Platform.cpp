#include "platform/Platform.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace stonewall::platform {

namespace {

// The set is replaced only by main() or a test fixture, while no engine work
// runs; the mutex keeps a late reader on another thread from seeing a
// half-assigned set, not from using a service that is being uninstalled.
std::mutex& registryMutex() {
    static std::mutex mutex;
    return mutex;
}

Services& registry() {
    static Services services;
    return services;
}

[[noreturn]] void missing(const char* name) {
    std::fprintf(stderr, "stonewall: the platform service '%s' is used but not installed\n", name);
    std::fflush(stderr);
    std::abort();
}

template <typename T>
T& require(const std::shared_ptr<T> Services::*member, const char* name) {
    T* service = nullptr;
    {
        std::lock_guard lock(registryMutex());
        service = (registry().*member).get();
    }
    if (service == nullptr) missing(name);
    return *service;
}

}  // namespace

Services install(Services services) {
    std::lock_guard lock(registryMutex());
    std::swap(registry(), services);
    return services;
}

const Services& installed() { return registry(); }

Dispatch& dispatch() { return require(&Services::dispatch, "dispatch"); }
UserDefaultsService& defaults() { return require(&Services::defaults, "defaults"); }
DistributedNotificationCenter& notifications() {
    return require(&Services::notifications, "notifications");
}
ContentBlockerManager& contentBlocker() {
    return require(&Services::contentBlocker, "contentBlocker");
}
Host& host() { return require(&Services::host, "host"); }
Bundle& bundle() { return require(&Services::bundle, "bundle"); }

void log(LogLevel level, std::string_view message) {
    std::shared_ptr<Log> log;
    {
        std::lock_guard lock(registryMutex());
        log = registry().log;
    }
    if (log) log->write(level, message);
}

}  // namespace stonewall::platform
