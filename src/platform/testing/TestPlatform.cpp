#include "platform/testing/TestPlatform.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

namespace stonewall::platform::testing {

namespace fs = std::filesystem;

namespace {

// A fresh folder of our own under the system temp dir; create_directory
// reports an existing name, so two tests never share one.
std::string makeTemporaryRoot() {
    std::error_code error;
    const fs::path base = fs::temp_directory_path(error);
    std::random_device device;
    std::mt19937_64 random(device());
    for (int attempt = 0; attempt < 100 && !error; ++attempt) {
        char name[40];
        std::snprintf(name, sizeof name, "stonewall-test-%016llx",
                      static_cast<unsigned long long>(random()));
        const fs::path candidate = base / name;
        if (fs::create_directory(candidate, error) && !error) {
            return fs::canonical(candidate, error).string();
        }
    }
    std::fprintf(stderr, "stonewall: cannot make a temporary test folder: %s\n",
                 error.message().c_str());
    std::abort();
}

Services makeServices(const TestPlatform& platform) {
    Services services;
    services.dispatch = platform.dispatch;
    services.defaults = platform.defaults;
    services.notifications = platform.notifications;
    services.contentBlocker = platform.contentBlocker;
    services.host = platform.host;
    services.bundle = platform.bundle;
    services.log = platform.log;
    return services;
}

}  // namespace

TestPlatform::TestPlatform()
    : root_(makeTemporaryRoot()),
      dispatch(std::make_shared<ManualClockDispatch>()),
      defaults(std::make_shared<InMemoryUserDefaultsService>()),
      notifications(std::make_shared<RecordingNotificationCenter>()),
      contentBlocker(std::make_shared<ScriptedContentBlockerManager>()),
      host(std::make_shared<FakeHost>(root_)),
      bundle(std::make_shared<FakeBundle>()),
      log(std::make_shared<CapturingLog>()),
      scope_(makeServices(*this)) {}

TestPlatform::~TestPlatform() {
    std::error_code error;
    fs::remove_all(root_, error);
}

std::string TestPlatform::containerPath() const { return root_ + "/container"; }

}  // namespace stonewall::platform::testing
