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

// The first run saves the defaults for the browser version; a saved state
// wins over them, with missing keys read as false.
TEST_F(ExtensionStateTest, TheSavedStateOrTheDefaultsForTheBrowserVersion) {
    struct Case {
        std::optional<Archive> saved;
        std::optional<int64_t> servicesVersion;
        bool statusUpdated, blockingCounter;
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt, false, false},
        {std::nullopt, 4, false, false},
        {std::nullopt, 5, false, true},
        {Archive{{"statusUpdated", true}, {"blockingCounter", false}}, 5, true, false},
        {Archive{{"somethingElse", true}}, 5, false, false},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.servicesVersion.value_or(-100));
        fs::remove_all(platform.rootPath() + "/config");
        ExtensionState::resetSharedInstanceForTesting();
        platform.host->setSafariServicesVersion(test.servicesVersion);
        if (test.saved) stateFolder().archiveData("state", *test.saved);

        ExtensionState* state = ExtensionState::sharedInstance();
        ASSERT_NE(state, nullptr);
        EXPECT_EQ(state->statusUpdated(), test.statusUpdated);
        EXPECT_EQ(state->blockingCounter(), test.blockingCounter);
        EXPECT_EQ(stateFolder().unarchiveData("state"),
                  test.saved.value_or(Archive{{"statusUpdated", false},
                                              {"blockingCounter", test.blockingCounter}}));
        EXPECT_EQ(ExtensionState::sharedInstance(), state);
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
