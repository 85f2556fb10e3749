// A second process for the shared-defaults tests: writes `count` keys
// "<prefix>-<i>" = i into the suite file at `path`, synchronising after each.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/linux/FileUserDefaults.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s PATH PREFIX COUNT\n", argv[0]);
        return 2;
    }
    stonewall::platform::gnulinux::FileUserDefaults defaults(argv[1]);
    const int count = std::atoi(argv[3]);
    for (int i = 0; i < count; ++i) {
        defaults.setInteger(i, std::string(argv[2]) + "-" + std::to_string(i));
        if (!defaults.synchronize()) return 1;
    }
    return 0;
}
