#pragma once

// The browser objects the extension front talks to: the application, its
// windows, their tabs and toolbar item, and the workspace that opens the
// product's internal URLs. A browser (the GTK browser, or the simulated one
// of the tests) implements them.
//
// Threads: every operation may be called from any thread. Every
// get...WithCompletionHandler answers asynchronously, exactly once, on a
// thread of the browser's choosing; an absent object (no active window, no
// tab, no page) is answered with a null pointer, and callers then simply
// stop. Nothing here reports errors.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "extension/platform/Toolkit.h"
#include "platform/SFSafariPage.h"

namespace stonewall {

class SFSafariToolbarItem {
  public:
    virtual ~SFSafariToolbarItem() = default;

    // Absent text clears the badge.
    virtual void setBadgeText(const std::optional<std::string>& badgeText) = 0;
    // A null image shows none.
    virtual void setImage(std::shared_ptr<NSImage> image) = 0;
    // Whether this item can take an image at all; older browsers' items
    // cannot, and the front then only switches its popover view.
    virtual bool respondsToSetImage() const { return true; }
};

class SFSafariTab {
  public:
    virtual ~SFSafariTab() = default;

    using PageHandler = std::function<void(std::shared_ptr<SFSafariPage>)>;
    virtual void getActivePageWithCompletionHandler(PageHandler completionHandler) = 0;
};

class SFSafariWindow {
  public:
    virtual ~SFSafariWindow() = default;

    using TabHandler = std::function<void(std::shared_ptr<SFSafariTab>)>;
    virtual void getActiveTabWithCompletionHandler(TabHandler completionHandler) = 0;

    // The extension's toolbar item in this window.
    using ToolbarItemHandler = std::function<void(std::shared_ptr<SFSafariToolbarItem>)>;
    virtual void getToolbarItemWithCompletionHandler(ToolbarItemHandler completionHandler) = 0;
};

class SFSafariApplication {
  public:
    virtual ~SFSafariApplication() = default;

    using WindowHandler = std::function<void(std::shared_ptr<SFSafariWindow>)>;
    virtual void getActiveWindowWithCompletionHandler(WindowHandler completionHandler) = 0;

    // Asks the browser to validate the extension's toolbar items again soon
    // (it then calls the handler's validateToolbarItemInWindow). Returns at
    // once; the validation never runs inside this call.
    virtual void setToolbarItemsNeedUpdate() = 0;
};

class NSWorkspace {
  public:
    virtual ~NSWorkspace() = default;

    // Opens the URL with the application registered for its scheme; false
    // when none took it. The front ignores the answer, as the product's
    // application is the only listener and may not be installed.
    virtual bool openURL(const std::string& url) = 0;
};

}  // namespace stonewall
