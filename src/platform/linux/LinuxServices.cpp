#include "platform/linux/LinuxServices.h"

#include <filesystem>

#include "platform/linux/DBusNotificationCenter.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/GnomeWebFilters.h"
#include "platform/linux/LinuxDispatch.h"
#include "platform/linux/LinuxHost.h"
#include "platform/linux/SystemLog.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::platform::gnulinux {

Services makeLinuxServices(const LinuxOptions& options) {
    const EnvironmentLookup environment = processEnvironment();
    const bool verbose = options.verbose.value_or(environment("STONEWALL_VERBOSE") == "1");

    auto log = std::make_shared<SystemLog>(verbose);
    auto host = std::make_shared<LinuxHost>(environment, options.containerPath);
    for (const auto& warning : host->warnings()) log->write(LogLevel::Error, warning);

    const std::string container = *host->containerPathForApplicationGroup(kApplicationGroup);
    const std::string preferences =
        (std::filesystem::path(*host->userDirectory(SearchPathDirectory::ApplicationSupport)) /
         "stonewall" / "preferences")
            .string();
    auto defaults = std::make_shared<FileUserDefaultsService>(
        [host](const std::string& group) { return host->containerPathForApplicationGroup(group); },
        preferences);

    auto dispatch = std::make_shared<LinuxDispatch>();

    Services services;
    services.dispatch = dispatch;
    services.defaults = defaults;
    services.notifications =
        std::make_shared<DBusNotificationCenter>(dispatch, log, options.busAddress);
    // Every reload also reaches GNOME Web when the user asked for that.
    services.contentBlocker = std::make_shared<GnomeWebPublishingContentBlocker>(
        std::make_shared<WebKitContentBlockerManager>(
            container, defaults->pathForSuite(kApplicationGroup), log),
        container, defaults->pathForSuite(kApplicationGroup), log);
    services.host = host;
    services.bundle = std::make_shared<LinuxBundle>(options.resourcePath, environment);
    services.log = log;
    return services;
}

}  // namespace stonewall::platform::gnulinux
