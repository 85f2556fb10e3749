#pragma once

// The browser objects the extension front talks to (SafariServices.h), over
// the GTK window: the application with its one window, the window's active
// tab and its toolbar item, and the workspace that opens the product's
// internal URLs through GIO's handler for their scheme.
//
// Threads: callable from any thread; every question is answered on the
// main thread, later, as the interfaces require; widget changes are made
// on the main thread.

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "extension/platform/SafariServices.h"
#include "front/BrowserPage.h"

namespace stonewall::browser {

class BrowserWindow;

// Receives a control-channel event line.
using EventSink = std::function<void(const std::string& line)>;

// Runs `answer` on the main thread, later, ahead of the extension's queued
// work (which runs at idle priority): the browser answers its questions
// promptly, as its replies would come over IPC, so that a chain of them
// (window, tab, page, toolbar item) does not wait a frame per step.
void answerSoon(std::function<void()> answer);

// The tab of a page as the extension sees it: one page per tab, for the
// tab's life (the window's own tab is BrowserTab).
class BrowserTabHandle : public SFSafariTab {
  public:
    explicit BrowserTabHandle(std::shared_ptr<BrowserPage> page) : page_(std::move(page)) {}
    void getActivePageWithCompletionHandler(PageHandler completionHandler) override;

  private:
    std::shared_ptr<BrowserPage> page_;
};

// The toolbar button's image and badge.
class BrowserToolbarItem : public SFSafariToolbarItem,
                           public std::enable_shared_from_this<BrowserToolbarItem> {
  public:
    // `image` (a GtkImage) and `badge` (a GtkLabel) belong to the window.
    BrowserToolbarItem(GtkWidget* image, GtkWidget* badge, EventSink events);
    void setBadgeText(const std::optional<std::string>& badgeText) override;
    void setImage(std::shared_ptr<NSImage> image) override;

    // Main thread: what the button shows.
    const std::string& imageName() const { return imageName_; }
    const std::optional<std::string>& badgeText() const { return badgeText_; }
    // Called on the main thread after the badge text changed.
    void setOnBadgeChanged(std::function<void()> observer) {
        onBadgeChanged_ = std::move(observer);
    }
    // Forgets the widgets (the window is going).
    void detach() { image_ = badge_ = nullptr; }

  private:
    GtkWidget* image_;
    GtkWidget* badge_;
    EventSink events_;
    std::string imageName_ = "ToolbarItemIcon";
    std::optional<std::string> badgeText_;
    std::function<void()> onBadgeChanged_;
};

// The window as the extension sees it.
class BrowserWindowHandle : public SFSafariWindow,
                            public std::enable_shared_from_this<BrowserWindowHandle> {
  public:
    explicit BrowserWindowHandle(BrowserWindow* window) : window_(window) {}
    void getActiveTabWithCompletionHandler(TabHandler completionHandler) override;
    void getToolbarItemWithCompletionHandler(ToolbarItemHandler completionHandler) override;
    // Main thread; the window's destructor calls it.
    void detach() { window_ = nullptr; }
    BrowserWindow* window() const { return window_; }

  private:
    BrowserWindow* window_;
};

class BrowserApplication : public SFSafariApplication {
  public:
    // Main thread. Null: no window.
    void setActiveWindow(std::shared_ptr<BrowserWindowHandle> window);
    void getActiveWindowWithCompletionHandler(WindowHandler completionHandler) override;
    void setToolbarItemsNeedUpdate() override;

  private:
    std::shared_ptr<BrowserWindowHandle> activeWindow() const;
    mutable std::mutex mutex_;
    std::shared_ptr<BrowserWindowHandle> window_;
};

class GioWorkspace : public NSWorkspace {
  public:
    explicit GioWorkspace(EventSink events) : events_(std::move(events)) {
        if (!events_) events_ = [](const std::string&) {};
    }
    // True when an application is registered for the URL's scheme; it is
    // started on the main thread.
    bool openURL(const std::string& url) override;

  private:
    EventSink events_;
};

}  // namespace stonewall::browser
