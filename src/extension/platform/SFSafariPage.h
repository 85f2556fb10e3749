#pragma once

// A web page as the browser hands it to the extension. The engine's blocking
// statistics key on it and, to drop the counts of closed pages, ask it two
// questions; the front's page operations (messages, reload) live elsewhere.
//
// Both queries answer asynchronously, once, on a thread of the browser's
// choosing; an answer may arrive after the asker has gone away.

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace stonewall {

class SFSafariTab;

struct SFSafariPageProperties {
    std::optional<std::string> url;  // absent until the page has loaded a document
    bool isActive = false;
};

class SFSafariPage {
  public:
    virtual ~SFSafariPage() = default;

    // Two handles are equal when they stand for the same page of the browser,
    // even if they are different objects.
    virtual bool isEqual(const SFSafariPage& other) const = 0;
    bool operator==(const SFSafariPage& other) const { return isEqual(other); }

    // Absent properties: the page is gone or could not be asked.
    using PropertiesHandler = std::function<void(std::optional<SFSafariPageProperties>)>;
    virtual void getPagePropertiesWithCompletionHandler(PropertiesHandler completionHandler) = 0;

    // A null tab: the page belongs to no tab any more (it was closed).
    using TabHandler = std::function<void(std::shared_ptr<SFSafariTab>)>;
    virtual void getContainingTabWithCompletionHandler(TabHandler completionHandler) = 0;
};

}  // namespace stonewall
