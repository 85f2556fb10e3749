// Fills a container's profile database with generated rows, for the
// whole-process benchmarks (speed.py):
//
//   bench_make_profile CONTAINER ROWS [PROFILE]     PROFILE: defaultProfile
//
// The container is made from the templates when missing, as stonewall makes
// it; the rows come from ProfileGenerator (the same seed, the same rows).

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ProfileGenerator.h"
#include "platform/testing/TestPlatform.h"
#include "storage/ProfileDatabase.h"

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4) {
        std::fprintf(stderr, "usage: %s CONTAINER ROWS [PROFILE]\n", argv[0]);
        return 1;
    }
    setenv("STONEWALL_RESOURCES", STONEWALL_BENCH_RESOURCES, 0);
    stonewall::platform::testing::TestPlatform platform;
    platform.host->setContainerPath(stonewall::platform::testing::kTestApplicationGroup, argv[1]);
    const std::string profile = argc == 4 ? argv[3] : "defaultProfile";
    auto database = stonewall::ProfileDatabase::initWithBlockerProfileID(profile);
    stonewall::ProfileGenerator().fillDatabase(*database, std::strtoull(argv[2], nullptr, 10));
    const auto rows = database->getProfileRulesCount();
    std::printf("%lld rows in profile %s\n", static_cast<long long>(rows), profile.c_str());
    return rows > 0 ? 0 : 1;
}
