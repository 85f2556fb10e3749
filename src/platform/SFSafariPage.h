#pragma once

// A web page as the browser hands it to the extension. The engine's blocking
// statistics key on it and, to drop the counts of closed pages, ask it for its
// properties and its tab; the extension front also talks to the page's
// injected script and reloads it.
//
// Threads: every operation may be called from any thread. Both queries answer
// asynchronously, once, on a thread of the browser's choosing; an answer may
// arrive after the asker has gone away.

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
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

    // Sends a message to the script the extension injected into the page.
    // A JSON null userInfo is "no user info", which the script tells apart
    // from an empty object. Fire and forget: nothing says whether a script
    // was there to hear it.
    virtual void dispatchMessageToScriptWithName(const std::string& messageName,
                                                 const nlohmann::json& userInfo) = 0;

    // Loads the page's current document again.
    virtual void reload() = 0;
};

}  // namespace stonewall
