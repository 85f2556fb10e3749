// The database files in the shared container can be written by any program
// of the user. The input bytes become both the profile database and the
// shared database; every read and one write of each runs on them. Whatever
// the bytes, nothing may crash, hang or read out of bounds (the classes
// repair what they cannot read from the templates).

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include "platform/testing/TestPlatform.h"
#include "storage/ProfileDatabase.h"
#include "storage/SharedDatabase.h"

namespace {

using namespace stonewall;

struct FuzzEnvironment {
    FuzzEnvironment() {
        // The test bundle reads its resource folder from the environment; a
        // memory-backed temporary folder keeps the file writes cheap.
        setenv("STONEWALL_RESOURCES", STONEWALL_FUZZ_RESOURCES, /*overwrite=*/0);
        if (std::filesystem::is_directory("/dev/shm")) setenv("TMPDIR", "/dev/shm", 0);
        platform = std::make_unique<platform::testing::TestPlatform>();
        // The same services without the capturing log, which would grow with
        // every execution.
        platform::Services services = platform::installed();
        services.log.reset();
        quiet = std::make_unique<platform::ScopedServices>(std::move(services));
        profilePath = platform->containerPath() + "/.Profiles/profile_fuzz_data";
        sharedPath = platform->containerPath() + "/.Shared/shared_data";
        std::filesystem::create_directories(platform->containerPath() + "/.Profiles");
        std::filesystem::create_directories(platform->containerPath() + "/.Shared");
    }

    std::unique_ptr<platform::testing::TestPlatform> platform;
    std::unique_ptr<platform::ScopedServices> quiet;
    std::string profilePath;
    std::string sharedPath;
};

// Destroyed at exit, which removes the temporary folder with it.
FuzzEnvironment& environment() {
    static FuzzEnvironment instance;
    return instance;
}

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

size_t touch(const NullableString& text) { return text ? text->size() : 0; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    (void)environment();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& env = environment();
    writeFile(env.profilePath, data, size);
    writeFile(env.sharedPath, data, size);
    // Keep the results alive and looked at, so nothing is optimised away.
    volatile size_t sink = 0;

    {
        auto database = ProfileDatabase::initWithBlockerProfileID("fuzz");
        for (int64_t type = 0; type <= 8; ++type) {
            for (const auto& rule : database->getProfileRulesByQueryType(type)) {
                sink = sink + touch(rule.filter) + touch(rule.selector);
            }
        }
        // The compiler's read: on a connection of its own, the rows taken.
        database->readAlone([&] {
            for (int64_t action = 0; action <= 8; ++action) {
                sink = sink + database->getProfileRulesByAction(action).size();
                ProfileRule taken;
                (void)database->forEachProfileRuleByAction(action, [&](ProfileRule& rule) {
                    std::swap(taken, rule);
                    sink = sink + touch(taken.domains) + touch(taken.ruleID);
                });
            }
        });
        const int64_t lists[] = {5, 7, 3};
        for (const auto& first : database->getFirstProfileRulesByActions(lists)) {
            if (first) sink = sink + touch(first->domains);
        }
        sink = sink + database->getProfileRulesByActionAndType(1, 1).size();
        sink = sink + static_cast<size_t>(database->getProfileRulesCount());
        ProfileRule rule;
        rule.ruleID = "fuzz";
        rule.action = 5;
        database->updateProfileRules({rule});
    }

    {
        auto& shared = SharedDatabase::sharedInstance();
        if (const auto record = shared.getSharedData()) {
            sink = sink + touch(record->activeProfileID) + touch(record->domainStatus);
        }
        for (const auto& rule : shared.getSharedCustomRules()) {
            sink = sink + touch(rule.filterDomain) + touch(rule.ruleName);
        }
        sink = sink + (shared.verifySharedData() ? 1 : 0);
        SharedData record;
        record.status = 0;
        shared.updateSharedDataDetails(record);
        SharedDatabase::resetSharedInstanceForTesting();
    }
    // Damaged inputs are moved aside, never deleted: clear them so that a
    // long run does not fill the folder.
    for (const std::filesystem::path& folder :
         {std::filesystem::path(env.profilePath).parent_path(),
          std::filesystem::path(env.sharedPath).parent_path()}) {
        std::error_code error;
        for (const auto& item : std::filesystem::directory_iterator(folder, error)) {
            if (item.path().filename().string().find(".damaged-") != std::string::npos) {
                std::filesystem::remove_all(item.path(), error);
            }
        }
    }
    return 0;
}
