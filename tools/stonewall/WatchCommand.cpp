// watch: the "extensionUpdate" notifications the main application listens to.

#include <chrono>
#include <ctime>
#include <iostream>

#include "Commands.h"
#include "Failure.h"
#include "platform/Platform.h"

namespace stonewall::tool {
namespace {

enum class TimeZone { UTC, Local };

std::string timestamp(TimeZone zone) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    const bool utc = zone == TimeZone::UTC;
    std::tm parts{};
    if (utc) {
        gmtime_r(&seconds, &parts);
    } else {
        localtime_r(&seconds, &parts);
    }
    char buffer[64];
    std::strftime(buffer, sizeof buffer, utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    char result[80];
    std::snprintf(result, sizeof result, utc ? "%s.%03dZ" : "%s.%03d", buffer,
                  static_cast<int>(milliseconds));
    return result;
}

}  // namespace

void runWatch(const CommonOptions& common, std::optional<int64_t> count, Report& report) {
    if (count && *count < 1) {
        throw CommandFailure(ExitCode::BadInput, "--count " + std::to_string(*count),
                             message(N_("must be at least 1")));
    }
    Session session(common, Session::Signals::StopMainLoop);
    const std::string name(kExtensionUpdateNotification);

    int64_t seen = 0;
    const bool json = common.json;
    // Called on the main queue, which this thread runs.
    auto token = platform::notifications().addObserver(
        name, [&](const std::string& notification, const std::string& object) {
            ++seen;
            if (json) {
                Json line = Json::object();
                line["time"] = timestamp(TimeZone::UTC);
                line["name"] = notification;
                line["object"] = object;
                std::cout << compactJSON(line) << std::endl;
            } else {
                std::cout << timestamp(TimeZone::Local) << "  " << withoutControls(notification)
                          << "  " << withoutControls(object) << std::endl;
            }
            if (count && seen >= *count) session.stop();
        });
    if (!token) {
        throw CommandFailure(ExitCode::Unavailable, "watch",
                             message(N_("notifications cannot be observed here (no D-Bus session "
                                        "bus; check DBUS_SESSION_BUS_ADDRESS)")));
    }
    // Scripts wait for this line before they send the first notification; it
    // stays in English in every locale.
    std::cerr << "stonewall: watching for \"" << name << "\" notifications; press Ctrl-C to stop"
              << std::endl;

    session.runUntilStopped();
    token.reset();
    // The notifications went out as they came; a summary would break the
    // one-line-per-notification stream that scripts read.
    (void)report;
}

}  // namespace stonewall::tool
