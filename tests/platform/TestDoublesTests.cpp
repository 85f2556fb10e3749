#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::testing {
namespace {

TEST(InMemoryUserDefaults, RecordsEveryWriteInOrderAndKeepsTypesApart) {
    InMemoryUserDefaultsService service;
    auto suite = service.suiteNamed(kTestApplicationGroup);
    EXPECT_EQ(suite, service.suiteNamed(kTestApplicationGroup));
    EXPECT_NE(suite, service.suiteNamed("other"));

    suite->setObject("abc", "activeProfileID");
    suite->setInteger(1, "blockerReloadType");
    suite->setInteger(2, "blockerReloadType");
    suite->removeObjectForKey("activeProfileID");
    EXPECT_TRUE(suite->synchronize());

    const auto typed = service.suite(kTestApplicationGroup);
    EXPECT_EQ(typed->writes(), (std::vector<DefaultsWrite>{
                                   {"activeProfileID", std::string("abc")},
                                   {"blockerReloadType", int64_t{1}},
                                   {"blockerReloadType", int64_t{2}},
                                   {"activeProfileID", std::monostate{}},
                               }));
    EXPECT_EQ(typed->synchronizeCount(), 1);
    EXPECT_EQ(suite->integerForKey("blockerReloadType"), 2);
    EXPECT_EQ(suite->stringForKey("blockerReloadType"), std::nullopt);
    EXPECT_EQ(suite->stringForKey("activeProfileID"), std::nullopt);
    suite->setObject("7", "text");
    EXPECT_EQ(suite->integerForKey("text"), std::nullopt);

    typed->setSynchronizeResultForTesting(false);
    EXPECT_FALSE(suite->synchronize());
    EXPECT_EQ(typed->synchronizeCount(), 2);
}

TEST(RecordingNotificationCenter, DeliversToObserversOfThatNameUntilTheTokenGoes) {
    RecordingNotificationCenter center;
    std::vector<std::string> received;
    auto token = center.addObserver("extensionUpdate",
                                    [&](const std::string& name, const std::string& object) {
                                        received.push_back(name + "/" + object);
                                    });
    ASSERT_NE(token, nullptr);
    center.postNotificationName("extensionUpdate", "StonewallExtension");
    center.postNotificationName("other", "x");
    EXPECT_EQ(received, std::vector<std::string>{"extensionUpdate/StonewallExtension"});

    token.reset();
    center.postNotificationName("extensionUpdate", "again");
    EXPECT_EQ(received.size(), 1u);
    EXPECT_EQ(center.observerCount(), 0u);
    EXPECT_EQ(center.posted(), (std::vector<PostedNotification>{
                                   {"extensionUpdate", "StonewallExtension"},
                                   {"other", "x"},
                                   {"extensionUpdate", "again"},
                               }));

    center.setObservableForTesting(false);
    EXPECT_EQ(center.addObserver("extensionUpdate", [](const auto&, const auto&) {}), nullptr);
}

TEST(RecordingNotificationCenter, AnObserverMayPostFromItsCallback) {
    RecordingNotificationCenter center;
    int calls = 0;
    auto token = center.addObserver("ping", [&](const std::string&, const std::string&) {
        if (++calls == 1) center.postNotificationName("ping", "echo");
    });
    center.postNotificationName("ping", "first");
    EXPECT_EQ(calls, 2);
}

TEST(ScriptedContentBlockerManager, CompletesWithScriptedResultsThenSuccessOrWhenReleased) {
    ScriptedContentBlockerManager manager;
    const Error failure{"WKErrorDomain", 6, "Rule list compilation failed"};
    manager.scriptResults({std::nullopt, failure});
    std::vector<std::string> seen;
    manager.onReload = [&](const std::string& identifier) { seen.push_back(identifier); };

    std::vector<std::optional<Error>> results;
    for (int i = 0; i < 3; ++i) {
        manager.reloadContentBlockerWithIdentifier(
            "blocker", [&](std::optional<Error> error) { results.push_back(std::move(error)); });
    }
    EXPECT_EQ(results, (std::vector<std::optional<Error>>{std::nullopt, failure, std::nullopt}));
    EXPECT_EQ(manager.calls(), (std::vector<std::string>{"blocker", "blocker", "blocker"}));
    EXPECT_EQ(seen.size(), 3u);
    manager.reloadContentBlockerWithIdentifier("blocker", nullptr);  // absent handler is fine

    // Held completions wait, and follow-up requests complete too.
    manager.setHoldCompletions(true);
    std::vector<int> completed;
    manager.reloadContentBlockerWithIdentifier("blocker", [&](std::optional<Error>) {
        completed.push_back(1);
        // A second phase issued from the completion, as the reload does.
        manager.reloadContentBlockerWithIdentifier(
            "blocker", [&](std::optional<Error>) { completed.push_back(2); });
    });
    EXPECT_TRUE(completed.empty());
    EXPECT_EQ(manager.pendingCount(), 1u);
    EXPECT_EQ(manager.completePending(), 2u);
    EXPECT_EQ(completed, (std::vector<int>{1, 2}));
    EXPECT_EQ(manager.pendingCount(), 0u);
}

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
