#pragma once

// The popover's controller and the one long-lived object of the extension
// process. It owns the engine (CompanionController), the per-page blocked
// request counts (BlockingStatController) and a reference to the archived
// extension state; it shows one of six views at a time, turns the user's
// presses into engine calls, drives the toolbar image and reloads the active
// page when rules change.
//
// Views (ExtensionView): main, picking, profile, website confirmation,
// reloading, error. Toolbar images (ToolbarImage): normal, reloading, off.
// View switches are dropped while the popover is not visible.
//
// Threads: actions arrive on the main thread; changeToolbarImage and
// processCompletedAction may run on whichever thread delivered a completion.
// No locks: the state below is touched as the browser serialises its calls.
//
// Needs the process services (platform/Platform.h) and the front services
// (extension/platform/FrontServices.h) installed before first use.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/BlockingStatController.h"
#include "engine/CompanionController.h"
#include "extension/ExtensionButton.h"
#include "extension/platform/SafariServices.h"
#include "extension/platform/Toolkit.h"
#include "storage/ExtensionState.h"
#include "utilities/Nullable.h"

namespace stonewall {

// Toolbar image codes: blocking on, rules being rebuilt and reloaded,
// blocking off. A code outside these clears the image.
enum class ToolbarImage : int64_t { Normal = 1, Reloading = 2, Off = 3 };
// The popover's views, each shown alone. None: nothing shown yet.
enum class ExtensionView : int64_t {
    None = 0,
    Main = 1,
    Picking = 2,
    Profile = 3,
    Website = 4,
    Reloading = 5,
    Error = 6
};

// The product application's internal URLs.
namespace InternalURL {
inline constexpr const char* kStatus = "stonewall://status";
inline constexpr const char* kActivate = "stonewall://activate";
inline constexpr const char* kBlockWebsite = "stonewall://blockwebsite";
inline constexpr const char* kSecureWebsite = "stonewall://securewebsite";
inline constexpr const char* kAllowWebsite = "stonewall://whitelistwebsite";
inline constexpr const char* kVisual = "stonewall://visual";
inline constexpr const char* kOpen = "stonewall://open";
}  // namespace InternalURL

// Browser extension-services levels (ExtensionState::isSafariVersionAvailable).
inline constexpr int64_t kServicesLevel11 = 2;
inline constexpr int64_t kServicesLevel13 = 5;

class SafariExtensionViewController {
  public:
    // The process-wide instance, made once, thread-safely, on first use.
    static SafariExtensionViewController& sharedInstance();
    // Tests: forget the instance so that the next sharedInstance() makes a
    // new one over the services then installed. Only between tests.
    static void resetSharedInstanceForTesting();

    // Sizes the popover, takes the extension state, makes the engine and the
    // counter, loads the views and sets up their texts and spacing.
    SafariExtensionViewController();
    ~SafariExtensionViewController();
    SafariExtensionViewController(const SafariExtensionViewController&) = delete;
    SafariExtensionViewController& operator=(const SafariExtensionViewController&) = delete;

    // --- State ---------------------------------------------------------------------

    bool reloading() const { return reloading_; }
    bool popoverVisible() const { return popoverVisible_; }
    // 1 normal, 2 after picking was started. Recorded, never consulted.
    int64_t extensionStatus() const { return extensionStatus_; }
    // Pending website confirmation: 1 none, 2 block, 3 secure, 4 allow.
    int64_t websiteAction() const { return websiteAction_; }
    void setWebsiteAction(int64_t action) { websiteAction_ = action; }
    // Picking mode: 1 none, 2 block, 3 hide. Recorded, never consulted.
    int64_t visualAction() const { return visualAction_; }
    // Null when the state archive could not be read: both flags then count
    // as off.
    ExtensionState* extensionState() const { return extensionState_; }
    CompanionController& companionController() const { return *companionController_; }
    BlockingStatController& blockingStatController() const { return *blockingStatController_; }
    const NullableString& website() const { return website_; }
    const NullableString& activeProfileID() const { return activeProfileID_; }
    const NullableString& activeProfileName() const { return activeProfileName_; }
    const std::vector<std::string>& profiles() const { return profiles_; }
    const std::vector<std::string>& profileIDs() const { return profileIDs_; }
    // The view last shown (None before any).
    ExtensionView currentView() const { return currentView_; }
    const std::shared_ptr<PopoverView>& popoverView() const { return popoverView_; }

    // --- Actions (main thread) --------------------------------------------------------

    void changeStatusAction();
    void changeCounterAction();
    void visualBlockAction();
    void visualHideAction();
    void changeActiveProfile();
    void profileCancelAction();
    void profileDoneAction();
    void visualCancelAction();
    void visualDoneAction();
    void websiteCancelAction();
    void websiteDoneAction();
    void blockWebsiteAction();
    void secureWebsiteAction();
    void whitelistWebsiteAction();
    void errorDoneAction();
    void openAppAction();

    // --- Called by the handler ---------------------------------------------------------

    // Marks the popover visible, refreshes the shared record (repairing the
    // connection when it cannot be read) and shows view 2 when visualStatus
    // is 1, else the reloading view while reloading, else the main view.
    void popoverWillShowInWindow(int64_t visualStatus);
    void popoverWillCloseInWindow();
    // Sets the toolbar image and the reloading flag, then shows the matching
    // view; an unknown code clears the image only.
    void changeToolbarImage(ToolbarImage image);
    // Normal icon, badge refresh request, popover dismissed.
    void processCompletedAction();
    // Reloads the active page of the active window's active tab.
    void reloadPage();

    // --- Internal, open for the toolkit and tests ----------------------------------------

    enum class Animated : bool { No, Yes };
    void showExtensionView(ExtensionView view, Animated animated);
    void updateMenu();
    void updateStatus();
    void updateCounterStatus();
    void updateVisual() {}
    void setupProfileButton();
    void dismissMainPopover();
    void getActivePage(std::function<void(std::shared_ptr<SFSafariPage>)> completion);
    void getActivePageURL(
        std::function<void(std::shared_ptr<SFSafariPage>, NullableString)> completion);
    // The website buttons for the page at `url` (absent: no page).
    void updateWebsiteButtons(const NullableString& url);

    // Layout (set up at creation; setupButtons each time view 1 shows).
    void setupLabels();
    void setupViews();
    void setupSeperators();
    void setupButtons();

    // How long a website choice or picked elements wait for another
    // program's lock on the profile's database before they are given up
    // (a minute).
    static std::chrono::milliseconds storageWaitLimit();
    // Tests: another limit (a negative one restores the minute).
    static void setStorageWaitLimitForTesting(std::chrono::milliseconds limit);

    // Worker threads: waits for this program's turn among those that change
    // the container (the command takes the same lock), held while the
    // result lives; null when the lock cannot be had. Without it two
    // programs that each add a host to a list rule (read, merge, write)
    // could lose one of the hosts.
    [[nodiscard]] static std::shared_ptr<void> takeContainerTurn();

    // The error view in place of a reload: a website choice or picked
    // elements could not be stored, and nothing changed. Any thread.
    void websiteChoiceNotStored();

    // The reload outcome: processCompletedAction, then on an error below
    // services level 2 open `url`, else reload the active page.
    void completeReload(const std::optional<Error>& error, const char* url);

  private:
    void loadOutlets();
    void connectActions();
    // Whether an unreadable shared record is worth a reconnect first.
    enum class Repair : bool { No, Yes };
    void refreshSharedData(Repair repair);
    std::string localized(const std::string& key) const;
    std::string displayProfileName(const std::string& name) const;
    void setButtonTitle(const std::shared_ptr<ExtensionButton>& button, const std::string& title);
    void setButtonEnabled(const std::shared_ptr<ExtensionButton>& button, bool enabled);
    bool counterOn() const;
    // A switch row: its title, its on or off image (on the button and the
    // image view beside it) and its accessible name and state.
    void showSwitch(const std::shared_ptr<ExtensionButton>& button,
                    const std::shared_ptr<NSImageView>& imageView, bool on,
                    const std::string& title, const std::string& accessibleName);
    void askForWebsiteConfirmation(int64_t action, const char* messageFormat, const char* title,
                                   const char* doneTitle);
    // Worker thread: the confirmed website choice stored on an engine of its
    // own, then the reload; the outcome reaches the popover on the main queue.
    void storeWebsiteChoice(int64_t action, const NullableString& url);

    bool reloading_ = false;
    bool popoverVisible_ = false;
    int64_t extensionStatus_ = 1;
    int64_t websiteAction_ = 1;
    int64_t visualAction_ = 1;
    ExtensionView currentView_ = ExtensionView::None;
    ExtensionState* extensionState_ = nullptr;
    std::unique_ptr<CompanionController> companionController_;
    std::unique_ptr<BlockingStatController> blockingStatController_;
    NullableString website_;
    NullableString activeProfileID_;
    NullableString activeProfileName_;
    std::vector<std::string> profiles_;
    std::vector<std::string> profileIDs_;

    struct Outlets;
    std::shared_ptr<PopoverView> popoverView_;
    std::unique_ptr<Outlets> outlets_;
};

}  // namespace stonewall
