#pragma once

// The extension's principal handler: the browser makes instances at will and
// calls them for page messages, toolbar validation, the popover opening and
// closing, the popover's controller, blocked-resource reports and
// navigation. It keeps no state between calls; every entry first fetches the
// process-wide popover controller and works through it.
//
// Page messages in: "VisualStatus" {"status": number} and "VisualData"
// {"data": [[9 strings], ...]}; anything else is logged and ignored. User
// info comes from a web page's script: any JSON value, checked here.
//
// Threads: the browser calls on threads of its choosing; view work is posted
// to the main queue as noted per entry.

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/DataElement.h"
#include "extension/SafariExtensionViewController.h"
#include "extension/platform/SafariServices.h"
#include "utilities/Nullable.h"

namespace stonewall {

// What a browser that knows it hands with an event about a page: the page,
// its URL and whether it is the one shown in its window, and that window's
// toolbar item (null when it has none). With it the handler makes direct
// calls instead of asking the browser back, step by step, for the window,
// tab, page, item and properties.
struct PageEvent {
    std::shared_ptr<SFSafariPage> page;
    SFSafariPageProperties properties;
    std::shared_ptr<SFSafariToolbarItem> toolbarItem;
};

class SafariExtensionHandler {
  public:
    SafariExtensionHandler() = default;

    // Set to the shared controller at the start of every entry.
    SafariExtensionViewController* safariExtensionViewController() const {
        return safariExtensionViewController_;
    }

    // --- Browser entries ----------------------------------------------------------------

    void messageReceivedWithName(const std::string& messageName,
                                 const std::shared_ptr<SFSafariPage>& page,
                                 const nlohmann::json& userInfo);
    // The same with the page's properties at hand.
    void messageReceivedWithName(const std::string& messageName, const PageEvent& event,
                                 const nlohmann::json& userInfo);

    // The toolbar item is never disabled; the badge is the active page's
    // blocked count while the counter is on (services level 5). With no
    // active window at that point the handler is left unanswered.
    using ValidationHandler =
        std::function<void(bool enabled, std::optional<std::string> badgeText)>;
    void validateToolbarItemInWindow(const std::shared_ptr<SFSafariWindow>& window,
                                     ValidationHandler validationHandler);

    void popoverWillShowInWindow(const std::shared_ptr<SFSafariWindow>& window);
    void popoverDidCloseInWindow(const std::shared_ptr<SFSafariWindow>& window);
    SafariExtensionViewController& popoverViewController();

    // The content-blocker identifier is not examined.
    void contentBlockerWithIdentifier(const std::string& contentBlockerIdentifier,
                                      const std::vector<std::string>& blockedResourcesWithURLs,
                                      const std::shared_ptr<SFSafariPage>& onPage);
    // The same for a browser that hands the page's properties and toolbar
    // item: the badge is refreshed directly.
    void contentBlockerWithIdentifier(const std::string& contentBlockerIdentifier,
                                      const std::vector<std::string>& blockedResourcesWithURLs,
                                      const PageEvent& onPage);

    // page:willNavigateToURL: drops the page's counts when it had a URL and
    // goes to a new one.
    void page(const std::shared_ptr<SFSafariPage>& page, const NullableString& willNavigateToURL);
    // The same with the page's properties at hand.
    void page(const PageEvent& page, const NullableString& willNavigateToURL);

    // --- Own operations -------------------------------------------------------------------

    void reloadPage();
    // Refreshes the badge of the active window's toolbar item, asking the
    // browser for the window, its tab, page and item, then the page's
    // properties.
    void updateBlockingCounter();
    // The same for the page and item at hand: the badge shows the page's
    // count when the counter is on and the page has a URL and is shown.
    // Posted to the main queue.
    void updateBlockingCounter(const PageEvent& event);

    // --- Message shape (outside input) ------------------------------------------------------

    // The "status" of a "VisualStatus" user info as an integer narrowed to 8
    // bits (so 257 counts as 1): numbers truncate, booleans count 0 or 1,
    // strings read their leading integer, anything else is 0.
    static int8_t visualStatusFromUserInfo(const nlohmann::json& userInfo);
    // The elements of a "VisualData" user info with their location set to
    // `host`; empty when there is no usable "data" array.
    static std::vector<DataElement> visualElementsFromUserInfo(const nlohmann::json& userInfo,
                                                               const NullableString& host);

  private:
    SafariExtensionViewController& useSharedController();

    SafariExtensionViewController* safariExtensionViewController_ = nullptr;
};

}  // namespace stonewall
