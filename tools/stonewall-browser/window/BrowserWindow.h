#pragma once

// The browser window: location entry, back, forward, reload, tabs of web
// views, and the extension's toolbar button with its badge and popover. It
// delivers the browser's events to the extension's handler (a new
// SafariExtensionHandler per event): toolbar validation, the popover
// opening and closing, page-script messages from our own script world,
// the web-process extension's blocked-load reports and navigation. The
// popover shows the view tree of the extension's popover controller.
//
// With a control channel (--control) it reads commands from stdin and writes
// events to stdout, one line each, so tests and benchmarks can drive the
// real program; see ControlChannel.cpp for the commands.

#include <adwaita.h>
#include <webkit/webkit.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ContentFilters.h"
#include "extension/SafariExtensionHandler.h"
#include "front/BrowserPage.h"
#include "front/BrowserServices.h"
#include "front/GtkPopoverView.h"

namespace stonewall::browser {

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
    void load(const std::string& url);
    GtkWidget* window() const { return window_; }

    // What the extension asks of the window (main thread).
    std::shared_ptr<BrowserPage> activePage();
    std::shared_ptr<BrowserToolbarItem> toolbarItem() const { return toolbarItem_; }
    // Validates the toolbar item soon (once for any number of requests).
    void toolbarItemsNeedUpdate();
    void event(const std::string& line) const;

    // For the control channel.
    void popupFromToolbar();
    void showViewForTesting(int code);
    void setDarkForTesting(bool dark);
    bool snapshotPopover(const std::string& path);
    // `page`, when given, is the picture of `pageView`'s page.
    bool snapshotWindow(const std::string& path, GtkWidget* pageView, GdkTexture* page);
    // In the page's own world, or in `world`.
    void evaluateInPage(const std::string& script, const char* world = nullptr);
    // Switches to tab `index` (from 0); false when there is none.
    bool selectTab(int index);
    // Presses the crash notice's Reload button of the current tab; false
    // when it shows none.
    bool reloadCrashedCurrentTab();
    std::string stateLine();
    std::string clippedLabels();
    std::string paletteLine();

  private:
    struct Tab;
    // A tab's page with what the extension would otherwise ask for, step by
    // step: its URL, whether it is shown, and this window's toolbar item.
    PageEvent pageEvent(const Tab& tab) const;

    struct Tab {
        WebKitWebView* view = nullptr;
        // The notebook's page: the view, with the notice of a crashed web
        // process over it.
        GtkWidget* frame = nullptr;
        GtkWidget* crashNotice = nullptr;
        WebKitUserContentManager* contentManager = nullptr;
        std::shared_ptr<BrowserPage> page;
        gint64 loadStarted = 0;
        bool crashed = false;
        // Page-script messages of the current second, and those dropped.
        gint64 messageSecond = 0;
        int messagesThisSecond = 0;
        int64_t messagesDropped = 0;
        // Blocked-load reports not yet handed to the extension.
        std::vector<std::string> blockedPending;
        guint blockedFlush = 0;
    };
    // The picker sends a message or two per pick; a flood of them, from a
    // page that found its way into the picker's world, is dropped here
    // rather than queued: each one makes the extension read the databases.
    static constexpr int kMessagesPerSecond = 20;
    // Hands a tab's pending blocked-load reports to the extension at once.
    void flushBlockedLoads(Tab* tab);
    Tab* tabForView(WebKitWebView* view);
    Tab* tabForFrame(GtkWidget* frame);
    Tab* currentTab();
    void closeTab(Tab* tab);
    void updateNavigationControls();
    void addShortcuts();
    void describeToolbarButton();
    void startControlChannel();
    void afterNextPaint(std::string timingName, gint64 since);
    void afterNextFrame(std::function<void()> work);

    static void onLoadChanged(WebKitWebView* view, WebKitLoadEvent loadEvent, BrowserWindow* self);
    static void onWebProcessTerminated(WebKitWebView* view,
                                       WebKitWebProcessTerminationReason reason,
                                       BrowserWindow* self);
    // Loads the tab's page again in a new web process (the crash notice's button).
    void reloadCrashedTab(Tab* tab);
    static void onURIChanged(WebKitWebView* view, GParamSpec*, BrowserWindow* self);
    static gboolean onUserMessage(WebKitWebView* view, WebKitUserMessage* message,
                                  BrowserWindow* self);
    static void onScriptMessage(WebKitUserContentManager* manager, JSCValue* value,
                                BrowserWindow* self);
    static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                                   WebKitPolicyDecisionType type, BrowserWindow* self);
    void validateToolbarItem();
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
    GtkWidget* window_ = nullptr;
    GtkWidget* notebook_ = nullptr;
    GtkWidget* location_ = nullptr;
    GtkWidget* backButton_ = nullptr;
    GtkWidget* forwardButton_ = nullptr;
    GtkWidget* toolbarButton_ = nullptr;
    GtkWidget* toolbarImage_ = nullptr;
    GtkWidget* badge_ = nullptr;
    GtkWidget* popover_ = nullptr;
    std::shared_ptr<BrowserToolbarItem> toolbarItem_;
    std::shared_ptr<GtkPopoverView> popoverView_;
    std::vector<std::unique_ptr<Tab>> tabs_;
    guint validationSource_ = 0;
    gint64 popupStarted_ = 0;
    gint64 blockedReportArrived_ = 0;
    GDataInputStream* control_ = nullptr;
    GtkCssProvider* css_ = nullptr;
};

}  // namespace stonewall::browser
