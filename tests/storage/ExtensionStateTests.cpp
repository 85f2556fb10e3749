#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "StorageTestSupport.h"
#include "storage/ExtensionState.h"

namespace stonewall {
namespace {

namespace fs = std::filesystem;
using testing::StorageTest;
using testing::writeBytes;

class ExtensionStateTest : public StorageTest {
  protected:
    std::string statePath() const { return platform.rootPath() + "/config/Stonewall/.Data/state"; }
    FileHandler stateFolder() const {
        return FileHandler::initWithName(".Data", FileLocation::kApplicationSupport);
    }
};

TEST_F(ExtensionStateTest, FirstRunSavesTheDefaultsForTheBrowserVersion) {
    const std::vector<std::pair<std::optional<int64_t>, bool>> cases = {
        {std::nullopt, false}, {4, false}, {5, true}};
    for (const auto& [servicesVersion, counter] : cases) {
        SCOPED_TRACE(servicesVersion.value_or(-100));
        fs::remove_all(platform.rootPath() + "/config");
        ExtensionState::resetSharedInstanceForTesting();
        platform.host->setSafariServicesVersion(servicesVersion);

        ExtensionState* state = ExtensionState::sharedInstance();
        ASSERT_NE(state, nullptr);
        EXPECT_FALSE(state->statusUpdated());
        EXPECT_EQ(state->blockingCounter(), counter);
        ASSERT_TRUE(fs::exists(statePath()));
        EXPECT_EQ(stateFolder().unarchiveData("state"),
                  (Archive{{"statusUpdated", false}, {"blockingCounter", counter}}));
        EXPECT_EQ(ExtensionState::sharedInstance(), state);
    }
}

TEST_F(ExtensionStateTest, ASavedStateWinsOverTheDefaultsAndMissingKeysAreFalse) {
    platform.host->setSafariServicesVersion(6);  // default counter: on
    const std::pair<Archive, const char*> cases[] = {
        {{{"statusUpdated", true}, {"blockingCounter", false}},
         "statusUpdated: 1, blockingCounter: 0"},
        {{{"somethingElse", true}}, "statusUpdated: 0, blockingCounter: 0"},
    };
    for (const auto& [saved, description] : cases) {
        ExtensionState::resetSharedInstanceForTesting();
        stateFolder().archiveData("state", saved);
        ExtensionState* state = ExtensionState::sharedInstance();
        ASSERT_NE(state, nullptr);
        EXPECT_EQ(state->description(), description);
    }
}

TEST_F(ExtensionStateTest, AnUndecodableFileLeavesNoInstanceForTheProcess) {
    writeBytes(statePath(), "garbage");
    EXPECT_EQ(ExtensionState::sharedInstance(), nullptr);
    // The file is neither repaired nor read again.
    EXPECT_EQ(stateFolder().readFromFile("state"), "garbage");
    stateFolder().archiveData("state", {{"statusUpdated", true}});
    EXPECT_EQ(ExtensionState::sharedInstance(), nullptr);
    ExtensionState::resetSharedInstanceForTesting();
    EXPECT_NE(ExtensionState::sharedInstance(), nullptr);
}

// When the first save cannot complete (a full disk, simulated with a file
// size limit in a child process), no empty file may stay behind: it would
// make every later start find an undecodable state.
TEST_F(ExtensionStateTest, AFailedFirstSaveLeavesNoFile) {
    ExtensionState state;
    const int result = testing::runInChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
        state.createData();
        return state.checkDataExists() ? 1 : 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(state.checkDataExists());
}

// Level 0 asks whether the services exist at all, whatever their version;
// the version levels are seen through the first run's defaults.
TEST_F(ExtensionStateTest, LevelZeroAsksOnlyWhetherTheServicesExist) {
    platform.host->setSafariServicesVersion(std::nullopt);
    for (const bool available : {true, false}) {
        platform.host->setSafariServicesAvailable(available);
        EXPECT_EQ(ExtensionState::isSafariVersionAvailable(0), available);
    }
}

TEST_F(ExtensionStateTest, ConcurrentFirstCallsMakeOneInstance) {
    std::vector<ExtensionState*> seen(6, nullptr);
    std::vector<std::thread> threads;
    for (auto& slot : seen) {
        threads.emplace_back([&slot] { slot = ExtensionState::sharedInstance(); });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_NE(seen[0], nullptr);
    for (auto* state : seen) EXPECT_EQ(state, seen[0]);
    // Flags may be flipped and read from several threads.
    std::thread writer([&] {
        for (int i = 0; i < 1000; ++i) seen[0]->setBlockingCounter(i % 2 == 0);
    });
    for (int i = 0; i < 1000; ++i) (void)seen[0]->blockingCounter();
    writer.join();
}

}  // namespace
}  // namespace stonewall
