#pragma once

#include <memory>
#include <string_view>

#include "platform/Bundle.h"
#include "platform/ContentBlockerManager.h"
#include "platform/Dispatch.h"
#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"
#include "platform/UserDefaults.h"

namespace stonewall::platform {

// The process-wide services. One set is installed per process, by main() or
// a test fixture, before the engine is used; the library never picks
// concrete services itself.
struct Services {
    std::shared_ptr<Dispatch> dispatch;
    std::shared_ptr<UserDefaultsService> defaults;
    std::shared_ptr<DistributedNotificationCenter> notifications;
    std::shared_ptr<ContentBlockerManager> contentBlocker;
    std::shared_ptr<Host> host;
    std::shared_ptr<Bundle> bundle;
    std::shared_ptr<Log> log;
};

// Replaces the installed set and returns the previous one.
Services install(Services services);
const Services& installed();

// Accessors for the installed services; using one that is not installed is a
// programming error and aborts with a message naming it.
Dispatch& dispatch();
UserDefaultsService& defaults();
DistributedNotificationCenter& notifications();
ContentBlockerManager& contentBlocker();
Host& host();
Bundle& bundle();

// Writes to the installed log; does nothing when none is installed.
void log(LogLevel level, std::string_view message);

// Installs a set for the lifetime of the object and restores the previous
// one afterwards (tests).
class ScopedServices {
  public:
    explicit ScopedServices(Services services) : previous_(install(std::move(services))) {}
    ~ScopedServices() { install(std::move(previous_)); }
    ScopedServices(const ScopedServices&) = delete;
    ScopedServices& operator=(const ScopedServices&) = delete;

  private:
    Services previous_;
};

}  // namespace stonewall::platform
