#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bundle.h"
#include "platform/Host.h"
#include "platform/Log.h"

namespace stonewall::platform::gnulinux {

// Reads one environment variable; absent when unset.
using EnvironmentLookup = std::function<std::optional<std::string>(const std::string& name)>;
EnvironmentLookup processEnvironment();

// A file or folder of the installed layout, reached from the running
// program's own folder (<prefix>/bin) by `fromBinFolder` ("../share/stonewall"),
// so that the programs work under whatever prefix they were installed to.
// Empty when it does not exist there (a program run from the build tree).
std::string installedPath(const std::string& fromBinFolder);

// The host as the environment describes it, read once at construction. The
// versions default to a current host and can be set to play an older one:
//   STONEWALL_OS_VERSION                 "major[.minor[.patch]]", default 14.4.0
//   STONEWALL_APPKIT_VERSION             a number, default 2487.0
//   STONEWALL_SAFARI_SERVICES_VERSION    an integer or "none", default 6
//   STONEWALL_SAFARI_SERVICES_AVAILABLE  0 or 1 (also false/true, no/yes), default 1
// Folders follow XDG: Documents = $XDG_DATA_HOME (~/.local/share), Caches =
// $XDG_CACHE_HOME (~/.cache), Application Support = $XDG_CONFIG_HOME
// (~/.config); relative XDG values are ignored, as the XDG rules say. Only
// the Stonewall group has a container: $STONEWALL_CONTAINER, else
// "<Documents>/stonewall/containers/K7Q2XJ4M9P.com.mapleharbor.Stonewall".
// A value that does not parse leaves the default and a line in warnings().
class LinuxHost : public Host {
  public:
    explicit LinuxHost(const EnvironmentLookup& environment = processEnvironment(),
                       std::optional<std::string> containerOverride = std::nullopt);

    OperatingSystemVersion operatingSystemVersion() const override { return osVersion_; }
    double appKitVersionNumber() const override { return appKitVersion_; }
    std::optional<int64_t> safariServicesVersion() const override { return servicesVersion_; }
    bool safariServicesAvailable() const override { return servicesAvailable_; }
    std::string homeDirectory() const override { return home_; }
    std::optional<std::string> userDirectory(SearchPathDirectory directory) const override;
    std::optional<std::string> containerPathForApplicationGroup(
        const std::string& groupIdentifier) const override;

    const std::vector<std::string>& warnings() const { return warnings_; }

    // "major[.minor[.patch]]" with decimal digits only.
    static std::optional<OperatingSystemVersion> parseVersion(const std::string& text);

  private:
    OperatingSystemVersion osVersion_{14, 4, 0};
    double appKitVersion_ = 2487.0;
    std::optional<int64_t> servicesVersion_ = 6;
    bool servicesAvailable_ = true;
    std::string home_;
    std::string data_, cache_, config_;
    std::string container_;
    std::vector<std::string> warnings_;
};

// The bundle: resources from the given folder, else $STONEWALL_RESOURCES,
// else the installed data folder (<prefix>/share/stonewall, found from the
// program's folder) when it exists,
// else the first "resources" folder found next to the executable or up to
// three folders above it (the build tree). Texts come from the gettext
// domain "stonewall" in "<resources>/locale" (<lang>/LC_MESSAGES/stonewall.mo)
// under the process's locale (main() calls setlocale); a text without a
// translation is its English key.
class LinuxBundle : public Bundle {
  public:
    static constexpr const char* kTextDomain = "stonewall";

    explicit LinuxBundle(std::optional<std::string> resourcePath = std::nullopt,
                         const EnvironmentLookup& environment = processEnvironment());

    std::string resourcePath() const override { return resourcePath_; }
    std::string shortVersionString() const override;
    std::string localizedString(const std::string& key) const override;

  private:
    std::string resourcePath_;
};

}  // namespace stonewall::platform::gnulinux
