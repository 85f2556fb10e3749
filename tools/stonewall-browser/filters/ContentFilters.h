#pragma once

// The content blocker inside the browser. It stands in for the browser's
// reload of the Stonewall content blocker, through the same reload service
// as the command (WebKitContentBlockerManager): the service reads the shared
// defaults as the engine left them, installs the active profile's rule list
// (or, with blocking off, none) into the container's content-filter store,
// compiling only the parts that its cache by content does not hold; this
// class then loads the parts that changed and switches every open web view
// to the result. At start it applies what the store already holds.
//
// WebKit is used on the main thread only (WebKit binds to the thread it is
// first used on, and the web views live there): the service's compiles are
// handed to it (WebKitContentBlockerManager::useMainThreadWebKit), and
// reload requests from other threads are passed to it.

#include <webkit/webkit.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ContentBlockerManager.h"
#include "platform/Log.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::browser {

class ContentFilters : public platform::ContentBlockerManager,
                       public std::enable_shared_from_this<ContentFilters> {
  public:
    // Call WebKitContentBlockerManager::useMainThreadWebKit() first.
    ContentFilters(std::string containerPath, std::string defaultsPath,
                   std::shared_ptr<platform::Log> log = nullptr);
    ~ContentFilters() override;

    void reloadContentBlockerWithIdentifier(const std::string& identifier,
                                            CompletionHandler completionHandler) override;

    // Main thread. A manager gets the current filter at once and every later one.
    void addContentManager(WebKitUserContentManager* manager);
    void removeContentManager(WebKitUserContentManager* manager);
    // Main thread. The view a manager serves, whose page an allowed website
    // is looked for in (see below).
    void setView(WebKitUserContentManager* manager, WebKitWebView* view);
    // Applies the stored list (or none while blocking is off); `done` is
    // called on the main thread once it is in place, with false when the
    // store holds no list yet.
    void applyStoredList(std::function<void(bool found)> done = {});

    // Main thread. From now on a change that another program (the command,
    // another browser) makes to the rule file or to the shared defaults is
    // applied here too, as a reload would apply it.
    void followChanges();

    // Called on the main thread after each switch of the filter.
    void setFilterChanged(std::function<void(bool filtering)> observer) {
        filterChanged_ = std::move(observer);
    }
    // Called on the main thread when a newly allowed website's pages were
    // let through at once, before the list that allows it is compiled.
    void setAllowApplied(std::function<void()> observer) { allowApplied_ = std::move(observer); }

    // The page patterns ("if-top-url") of the list's allow-website rules:
    // ignore-previous-rules for every address of a page.
    static std::set<std::string> allowedPagePatterns(std::string_view ruleList);

  private:
    struct Batch;
    // Loads the parts the batch marks from the store, then finishes it
    // (at once when it marks none).
    void loadParts(Batch* batch);
    using ReloadReport = platform::gnulinux::WebKitContentBlockerManager::ReloadReport;
    // Main thread: applies what the reload service installed.
    void apply(ReloadReport report, uint64_t generation, std::set<std::string> allows,
               CompletionHandler handler);
    // Takes the parts (one reference each; null entries for none) and
    // applies them to every content manager.
    void setFilters(std::vector<WebKitUserContentFilter*> filters);
    bool blockingOff() const;
    WebKitUserContentFilterStore* store();
    // The content key of each stored part's source (the parts of `list`,
    // the stored rule list), where it is known.
    std::vector<std::string> storedPartKeys(const std::optional<std::string>& list) const;
    // The active profile's rule list as stored, or nothing.
    std::optional<std::string> storedRuleList() const;
    // Allowing a website changes every part (its rule must follow every
    // rule it could cancel), which takes seconds to compile on a large
    // list. Meanwhile the views showing a page of a newly allowed website
    // get no filter at all, which is what the allow rule gives them except
    // for the upgrades to HTTPS that follow it; the compiled list then
    // takes over.
    void letAllowedPagesThrough(const std::set<std::string>& allows);

    std::string containerPath_;
    std::string defaultsPath_;
    std::shared_ptr<platform::gnulinux::WebKitContentBlockerManager> service_;
    WebKitUserContentFilterStore* store_ = nullptr;
    std::vector<WebKitUserContentFilter*> filters_;  // by part; empty: no filter
    std::vector<std::string> keys_;                  // the content key of each part's source
    std::vector<WebKitUserContentManager*> managers_;
    std::map<WebKitUserContentManager*, WebKitWebView*> views_;
    // The allow patterns of the list applied last.
    std::set<std::string> appliedAllows_;
    std::function<void()> allowApplied_;
    std::function<void(bool)> filterChanged_;
    // Reloads overlap when other programs change the list meanwhile: the
    // last one started is the one that stays.
    std::atomic<uint64_t> started_ = 0;
    uint64_t applied_ = 0;
    std::vector<GFileMonitor*> monitors_;
    guint followSource_ = 0;
};

}  // namespace stonewall::browser
