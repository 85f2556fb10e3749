#pragma once

// A tab's web page as the extension sees it. One object per tab for the
// tab's life: navigation keeps the object (the extension is told of it and
// drops the page's counts), closing the tab detaches it.
//
// Questions are answered on the main thread, asynchronously, whichever
// thread asks; reloads and script messages from other threads are passed to
// the main thread; url() and isActive() are main-thread only.

#include <webkit/webkit.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "extension/platform/SafariServices.h"
#include "platform/SFSafariPage.h"

namespace stonewall::browser {

class BrowserPage : public SFSafariPage, public std::enable_shared_from_this<BrowserPage> {
  public:
    // `isActive` answers whether the page's tab is the one shown.
    BrowserPage(WebKitWebView* view, std::function<bool(const BrowserPage&)> isActive);
    ~BrowserPage() override;

    bool isEqual(const SFSafariPage& other) const override { return this == &other; }
    void getPagePropertiesWithCompletionHandler(PropertiesHandler completionHandler) override;
    void getContainingTabWithCompletionHandler(TabHandler completionHandler) override;

    // Null once the tab is closed.
    WebKitWebView* view() const { return view_; }
    void detach();

    std::optional<std::string> url() const;
    bool isActive() const;
    void reload() override;
    // Delivers a message to the page script in its own world; absent user
    // info arrives as null.
    void dispatchMessageToScriptWithName(const std::string& name,
                                         const nlohmann::json& userInfo) override;
    // Called on the main thread when the extension reloads the page.
    void setOnReload(std::function<void()> onReload) { onReload_ = std::move(onReload); }

  private:
    WebKitWebView* view_;  // strong until detach()
    std::function<bool(const BrowserPage&)> isActive_;
    std::function<void()> onReload_;
};

}  // namespace stonewall::browser
