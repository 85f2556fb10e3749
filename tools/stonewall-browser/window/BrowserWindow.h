#pragma once

// The browser window: location entry, back, forward, reload, the tabs
// (BrowserTab) in their order, and the extension's toolbar button with its
// badge and popover (ExtensionToolbarButton). It delivers the window's
// events to the extension's handler (a new SafariExtensionHandler per
// event): toolbar validation and the popover opening and closing; its tabs
// deliver their pages' events.
//
// With a control channel (--control) it reads commands from stdin and writes
// events to stdout, one line each, so tests and benchmarks can drive the
// real program; see ControlChannel.h for the commands.

#include <adwaita.h>
#include <webkit/webkit.h>

#include <memory>
#include <string>
#include <vector>

#include "filters/ContentFilters.h"
#include "front/BrowserPage.h"
#include "front/BrowserServices.h"
#include "window/BrowserTab.h"
#include "window/ExtensionToolbarButton.h"

namespace stonewall::browser {

class ControlChannel;

struct BrowserOptions {
    std::string resources;         // images, page script, style sheet
    std::string extensionsFolder;  // the web-process extension
    bool control = false;          // stdin/stdout control channel
    EventSink events;              // control-channel event lines
};

class BrowserWindow {
  public:
    // The front services (FrontServices.h) must be installed, with
    // `application` as the application; the window becomes its active one.
    BrowserWindow(GtkApplication* application, BrowserOptions options,
                  std::shared_ptr<ContentFilters> filters,
                  std::shared_ptr<BrowserApplication> browserApplication);
    ~BrowserWindow();
    BrowserWindow(const BrowserWindow&) = delete;
    BrowserWindow& operator=(const BrowserWindow&) = delete;

    void openTab(const std::string& url);
    // In the current tab, or a new one when there is none.
    void load(const std::string& url);
    GtkWidget* window() const { return window_; }
    ExtensionToolbarButton& toolbarButton() { return *toolbarButton_; }
    void event(const std::string& line) const;

    // The tabs, in the order they were opened; the current one is shown.
    size_t tabCount() const { return tabs_.size(); }
    BrowserTab* currentTab() const;
    // Switches to tab `index` (from 0, in the tab strip's order); false
    // when there is none.
    bool selectTab(int index);
    // Asked by a tab: its close button, Ctrl+W, or its page closed itself.
    void closeTab(BrowserTab& tab);
    // Told by a tab whose page's address or history changed.
    void tabNavigated(const BrowserTab& tab);
    // Told by a tab as a blocked-load report arrives: the badge's timing
    // starts at the first report it has not shown yet.
    void blockedLoadReported();

    // What the extension asks of the window (main thread).
    std::shared_ptr<BrowserPage> activePage() const;
    std::shared_ptr<BrowserToolbarItem> toolbarItem() const { return toolbarButton_->item(); }
    // Validates the toolbar item soon (once for any number of requests).
    void toolbarItemsNeedUpdate();
    // Validates the toolbar item now.
    void validateToolbarItem();

  private:
    void loadWebContext();
    void loadStyle();
    GtkWidget* newHeaderBar();
    void addShortcuts();
    void updateNavigationControls();
    void popoverShown(gint64 clicked);
    void popoverClosed(ExtensionToolbarButton::Picking picking);
    // Reports "timing NAME MS" once `widget` has painted its next frame.
    void afterNextPaint(GtkWidget* widget, std::string timingName, gint64 since);

    // The popover's views ask the engine for the page's website lists as
    // they open; the main queue is held until its first frame.
    void holdMainQueueUntilPainted();
    void releaseMainQueue();
    static constexpr guint kMainQueueHoldLimitMs = 100;
    guint releaseSource_ = 0;

    BrowserOptions options_;
    std::shared_ptr<BrowserApplication> application_;
    std::shared_ptr<BrowserWindowHandle> handle_;
    std::shared_ptr<ContentFilters> filters_;
    WebKitWebContext* context_ = nullptr;
    std::string pickerSource_;
    GtkCssProvider* css_ = nullptr;
    GtkWidget* window_ = nullptr;
    GtkWidget* notebook_ = nullptr;
    GtkWidget* location_ = nullptr;
    GtkWidget* backButton_ = nullptr;
    GtkWidget* forwardButton_ = nullptr;
    std::unique_ptr<ExtensionToolbarButton> toolbarButton_;
    std::vector<std::unique_ptr<BrowserTab>> tabs_;
    guint validationSource_ = 0;
    gint64 blockedReportArrived_ = 0;
    std::unique_ptr<ControlChannel> control_;
};

}  // namespace stonewall::browser
