// Construction, blocking on/off and profile activation.

#include "EngineTestSupport.h"

namespace stonewall::testing {
namespace {

using platform::testing::DefaultsWrite;

class LifecycleTest : public EngineTest {
  protected:
    SharedData stored() {
        auto data = SharedDatabase::sharedInstance().getSharedData();
        EXPECT_TRUE(data);
        return data.value_or(SharedData{});
    }
};

TEST_F(LifecycleTest, InitReadsTheSharedRecordAndSyncSeesOtherWriters) {
    storeSharedData(sharedDataWith("start"));
    CompanionController controller;
    ASSERT_TRUE(controller.sharedData());
    EXPECT_EQ(controller.sharedData()->activeProfileID, "start");
    EXPECT_EQ(controller.activeDatabase()->profilesFileName(), "profile_start_data");
    // Another writer's change is seen only at the next sync.
    storeSharedData(sharedDataWith("elsewhere", "1,0,-1", 0));
    EXPECT_EQ(controller.sharedData()->activeProfileID, "start");
    controller.syncShared();
    EXPECT_EQ(controller.sharedData()->activeProfileID, "elsewhere");
    EXPECT_EQ(controller.sharedData()->domainStatus, "1,0,-1");
    EXPECT_EQ(controller.sharedData()->status, 0);
}

TEST_F(LifecycleTest, ChangeStatusFlipsBlockingAndNotifiesAfterTheStoredChange) {
    // Stored status -> (stored after one change, blockingStatus); an unknown
    // status turns blocking off.
    const std::tuple<int64_t, int64_t, int64_t> cases[] = {{1, 0, 2}, {0, 1, 1}, {5, 0, 2}};
    for (const auto& [before, after, blockingStatus] : cases) {
        SCOPED_TRACE(before);
        storeSharedData(sharedDataWith("p", "-1,-1,-1", before));
        suite()->clearWrites();
        CompanionController controller;
        std::optional<int64_t> statusSeenByReceiver;
        auto token = platform.notifications->addObserver(
            "extensionUpdate", [&](const std::string&, const std::string& object) {
                EXPECT_EQ(object, "StonewallExtension");
                statusSeenByReceiver = SharedDatabase::sharedInstance().getSharedData()->status;
            });
        int completions = 0;
        controller.changeStatus([&](std::optional<Error> error) {
            EXPECT_FALSE(error);
            ++completions;
        });
        EXPECT_EQ(completions, 1) << "the handler is called before returning";
        EXPECT_EQ(stored().status, after);
        EXPECT_EQ(statusSeenByReceiver, after);
        EXPECT_EQ(suite()->writes(),
                  (std::vector<DefaultsWrite>{{"blockingStatus", blockingStatus}}));
        EXPECT_GE(suite()->synchronizeCount(), 1);
    }
}

TEST_F(LifecycleTest, WithoutASharedRecordNothingIsStoredButTheHandlerRuns) {
    storeSharedData(sharedDataWith("kept"));
    CompanionController controller;
    controller.setSharedData(std::nullopt);
    int completions = 0;
    controller.changeStatus([&](std::optional<Error>) { ++completions; });
    controller.activateProfile(std::string("other"), [&](std::optional<Error>) { ++completions; });
    controller.updateWebsitesStatusShared(5);
    EXPECT_EQ(completions, 2);
    EXPECT_EQ(stored().activeProfileID, "kept");
    EXPECT_EQ(stored().status, 1);
    EXPECT_EQ(updateNotificationCount(), 0u);
    EXPECT_FALSE(suite()->integerForKey("blockingStatus"));
}

TEST_F(LifecycleTest, ActivateProfileKeepsTheOldDatabaseUntilConnect) {
    storeSharedData(sharedDataWith("old"));
    CompanionController controller;
    const auto oldDatabase = controller.activeDatabase();
    int completions = 0;
    controller.activateProfile(std::string("new"), [&](std::optional<Error> error) {
        EXPECT_FALSE(error);
        ++completions;
    });
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(updateNotificationCount(), 1u);
    EXPECT_EQ(stored().activeProfileID, "new");
    EXPECT_EQ(controller.activeDatabase(), oldDatabase);

    controller.connectProfileDatabase();
    EXPECT_EQ(controller.activeDatabase()->profilesFileName(), "profile_new_data");
    EXPECT_TRUE(platform.contentBlocker->calls().empty()) << "activation does not reload";
}

}  // namespace
}  // namespace stonewall::testing
