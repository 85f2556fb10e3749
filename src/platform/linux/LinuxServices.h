#pragma once

// The real Linux services behind the platform seam, and the one call that
// builds a complete set of them for a program.

#include <optional>
#include <string>

#include "platform/Platform.h"

namespace stonewall::platform::gnulinux {

// The product's application group: the container and the defaults suite.
inline constexpr const char* kApplicationGroup = "K7Q2XJ4M9P.com.mapleharbor.Stonewall";

struct LinuxOptions {
    // The Stonewall group's container; default $STONEWALL_CONTAINER, else
    // $XDG_DATA_HOME/stonewall/containers/<group>.
    std::optional<std::string> containerPath;
    // The bundle's resource folder; default $STONEWALL_RESOURCES, else the
    // installed data folder, else a "resources" folder of the build tree.
    std::optional<std::string> resourcePath;
    // The D-Bus address for notifications; default the session bus.
    std::optional<std::string> busAddress;
    // Debug lines and a copy of every line on stderr; default
    // $STONEWALL_VERBOSE=1.
    std::optional<bool> verbose;
};

// Builds every service from the environment and the options. The result is
// meant to be installed once by main() (platform::install) and to live until
// the process ends; nothing is started before a service is first used.
Services makeLinuxServices(const LinuxOptions& options = {});

}  // namespace stonewall::platform::gnulinux
