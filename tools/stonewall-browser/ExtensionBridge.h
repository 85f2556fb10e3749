#pragma once

// The extension's handler entries and popover actions on top of the engine,
// for the browser's GTK front: toolbar validation (image and badge), the
// popover's six views and their actions, page-script messages, blocked-load
// reports and navigation. The browser calls the entries; the bridge drives
// the window through BrowserUi and the popover through its views.
//
// Main thread only; engine completions arrive on the main queue, which this
// program runs on GTK's main context.

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "BrowserPage.h"
#include "PopoverViews.h"
#include "engine/BlockingStatController.h"
#include "engine/CompanionController.h"
#include "storage/ExtensionState.h"

namespace stonewall::browser {

// What the bridge needs from the browser window.
class BrowserUi {
  public:
    virtual ~BrowserUi() = default;
    virtual std::shared_ptr<BrowserPage> activePage() = 0;  // null without tabs
    virtual void setToolbarImage(const std::string& name) = 0;
    virtual void setBadgeText(const std::optional<std::string>& text) = 0;
    virtual void dismissPopover() = 0;
    virtual void openURL(const std::string& url) = 0;
    // Asks for a toolbar validation soon (not within the caller).
    virtual void toolbarItemsNeedUpdate() = 0;
    // A line for the control channel; ignored without one.
    virtual void event(const std::string& line) = 0;
};

class ExtensionBridge {
  public:
    ExtensionBridge(BrowserUi& ui, PopoverViews& views, std::string resources);
    ExtensionBridge(const ExtensionBridge&) = delete;
    ExtensionBridge& operator=(const ExtensionBridge&) = delete;

    // --- Entries the browser calls ------------------------------------------
    // `userInfo` has passed checkPageMessage.
    void messageReceived(const std::string& name, const std::shared_ptr<BrowserPage>& page,
                         const nlohmann::json& userInfo);
    void validateToolbarItem();
    void popoverWillShow();
    void popoverDidClose();
    void blockedResources(const std::vector<std::string>& urls,
                          const std::shared_ptr<BrowserPage>& page);
    void willNavigate(const std::shared_ptr<BrowserPage>& page,
                      const std::optional<std::string>& url);

    // Switches the popover's view (drops the request while it is closed).
    void showExtensionView(int code, bool animated);

    bool reloading() const { return reloading_; }
    int64_t blockedCountForActivePage() const;
    const PopoverViews& views() const { return views_; }

  private:
    enum class ReloadOrigin { Status, Activate, BlockWebsite, SecureWebsite, WhitelistWebsite, Visual };

    std::string localized(const std::string& key) const;
    std::string icon(const std::string& name) const;
    void refreshSharedData(bool repair);
    void changeToolbarImage(int code);
    void processCompletedAction();
    void reloadPage();
    void updateBlockingCounter();
    void refreshWebsiteButtons(const std::optional<std::string>& url);
    void updateMenu();
    void updateStatus();
    void updateCounterStatus();
    void setupProfileButton();
    void reloadOutcome(ReloadOrigin origin, const std::optional<Error>& error);
    void reloadRulesFor(ReloadOrigin origin, CompanionController& engine);
    void wireActions();

    void changeStatusAction();
    void changeCounterAction();
    void visualBlockAction();
    void visualCancelAction();
    void visualDoneAction();
    void changeActiveProfile();
    void profileDoneAction();
    void websiteAction(int action);
    void websiteDoneAction();
    void openAppAction();

    BrowserUi& ui_;
    PopoverViews& views_;
    std::string resources_;
    ExtensionState& extensionState_;
    CompanionController companionController_;
    BlockingStatController blockingStatController_;
    bool reloading_ = false;
    bool popoverVisible_ = false;
    int64_t websiteAction_ = 1;
    std::string website_;
    std::string pageURL_;
    NullableString activeProfileID_;
    std::string activeProfileName_;
    std::vector<std::string> profiles_;
    std::vector<std::string> profileIDs_;
};

}  // namespace stonewall::browser
