#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::testing {
namespace {

TEST(TestPlatform, InstallsItsDoublesAndRestoresThePreviousSetWithItsRootRemoved) {
    std::string root;
    {
        TestPlatform outer;
        {
            TestPlatform inner;
            root = inner.rootPath();
            EXPECT_TRUE(std::filesystem::is_directory(root));
            EXPECT_EQ(&platform::dispatch(), inner.dispatch.get());
            EXPECT_EQ(&platform::host(), inner.host.get());
            EXPECT_EQ(platform::host().containerPathForApplicationGroup(kTestApplicationGroup),
                      inner.containerPath());
            EXPECT_EQ(inner.containerPath(), root + "/container");
            EXPECT_EQ(platform::host().containerPathForApplicationGroup("unknown.group"),
                      std::nullopt);
            platform::log(LogLevel::Debug, "hello");
            EXPECT_TRUE(inner.log->contains("hello"));
            EXPECT_NE(outer.rootPath(), inner.rootPath());
        }
        EXPECT_FALSE(std::filesystem::exists(root));
        EXPECT_EQ(&platform::dispatch(), outer.dispatch.get());
    }
    EXPECT_EQ(platform::installed().dispatch, nullptr);
    platform::log(LogLevel::Error, "dropped without a log");
}

TEST(PlatformRegistryDeathTest, UsingAServiceThatIsNotInstalledAbortsNamingIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH((void)platform::contentBlocker(), "contentBlocker");
}

}  // namespace
}  // namespace stonewall::platform::testing
