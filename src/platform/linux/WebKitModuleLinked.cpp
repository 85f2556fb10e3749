#include "platform/linux/WebKitModule.h"

namespace stonewall::platform::gnulinux {

const StonewallWebKitModule* openWebKitModule(std::string& /*failure*/) {
    return stonewall_webkit_module();
}

}  // namespace stonewall::platform::gnulinux
