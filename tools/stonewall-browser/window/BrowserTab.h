#pragma once

// One tab of the browser window: its web view, with the picker script in
// our own script world and the content filters applied, the notice shown
// over the view when its web process ends, its label in the tab strip, and
// the page the extension sees. The tab wires its view's signals and hands
// what they mean to the extension's handler (navigation, page-script
// messages, blocked-load reports); the window keeps the tabs and their
// order, and is told when a tab's page changes or the tab asks to close.
//
// Main thread only.

#include <webkit/webkit.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "extension/SafariExtensionHandler.h"
#include "front/BrowserPage.h"

namespace stonewall::browser {

class BrowserWindow;
class ContentFilters;

class BrowserTab {
  public:
    // A tab of `window` whose view runs in `context`, with `pickerScript`
    // in the script world of every page and `filters` applied. It shows
    // nothing until load().
    BrowserTab(BrowserWindow& window, WebKitWebContext* context, const std::string& pickerScript,
               std::shared_ptr<ContentFilters> filters);
    ~BrowserTab();
    BrowserTab(const BrowserTab&) = delete;
    BrowserTab& operator=(const BrowserTab&) = delete;

    // The notebook's page (the view, with the crash notice over it) and
    // its label in the tab strip.
    GtkWidget* frame() const { return frame_; }
    GtkWidget* label() const { return label_; }
    WebKitWebView* view() const { return view_; }
    const std::shared_ptr<BrowserPage>& page() const { return page_; }

    void load(const std::string& url);
    void goBack();
    void goForward();
    void reload();
    // Whether its web process ended and the notice shows.
    bool crashed() const { return crashed_; }
    // Page-script messages dropped as part of a flood, since the tab opened.
    int64_t messagesDropped() const { return messagesDropped_; }

    // The page with what the extension would otherwise ask for, step by
    // step: its URL, whether it is shown, and the window's toolbar item.
    PageEvent pageEvent() const;

  private:
    GtkWidget* newLabel();
    GtkWidget* newCrashNotice();
    // Hands the pending blocked-load reports to the extension at once.
    void flushBlockedLoads();

    static void onLoadChanged(WebKitWebView* view, WebKitLoadEvent loadEvent, BrowserTab* self);
    static void onURIChanged(WebKitWebView* view, GParamSpec*, BrowserTab* self);
    static void onWebProcessTerminated(WebKitWebView* view,
                                       WebKitWebProcessTerminationReason reason, BrowserTab* self);
    static gboolean onUserMessage(WebKitWebView* view, WebKitUserMessage* message,
                                  BrowserTab* self);
    static void onScriptMessage(WebKitUserContentManager* manager, JSCValue* value,
                                BrowserTab* self);
    static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                                   WebKitPolicyDecisionType type, BrowserTab* self);

    // The picker sends a message or two per pick; a flood of them, from a
    // page that found its way into the picker's world, is dropped here
    // rather than queued: each one makes the extension read the databases.
    static constexpr int kMessagesPerSecond = 20;
    // Blocked loads reach the extension, and the badge, at most once a
    // frame: however the web process batches its reports, a page that has
    // thousands of loads blocked repaints the badge a few dozen times.
    static constexpr gint64 kBlockedFlushInterval = G_USEC_PER_SEC / 60;

    BrowserWindow& window_;
    std::shared_ptr<ContentFilters> filters_;
    WebKitUserContentManager* contentManager_ = nullptr;
    WebKitWebView* view_ = nullptr;
    // Held by the tab as well as the notebook, so that the tab can let go
    // of its signals whatever the window did with its widgets.
    GtkWidget* frame_ = nullptr;
    GtkWidget* label_ = nullptr;
    GtkWidget* crashNotice_ = nullptr;
    GtkWidget* closeButton_ = nullptr;
    GtkWidget* reloadButton_ = nullptr;
    std::shared_ptr<BrowserPage> page_;
    gint64 loadStarted_ = 0;
    bool crashed_ = false;
    // Page-script messages of the current second, and those dropped.
    gint64 messageSecond_ = 0;
    int messagesThisSecond_ = 0;
    int64_t messagesDropped_ = 0;
    // Blocked-load reports not yet handed to the extension.
    std::vector<std::string> blockedPending_;
    guint blockedFlush_ = 0;
    gint64 blockedFlushed_ = 0;
};

}  // namespace stonewall::browser
