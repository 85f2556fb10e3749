#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/Dispatch.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"

namespace stonewall::platform::gnulinux {

// Distributed notifications as D-Bus signals on the session bus: every
// notification is the signal
//   path "/com/mapleharbor/Stonewall", interface
//   "com.mapleharbor.Stonewall.Notifications", member "Notification",
//   arguments (name, object) as two strings,
// sent to no destination (a broadcast). Observers subscribe with a match on
// that interface, member and path and on the first argument (the name).
//
// The bus is $DBUS_SESSION_BUS_ADDRESS, else "$XDG_RUNTIME_DIR/bus" when
// that socket exists, else none (no autolaunch). All D-Bus work runs on a
// thread of the center's own, started on first use. Connecting gives up
// after `connectTimeout`; a post that cannot reach a bus is dropped with a
// debug log line, never blocks the caller and is never an error. A closed
// bus is reconnected by the next post; observers made before are not.
class DBusNotificationCenter : public DistributedNotificationCenter {
  public:
    static constexpr const char* kObjectPath = "/com/mapleharbor/Stonewall";
    static constexpr const char* kInterface = "com.mapleharbor.Stonewall.Notifications";
    static constexpr const char* kMember = "Notification";

    // `address` overrides the session bus. Observers are called on
    // dispatch's main queue.
    DBusNotificationCenter(std::shared_ptr<Dispatch> dispatch, std::shared_ptr<Log> log,
                           std::optional<std::string> address = std::nullopt,
                           std::chrono::milliseconds connectTimeout = std::chrono::seconds(2));
    // Sends what was posted (waiting for a connection under way, within its
    // timeout) before it returns.
    ~DBusNotificationCenter() override;

    void postNotificationName(const std::string& name, const std::string& object) override;
    // Waits (within the connect timeout) until the match is in place, so a
    // notification posted after this returns is seen. Null without a bus.
    std::shared_ptr<void> addObserver(const std::string& name, Observer observer) override;

    // The bus address in use from the environment; absent when there is none.
    static std::optional<std::string> sessionBusAddress();

    struct Bus;

  private:
    std::shared_ptr<Bus> bus_;
};

}  // namespace stonewall::platform::gnulinux
