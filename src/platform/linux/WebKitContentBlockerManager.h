#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/ContainerLayout.h"
#include "platform/ContentBlockerManager.h"
#include "platform/Log.h"
#include "platform/RuleListSplit.h"

namespace stonewall::platform::gnulinux {

// Stands in for the browser's content-blocker reload: it does what the
// browser does when it loads the Stonewall content blocker anew, with
// WebKitGTK's own rule-list compiler (WebKitUserContentFilterStore).
//
// A reload of kContentBlockerIdentifier reads the shared defaults file as
// another process sees it (values synchronised to disk): "activeProfileID"
// names the rule list "<container>/.Profiles/profile_<id>_unarchive.json";
// when "blockingStatus" is 2 (blocking off) kAllowEverythingRuleList is
// used instead. The compiled list goes into the store folder
// "<container>/Library/ContentBlockers" (storePathForContainer).
//
// The contract for browsers: the CURRENT list of a content blocker is stored
// in that folder as kRuleListParts lists that apply side by side (see
// RuleListSplit.h), under the identifiers ruleListPartIdentifier(identifier,
// 0 ... kRuleListParts - 1) (WebKit keeps each as "ContentRuleList-<id>");
// load every part, e.g. with lookUpRuleList or
// webkit_user_content_filter_store_load, and add them all to a content
// manager. Parts compiled before are kept for reuse by content in a
// subfolder (see CompiledRuleListCache), so a reload compiles only the parts
// whose rules changed, and a reload of a list compiled before never loads
// WebKit.
//
// The completion gets no error, WebKit's own error (domain
// "WebKitUserContentFilterError", its code and message), or one of ours in
// kErrorDomain. Completions come on the service's own thread.
//
// WebKit lives in a loadable module (WebKitModule.h), loaded on the first
// compile; it runs on one thread of the module's, because WebKit binds
// itself to the thread (and the main context) it is first used on. No
// display is needed.
class WebKitContentBlockerManager : public ContentBlockerManager {
  public:
    static constexpr const char* kContentBlockerIdentifier =
        ContainerLayout::kContentBlockerIdentifier;
    static constexpr const char* kErrorDomain = "StonewallContentBlockerErrorDomain";
    enum ErrorCode : int64_t {
        kUnknownIdentifier = 1,
        kNoActiveProfile = 2,
        kRuleListMissing = 3,
        kRuleListUnreadable = 4,
        kStoreUnusable = 5,
        kTimedOut = 6,
        kWebKitUnavailable = 7,
    };
    // Lets every load through: what the content blocker serves while
    // blocking is off.
    static constexpr const char* kAllowEverythingRuleList =
        R"([{"action":{"type":"ignore-previous-rules"},"trigger":{"url-filter":".*"}}])";

    // `defaultsPath` is the shared suite's file (see FileUserDefaults).
    WebKitContentBlockerManager(std::string containerPath, std::string defaultsPath,
                                std::shared_ptr<Log> log = nullptr);

    void reloadContentBlockerWithIdentifier(const std::string& identifier,
                                            CompletionHandler completionHandler) override;

    // What a reload did, for a browser that applies the result itself.
    struct ReloadReport {
        std::optional<Error> error;
        bool compiled = false;  // false: every part came from the cache
        bool blockingOff = false;
        // The content key (CompiledRuleListCache::contentKey) of each
        // part's source, kRuleListParts of them; empty on error.
        std::vector<std::string> partKeys;
    };
    // Sees the rule list of a reload before any of it is compiled, on the
    // service's thread.
    using ListObserver = std::function<void(std::string_view ruleList)>;
    // A reload as above, with its report; `done` is called on the
    // service's thread.
    void reload(const std::string& identifier, std::function<void(ReloadReport)> done,
                ListObserver observer = {});

    // The rule-list file the content blocker loads now, as the shared
    // defaults file says: null while blocking is off (then it loads
    // kAllowEverythingRuleList), an error when no usable profile is active.
    struct ActiveList {
        std::optional<Error> error;
        std::optional<std::string> path;
    };
    static ActiveList activeRuleList(const std::string& containerPath,
                                     const std::string& defaultsPath);

    // For a program that runs WebKit on its main thread already (a
    // browser): from now on this class compiles and looks up there (see
    // kWebKitOnMainContext). `mainLoopEnded` tells it that the main loop has
    // ended, so that nothing waits for it any more.
    static void useMainThreadWebKit();
    static void mainLoopEnded();

    // A rule left out of a reload because WebKit rejected it, so that the
    // rest of the list could load (also logged as an error).
    struct DroppedRule {
        size_t index;      // in the rule list file, from 0
        std::string rule;  // its JSON
        Error error;       // WebKit's verdict on it
    };
    // The rules left out by the reloads of this process so far; clears them.
    static std::vector<DroppedRule> takeDroppedRules();

    const std::string& storePath() const { return storePath_; }
    static std::string storePathForContainer(const std::string& containerPath);

    // Compiles `json` into the store folder under `identifier` and returns
    // when WebKit is done. Callable from any thread, the main thread
    // included, without the caller running a loop, as often as needed.
    // These load the WebKit module when it is not loaded yet.
    [[nodiscard]] static std::optional<Error> compileRuleList(const std::string& storePath,
                                                              const std::string& identifier,
                                                              const std::string& json);

    // Loads a compiled list back; on success the identifier WebKit reports
    // is stored in `loadedIdentifier` when given.
    [[nodiscard]] static std::optional<Error> lookUpRuleList(
        const std::string& storePath, const std::string& identifier,
        std::string* loadedIdentifier = nullptr);

    // The file of the WebKit library the module runs with (loads it).
    [[nodiscard]] static std::string webKitLibraryPath();

  private:
    struct Worker;

    std::string containerPath_;
    std::string defaultsPath_;
    std::string storePath_;
    std::shared_ptr<Log> log_;
    std::mutex workerMutex_;
    std::shared_ptr<Worker> worker_;  // made by the first reload
};

}  // namespace stonewall::platform::gnulinux
