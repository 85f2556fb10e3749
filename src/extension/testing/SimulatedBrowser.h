#pragma once

// A browser for the front's tests: windows with tabs, pages with URLs and
// properties, a page script that speaks the extension's message protocol, a
// toolbar item and a workspace that record what they were given.
//
// Every answer the browser owes (properties, tabs, pages, script replies) is
// posted to the default global queue of the installed dispatch, so it arrives
// later, on the manual clock's schedule, as a real browser's would. Like the
// real one, the browser makes a new SafariExtensionHandler for each event.

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "extension/SafariExtensionHandler.h"
#include "extension/platform/SafariServices.h"

namespace stonewall::testing {

class SimulatedBrowser;

struct ScriptMessage {
    std::string name;
    nlohmann::json userInfo;
};

class SimulatedPage : public SFSafariPage, public std::enable_shared_from_this<SimulatedPage> {
  public:
    SimulatedPage(std::weak_ptr<SimulatedBrowser> browser, int id, std::optional<std::string> url);

    bool isEqual(const SFSafariPage& other) const override;
    void getPagePropertiesWithCompletionHandler(PropertiesHandler completionHandler) override;
    void getContainingTabWithCompletionHandler(TabHandler completionHandler) override;
    void dispatchMessageToScriptWithName(const std::string& messageName,
                                         const nlohmann::json& userInfo) override;
    void reload() override { ++reloadCount_; }

    int id() const { return id_; }
    const std::optional<std::string>& url() const { return url_; }
    void setURL(std::optional<std::string> url) { url_ = std::move(url); }
    // False: the page answers no properties (it is gone).
    void setAnswersProperties(bool answers) { answersProperties_ = answers; }
    void setActive(bool active) { active_ = active; }
    void setTab(std::weak_ptr<SFSafariTab> tab) { tab_ = std::move(tab); }

    // The page script: whether picking is on, and the element arrays it
    // reports when the user finishes picking ("VisualDone").
    bool picking() const { return picking_; }
    void setPicking(bool picking) { picking_ = picking; }
    void setPickedElements(nlohmann::json elements) { pickedElements_ = std::move(elements); }
    // Without a script the page hears messages but never answers.
    void setHasScript(bool hasScript) { hasScript_ = hasScript; }

    const std::vector<ScriptMessage>& messagesToScript() const { return messages_; }
    int reloadCount() const { return reloadCount_; }

  private:
    std::weak_ptr<SimulatedBrowser> browser_;
    int id_;
    std::optional<std::string> url_;
    bool answersProperties_ = true;
    bool active_ = true;
    std::weak_ptr<SFSafariTab> tab_;
    bool picking_ = false;
    bool hasScript_ = true;
    nlohmann::json pickedElements_ = nlohmann::json::array();
    std::vector<ScriptMessage> messages_;
    int reloadCount_ = 0;
};

class SimulatedTab : public SFSafariTab {
  public:
    void getActivePageWithCompletionHandler(PageHandler completionHandler) override;
    std::shared_ptr<SimulatedPage> activePage;
};

class SimulatedToolbarItem : public SFSafariToolbarItem {
  public:
    void setBadgeText(const std::optional<std::string>& badgeText) override {
        badges.push_back(badgeText);
    }
    void setImage(std::shared_ptr<NSImage> image) override {
        images.push_back(image ? image->name() : std::string());
    }
    bool respondsToSetImage() const override { return takesImages; }

    // The image names set, in order ("" for none), and the badge texts.
    std::vector<std::string> images;
    std::vector<std::optional<std::string>> badges;
    bool takesImages = true;
};

class SimulatedWindow : public SFSafariWindow {
  public:
    void getActiveTabWithCompletionHandler(TabHandler completionHandler) override;
    void getToolbarItemWithCompletionHandler(ToolbarItemHandler completionHandler) override;

    std::shared_ptr<SimulatedTab> activeTab;
    std::shared_ptr<SimulatedToolbarItem> toolbarItem = std::make_shared<SimulatedToolbarItem>();
};

class SimulatedApplication : public SFSafariApplication {
  public:
    void getActiveWindowWithCompletionHandler(WindowHandler completionHandler) override;
    void setToolbarItemsNeedUpdate() override { ++toolbarUpdateRequests; }

    std::shared_ptr<SimulatedWindow> activeWindow;
    int toolbarUpdateRequests = 0;
};

class RecordingWorkspace : public NSWorkspace {
  public:
    bool openURL(const std::string& url) override;
    std::vector<std::string> openedURLs() const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> opened_;
};

// One answer of toolbar validation.
struct Validation {
    bool enabled = false;
    std::optional<std::string> badgeText;
    bool operator==(const Validation&) const = default;
};

class SimulatedBrowser : public std::enable_shared_from_this<SimulatedBrowser> {
  public:
    static std::shared_ptr<SimulatedBrowser> create();

    const std::shared_ptr<SimulatedApplication>& application() const { return application_; }
    const std::shared_ptr<RecordingWorkspace>& workspace() const { return workspace_; }

    // Opens a window with one tab showing `url` (absent: a blank page) and
    // makes it the active window.
    std::shared_ptr<SimulatedPage> openWindow(std::optional<std::string> url);
    // The active window's toolbar item; null without a window.
    std::shared_ptr<SimulatedToolbarItem> toolbarItem() const;
    std::shared_ptr<SimulatedPage> activePage() const;
    // Closes every window.
    void closeAllWindows() { application_->activeWindow.reset(); }

    // --- Events, each delivered to a new handler ----------------------------------------

    void validateToolbar();
    void openPopover();
    void closePopover();
    void reportBlocked(const std::shared_ptr<SimulatedPage>& page, std::vector<std::string> urls);
    // Tells the extension the page goes to `url`, then moves it there.
    void navigate(const std::shared_ptr<SimulatedPage>& page, std::optional<std::string> url);
    void deliverMessage(const std::string& name, const std::shared_ptr<SimulatedPage>& page,
                        const nlohmann::json& userInfo);

    // Every validation answer, in order.
    const std::vector<Validation>& validations() const { return validations_; }
    bool popoverOpen() const { return popoverOpen_; }

  private:
    SimulatedBrowser() = default;

    std::shared_ptr<SimulatedApplication> application_ = std::make_shared<SimulatedApplication>();
    std::shared_ptr<RecordingWorkspace> workspace_ = std::make_shared<RecordingWorkspace>();
    std::vector<std::shared_ptr<SimulatedWindow>> windows_;
    std::vector<Validation> validations_;
    bool popoverOpen_ = false;
    int nextPageID_ = 1;
};

}  // namespace stonewall::testing
