#pragma once

// The browser window: location entry, back, forward, reload, tabs of web
// views, and the extension's toolbar button with its badge and popover. It
// wires WebKit to the extension: the page script in its own world with its
// message handler, the web-process extension's blocked-load reports,
// navigation, and the content filters.
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

#include "BrowserPage.h"
#include "ContentFilters.h"
#include "ExtensionBridge.h"
#include "PopoverViews.h"

namespace stonewall::browser {

struct BrowserOptions {
    std::string resources;         // images, page script, style sheet
    std::string extensionsFolder;  // the web-process extension
    bool control = false;          // stdin/stdout control channel
};

class BrowserWindow : public BrowserUi {
  public:
    BrowserWindow(GtkApplication* application, BrowserOptions options,
                  std::shared_ptr<ContentFilters> filters);
    ~BrowserWindow() override;

    void openTab(const std::string& url);
    void load(const std::string& url);
    GtkWidget* window() const { return window_; }

    // BrowserUi
    std::shared_ptr<BrowserPage> activePage() override;
    void setToolbarImage(const std::string& name) override;
    void setBadgeText(const std::optional<std::string>& text) override;
    void dismissPopover() override;
    void openURL(const std::string& url) override;
    void toolbarItemsNeedUpdate() override;
    void event(const std::string& line) override;

    // For the control channel.
    void popupFromToolbar();
    bool press(const std::string& outlet);
    void selectProfile(unsigned index);
    void showViewForTesting(int code);
    void setDarkForTesting(bool dark);
    bool snapshotPopover(const std::string& path);
    // `page`, when given, is the picture of `pageView`'s page.
    bool snapshotWindow(const std::string& path, GtkWidget* pageView, GdkTexture* page);
    void evaluateInPage(const std::string& script);
    std::string stateLine();

  private:
    struct Tab {
        WebKitWebView* view = nullptr;
        WebKitUserContentManager* contentManager = nullptr;
        std::shared_ptr<BrowserPage> page;
        gint64 loadStarted = 0;
    };
    Tab* tabForView(WebKitWebView* view);
    Tab* currentTab();
    void closeTab(Tab* tab);
    void updateNavigationControls();
    void startControlChannel();
    void afterNextPaint(std::string timingName, gint64 since);
    void afterNextFrame(std::function<void()> work);

    static void onLoadChanged(WebKitWebView* view, WebKitLoadEvent loadEvent, BrowserWindow* self);
    static void onURIChanged(WebKitWebView* view, GParamSpec*, BrowserWindow* self);
    static gboolean onUserMessage(WebKitWebView* view, WebKitUserMessage* message,
                                  BrowserWindow* self);
    static void onScriptMessage(WebKitUserContentManager* manager, JSCValue* value,
                                BrowserWindow* self);
    static gboolean onDecidePolicy(WebKitWebView* view, WebKitPolicyDecision* decision,
                                   WebKitPolicyDecisionType type, BrowserWindow* self);

    BrowserOptions options_;
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
    std::string toolbarImageName_ = "ToolbarItemIcon";
    std::optional<std::string> badgeText_;
    PopoverViews views_;
    std::unique_ptr<ExtensionBridge> bridge_;
    std::vector<std::unique_ptr<Tab>> tabs_;
    guint validationSource_ = 0;
    gint64 popupStarted_ = 0;
    gint64 blockedReportArrived_ = 0;
    GDataInputStream* control_ = nullptr;
    GtkCssProvider* css_ = nullptr;
};

}  // namespace stonewall::browser
