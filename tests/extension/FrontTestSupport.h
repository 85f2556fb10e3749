#pragma once

// The front's tests run on the simulated browser and the recording toolkit,
// over real SQLite files in a fresh temporary container, with every queue
// on the manual clock.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "extension/SafariExtensionViewController.h"
#include "extension/platform/FrontServices.h"
#include "extension/testing/RecordingToolkit.h"
#include "extension/testing/SimulatedBrowser.h"
#include "platform/testing/TestPlatform.h"
#include "storage/ExtensionState.h"
#include "storage/SharedDatabase.h"

namespace stonewall::testing {

inline constexpr const char* kPageURL = "https://www.example.com/news";

class FrontTest : public ::testing::Test {
  public:
    FrontTest()
        : toolkit(std::make_shared<RecordingToolkit>()),
          browser(SimulatedBrowser::create()),
          front_(platform::FrontServices{browser->application(), browser->workspace(), toolkit}) {
        reset();
        platform.contentBlocker->setHoldCompletions(true);
    }
    ~FrontTest() override { reset(); }

    static void reset() {
        SafariExtensionViewController::resetSharedInstanceForTesting();
        ExtensionState::resetSharedInstanceForTesting();
        SharedDatabase::resetSharedInstanceForTesting();
    }

    // The shared controller, made on first use; its popover closes (as the
    // browser's does) 200 ms after the controller dismisses it.
    SafariExtensionViewController& controller() {
        using namespace std::chrono_literals;
        auto& shared = SafariExtensionViewController::sharedInstance();
        if (!popover()->onDismiss) {
            std::weak_ptr<SimulatedBrowser> weakBrowser = browser;
            popover()->onDismiss = [weakBrowser] {
                platform::dispatch().mainQueue().asyncAfter(200ms, [weakBrowser] {
                    if (auto b = weakBrowser.lock()) b->closePopover();
                });
            };
        }
        return shared;
    }
    const std::shared_ptr<RecordingPopoverView>& popover() const { return toolkit->popover(); }

    // Runs what is due, without completing held content-blocker reloads.
    void run() { platform.dispatch->runUntilIdle(); }
    // Completes every reload phase and runs everything that follows,
    // including the popover's closing animation.
    void finish() {
        do {
            platform.contentBlocker->completePending();
            platform.dispatch->advanceBy(std::chrono::seconds(5));
        } while (platform.contentBlocker->pendingCount() > 0);
    }

    void storeTwoProfiles() {
        SharedDatabase::sharedInstance().updateSharedDataDetails(
            {.profiles = "Default Profile,Work", .profileIDs = "defaultProfile,work"});
    }

    // A window on `url` and the popover opened over it, showing view 1.
    std::shared_ptr<SimulatedPage> openPopoverOn(std::optional<std::string> url) {
        auto page = browser->openWindow(std::move(url));
        controller();
        browser->openPopover();
        run();
        return page;
    }

    platform::testing::TestPlatform platform;
    std::shared_ptr<RecordingToolkit> toolkit;
    std::shared_ptr<SimulatedBrowser> browser;

  private:
    platform::ScopedFrontServices front_;
};

}  // namespace stonewall::testing
