// The engine on the real Linux services: real threads and main loop, the
// file-backed defaults suite, and WebKitGTK's content-rule compiler standing
// in for the browser. What the compiler writes must be a list WebKit accepts.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "ProfileGenerator.h"
#include "engine/CompanionController.h"
#include "platform/RuleListSplit.h"
#include "platform/linux/LinuxServices.h"
#include "platform/linux/WebKitContentBlockerManager.h"
#include "platform/testing/TestPlatform.h"
#include "storage/SharedDatabase.h"
#include "support/MainLoopWatchdog.h"

namespace stonewall {
namespace {

using Manager = platform::gnulinux::WebKitContentBlockerManager;
constexpr std::chrono::seconds kLimit{60};

class LinuxServicesTest : public ::testing::Test {
  protected:
    LinuxServicesTest() : scope_(makeServices()) {
        SharedDatabase::resetSharedInstanceForTesting();
    }
    ~LinuxServicesTest() override { SharedDatabase::resetSharedInstanceForTesting(); }

    std::string container() const { return temporary_.containerPath(); }

  private:
    platform::Services makeServices() {
        platform::gnulinux::LinuxOptions options;
        options.containerPath = temporary_.containerPath();
        const char* resources = std::getenv("STONEWALL_RESOURCES");
        if (resources) options.resourcePath = resources;
        // No bus here: notifications are dropped, as the service promises.
        options.busAddress = "unix:path=" + temporary_.rootPath() + "/no-bus";
        options.verbose = false;
        return platform::gnulinux::makeLinuxServices(options);
    }

    platform::testing::TestPlatform temporary_;  // only for its temporary folder
    platform::ScopedServices scope_;
};

TEST_F(LinuxServicesTest, WebKitAcceptsARealisticProfile) {
    CompanionController controller;
    ASSERT_TRUE(controller.sharedData());
    const NullableString profileID = controller.sharedData()->activeProfileID;
    ProfileGenerator generator;
    generator.fillDatabase(*controller.activeDatabase(), 1500);

    CompileReport report;
    CompanionController::writeProfileRules(profileID, controller.activeDatabase(), &report);
    ASSERT_TRUE(report.fileWritten);
    EXPECT_GT(report.rulesWritten, 1000);

    // The outcome comes once, on the main loop; a second one would arrive on
    // the loop too, so it runs a little longer after the first.
    std::optional<Error> error;
    int calls = 0;
    bool onMain = false;
    CompanionController::reloadBlockerRules(
        profileID, controller.activeDatabase(), [&](std::optional<Error> outcome) {
            ++calls;
            error = std::move(outcome);
            onMain = platform::dispatch().mainQueue().isCurrent();
            platform::dispatch().mainQueue().asyncAfter(std::chrono::milliseconds(300),
                                                        [] { platform::dispatch().stopMain(); });
        });
    ASSERT_TRUE(test_support::runMainWithWatchdog(platform::dispatch(), kLimit))
        << "the reload never completed";
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(onMain);
    EXPECT_FALSE(error) << error->domain << " " << error->code << " " << error->message;
    auto suite = platform::defaults().suiteNamed(platform::testing::kTestApplicationGroup);
    suite->synchronize();
    EXPECT_EQ(suite->integerForKey("blockerReloadType"), 2);
    for (size_t part = 0; part < platform::kRuleListParts; ++part) {
        EXPECT_FALSE(Manager::lookUpRuleList(
            Manager::storePathForContainer(container()),
            platform::ruleListPartIdentifier(Manager::kContentBlockerIdentifier, part)));
    }
}

}  // namespace
}  // namespace stonewall
