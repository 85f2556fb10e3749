#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "platform/RuleListSplit.h"
#include "platform/linux/CompiledRuleListCache.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/WebKitContentBlockerManager.h"
#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::gnulinux {
namespace {

namespace fs = std::filesystem;
using Manager = WebKitContentBlockerManager;

constexpr const char* kBlockRule =
    R"([{"trigger":{"url-filter":"ads\\.example\\.com"},"action":{"type":"block"}}])";

class WebKitContentBlockerManagerTest : public ::testing::Test {
  protected:
    testing::TestPlatform platform;
    std::string container = platform.containerPath();
    std::string defaultsPath = container + "/Library/Preferences/suite.json";
    Manager manager{container, defaultsPath, platform.log};

    void setDefaults(std::optional<std::string> profile, std::optional<int64_t> status) {
        FileUserDefaults defaults(defaultsPath);
        if (profile) defaults.setObject(*profile, "activeProfileID");
        if (status) defaults.setInteger(*status, "blockingStatus");
        ASSERT_TRUE(defaults.synchronize());
    }
    void writeRuleList(const std::string& profile, const std::string& json) {
        fs::create_directories(container + "/.Profiles");
        std::ofstream(container + "/.Profiles/profile_" + profile + "_unarchive.json") << json;
    }
    std::optional<Error> reload(
        const std::string& identifier = Manager::kContentBlockerIdentifier) {
        std::promise<std::optional<Error>> completed;
        auto result = completed.get_future();
        std::atomic<int> calls{0};
        manager.reloadContentBlockerWithIdentifier(identifier, [&](std::optional<Error> error) {
            if (++calls == 1) completed.set_value(std::move(error));
        });
        if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
            ADD_FAILURE() << "the reload never completed";
            std::abort();
        }
        auto error = result.get();
        EXPECT_EQ(calls.load(), 1);
        return error;
    }
};

TEST_F(WebKitContentBlockerManagerTest, TheSynchronousHelperWorksFromAnyThread) {
    const std::string store = platform.rootPath() + "/store";
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            if (Manager::compileRuleList(store, "thread" + std::to_string(t), kBlockRule))
                ++failures;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(Manager::compileRuleList(store, "", kBlockRule)->domain, Manager::kErrorDomain);
}

TEST_F(WebKitContentBlockerManagerTest, ListsCompiledBeforeAreWhatWebKitLoadsByThePartIdentifiers) {
    // The cache relies on WebKit's file names: the current list must be the
    // very file WebKit wrote for the entry, and load as the identifier's.
    const CompiledRuleListCache names(manager.storePath(), nullptr, nullptr);
    const std::string id = Manager::kContentBlockerIdentifier;
    setDefaults("p", 1);
    writeRuleList("p", kBlockRule);
    for (int64_t status : {1, 1, 2, 1}) {
        SCOPED_TRACE("blockingStatus " + std::to_string(status));
        setDefaults(std::nullopt, status);
        ASSERT_EQ(reload(), std::nullopt);
        const std::string source = status == 2 ? Manager::kAllowEverythingRuleList : kBlockRule;
        const auto parts = platform::splitRuleList(source);
        ASSERT_TRUE(parts);
        for (size_t index = 0; index < parts->size(); ++index) {
            const std::string part = platform::ruleListPartIdentifier(id, index);
            EXPECT_TRUE(fs::equivalent(names.currentListPath(part),
                                       names.entryPath(part, (*parts)[index].json)));
            EXPECT_EQ(Manager::lookUpRuleList(manager.storePath(), part), std::nullopt);
        }
    }
}

TEST_F(WebKitContentBlockerManagerTest, ReloadOutcomes) {
    const std::string id = Manager::kContentBlockerIdentifier;
    struct Case {
        const char* name;
        std::optional<std::string> profile;
        std::optional<int64_t> status;
        std::string identifier;
        std::optional<Error> error;  // with a part of the message
    };
    const auto our = [](int64_t code, std::string part) {
        return Error{Manager::kErrorDomain, code, std::move(part)};
    };
    const Case cases[] = {
        // Blocking off: no list is read, nor a profile needed.
        {"blocking off, no profile", std::nullopt, 2, id, std::nullopt},
        {"unknown identifier", "p", std::nullopt, "com.example.unknown",
         our(Manager::kUnknownIdentifier, "com.example.unknown")},
        {"no active profile", std::nullopt, std::nullopt, id,
         our(Manager::kNoActiveProfile, "No active profile")},
        {"missing list", "absent", std::nullopt, id,
         our(Manager::kRuleListMissing, "profile_absent_unarchive.json does not exist")},
        {"profile naming a path", "../../etc", std::nullopt, id,
         our(Manager::kNoActiveProfile, "cannot name a rule list")},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        fs::remove(defaultsPath);
        setDefaults(test.profile, test.status);
        // Only what was synchronised counts.
        FileUserDefaults(defaultsPath).setObject("not-yet-synced", "activeProfileID");
        const auto error = reload(test.identifier);
        if (!test.error) {
            EXPECT_EQ(error, std::nullopt);
            continue;
        }
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->domain, Manager::kErrorDomain);
        EXPECT_EQ(error->code, test.error->code);
        EXPECT_NE(error->message.find(test.error->message), std::string::npos) << error->message;
    }
    EXPECT_EQ(manager.storePath(), container + "/Library/ContentBlockers");
}

}  // namespace
}  // namespace stonewall::platform::gnulinux
