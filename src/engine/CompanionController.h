#pragma once

// The engine through which the browser side reads and changes the product's
// shared state: it compiles a blocker profile into the content-blocker rule
// list and drives the two-phase reload (class operations, no state), turns
// picked elements and website choices into custom rules, keeps the domain
// status of the three website lists and switches blocking and profiles.
//
// Threads: an instance is used by one thread at a time (the main thread of
// the popover, or the handler thread that made it for one message). Every
// operation runs synchronously on the caller's thread and calls its
// completion handler before returning, except reloadBlockerRules, whose
// outcome always arrives later on the main queue.
//
// Failures: operations never throw and never make up errors; the only error
// ever handed on is the browser's own reload error. Storage failures show up
// as unchanged tables (they go to the storage layer's log hook).
//
// Process services: needs the platform services installed (dispatch,
// defaults, notifications, content blocker, host, bundle).

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "engine/DataElement.h"
#include "model/ContentBlockerRule.h"
#include "model/ProfileRule.h"
#include "model/RuleCodes.h"
#include "model/SharedCustomRule.h"
#include "model/SharedData.h"
#include "platform/ContainerLayout.h"
#include "platform/Error.h"
#include "storage/FileHandler.h"
#include "storage/ProfileDatabase.h"
#include "storage/SharedDatabase.h"
#include "utilities/Nullable.h"

namespace stonewall {

// The browser identifier of the product's content-blocker extension.
inline constexpr std::string_view kContentBlockerIdentifier =
    ContainerLayout::kContentBlockerIdentifier;
// The most rules one compiled list holds; the browser refuses longer lists.
inline constexpr size_t kMaximumRuleCount = 50000;
// Shared defaults keys that the content-blocker extension reads on its load.
inline constexpr std::string_view kActiveProfileIDKey = "activeProfileID";
inline constexpr std::string_view kBlockerReloadTypeKey = "blockerReloadType";
inline constexpr std::string_view kBlockingStatusKey = "blockingStatus";
// The notification that tells the main application to re-read shared state.
inline constexpr std::string_view kExtensionUpdateNotification = "extensionUpdate";
inline constexpr std::string_view kExtensionUpdateObject = "StonewallExtension";
// Errors of our own that a reload completion may carry (the code is the
// CompileReport::Failure): the list could not be made, nothing was reloaded.
inline constexpr std::string_view kCompilerErrorDomain = "StonewallCompilerErrorDomain";
// Hosts whose toolkit is older than this (before macOS 10.12) get no reloads.
inline constexpr double kMinimumAppKitVersion = 1504;

// The order of the compiled list, by action. Blocking and hiding rules come
// before every "ignore-previous-rules" rule, so that an allowed website
// overrides all of them; "make-https" rules come last. The browser applies
// rules in list order, so this order is the product's behaviour, not a detail.
inline constexpr std::array<int64_t, 8> kCompileOrder = {
    ActionCode::kBlockWebsite,  ActionCode::kBlock,        ActionCode::kBlockCookies,
    ActionCode::kHide,          ActionCode::kAllowWebsite, ActionCode::kException,
    ActionCode::kSecureWebsite, ActionCode::kUpgradeHTTPS,
};

// What the shared record's domain status says of one website list
// (getWebsitesStatusShared). Any other value leaves the list alone.
namespace WebsiteListStatus {
inline constexpr int64_t kNoListRule = -1;     // the next website starts the list rule
inline constexpr int64_t kSharedOnly = 0;      // websites go to the shared database only
inline constexpr int64_t kListRuleExists = 1;  // websites join the profile's list rule
}  // namespace WebsiteListStatus

// The position of an action's list in the domain status text (block 0,
// allow 1, secure 2), or none for actions that have no list.
constexpr std::optional<size_t> websiteListStatusPosition(int64_t action) {
    switch (action) {
        case ActionCode::kBlockWebsite:
            return 0;
        case ActionCode::kAllowWebsite:
            return 1;
        case ActionCode::kSecureWebsite:
            return 2;
        default:
            return std::nullopt;
    }
}

// What one compilation did, for the command-line tool. Filled only by the
// overloads that take one; the compiled output is the same either way.
struct CompileReport {
    // Rows read from the profile database, by action code (index 1 to 8;
    // index 0 is unused).
    std::array<int64_t, 9> rulesReadByAction{};
    int64_t duplicatesDropped = 0;  // rows whose hash an earlier row already had
    int64_t rulesDroppedByCap = 0;  // distinct rules past the 50000th
    int64_t rulesWritten = 0;       // entries of the list, the placeholder included
    bool placeholderUsed = false;   // the profile gave no rule at all
    int64_t bytesWritten = 0;       // size of the JSON text
    bool fileWritten = false;       // the file is in place (write reported success)
    std::string outputPath;         // full path of the rule file
    NullableString profileID;       // the profile compiled (after any shared-state lookup)
    // Why no list was made although one was asked for. A list built from a
    // read that stopped part-way would silently unblock the rules not read,
    // so then nothing is written, the old file stays and no reload follows.
    enum class Failure { None, DatabaseBusy, DatabaseUnreadable, OutOfMemory };
    Failure failure = Failure::None;

    int64_t rulesRead() const;
};

// Declared for an observer of the engine; nothing calls it yet.
class CompanionControllerDelegate {
  public:
    virtual ~CompanionControllerDelegate() = default;
};

class CompanionController {
  public:
    // Opens the ".Profiles" folder, the shared database, reads the shared
    // record and opens the active profile's database.
    CompanionController();
    CompanionController(const CompanionController&) = delete;
    CompanionController& operator=(const CompanionController&) = delete;

    // --- Properties -----------------------------------------------------------

    // True once a sync has seen a host that can reload content blockers.
    bool blockerEnabled() const { return blockerEnabled_; }
    void setBlockerEnabled(bool enabled) { blockerEnabled_ = enabled; }
    // Null only when set so by a caller.
    const std::shared_ptr<ProfileDatabase>& activeDatabase() const { return activeDatabase_; }
    void setActiveDatabase(std::shared_ptr<ProfileDatabase> database) {
        activeDatabase_ = std::move(database);
    }
    const FileHandler& fileHandler() const { return fileHandler_; }
    SharedDatabase& sharedDatabase() const { return *sharedDatabase_; }
    // The last-read shared record; absent when the shared database gave none.
    const std::optional<SharedData>& sharedData() const { return sharedData_; }
    void setSharedData(std::optional<SharedData> data) { sharedData_ = std::move(data); }
    std::shared_ptr<CompanionControllerDelegate> delegate() const { return delegate_.lock(); }
    void setDelegate(const std::shared_ptr<CompanionControllerDelegate>& delegate) {
        delegate_ = delegate;
    }

    // --- Rule compiler (class operations) --------------------------------------

    // The dedupe map of one compilation: the hash keys seen so far.
    using UniqueRules = std::unordered_set<std::string>;

    // First occurrence wins: a rule whose hash is already known is dropped;
    // otherwise its hash is recorded and, while the list is below the cap, its
    // converted form appended.
    static void addUniqueRule(const ProfileRule& rule,
                              std::vector<ContentBlockerRule>& profileRules,
                              UniqueRules& uniqueRules);

    // The compiled list of the profile (never empty). An absent profileID is
    // looked up in the shared record (then unused); a null database gives the
    // placeholder list.
    [[nodiscard]] static std::vector<ContentBlockerRule> readProfileRules(
        const NullableString& profileID, const std::shared_ptr<ProfileDatabase>& profileDatabase);

    // Compiles the profile and writes ".Profiles/profile_<id>_unarchive.json"
    // atomically. Write failures are not reported (the browser then loads
    // whatever file is there), except in the report. A large profile is
    // converted on a helper thread while this one reads the database; the
    // call returns once the file is written. An identifier with a "/" writes
    // nothing.
    static void writeProfileRules(const NullableString& profileID,
                                  const std::shared_ptr<ProfileDatabase>& profileDatabase);
    static void writeProfileRules(const NullableString& profileID,
                                  const std::shared_ptr<ProfileDatabase>& profileDatabase,
                                  CompileReport* report);

    // The domains of the first rule of that action, split at ","; empty when
    // the database has no such rule (or is null). The first argument is unused.
    [[nodiscard]] static std::vector<std::string> readWebsitesRules(
        const NullableString& profileID, int64_t action,
        const std::shared_ptr<ProfileDatabase>& profileDatabase);

    // With a profile: writes its rule file (opening its database when none is
    // given) and stores "activeProfileID". Then reloads the content blocker in
    // two phases ("blockerReloadType" 1, then 2 after the host's settle delay).
    // completionHandler gets the browser's error or none, always on the main
    // queue, once. On a host older than toolkit 1504 nothing is done and the
    // handler gets no error at once.
    static void reloadBlockerRules(const NullableString& profileID,
                                   std::shared_ptr<ProfileDatabase> profileDatabase,
                                   CompletionHandler completionHandler);
    static void reloadBlockerRules(const NullableString& profileID,
                                   std::shared_ptr<ProfileDatabase> profileDatabase,
                                   CompletionHandler completionHandler, CompileReport* report);

    // The delay between the two reload phases on this host.
    static platform::Nanoseconds settleDelay();
    // Whether this host's toolkit (kMinimumAppKitVersion and later) reloads
    // content blockers at all; older hosts get no reloads and no status.
    [[nodiscard]] static bool hostReloadsContentBlockers();

    // 4, 3 or 1 by the browser's content-blocker service generation. Nothing
    // in this program calls it.
    int64_t setCurrentSafariServices() const;

    // --- Custom rules (picked elements) ---------------------------------------

    // One rule per usable element, in order; stores them, posts the update
    // notification and calls the handler (no error) before returning.
    void createVisualCustomRules(const std::vector<DataElement>& elements,
                                 CompletionHandler completionHandler);
    // A hide rule for ordinary elements, a block rule for media elements with
    // a usable source, none otherwise.
    [[nodiscard]] static std::optional<SharedCustomRule> createVisualCustomRule(
        const NullableString& host, const DataElement& dataElement);
    [[nodiscard]] static SharedCustomRule hideCustomRule(const NullableString& host,
                                                         const NullableString& selector);
    [[nodiscard]] static SharedCustomRule blockCustomRule(const NullableString& host,
                                                          const NullableString& escapedURL,
                                                          const NullableString& filterDomain);
    static NullableString escapeData(const NullableString& text);
    static NullableString unescapeData(const NullableString& text);
    // True for the media and image tags "img", "video", "audio", "embed",
    // "object" (exact comparison).
    static bool checkTagSource(const NullableString& tag);
    static NullableString getElementSource(const NullableString& elementSource,
                                           const NullableString& elementCurrentSource);

    // Stores custom rules under the active profile: the shared rules in the
    // shared database, their profile rules in the active database, website
    // rules as the domain status of their list says.
    void processCustomRules(std::vector<SharedCustomRule> rules);

    // --- Website lists -------------------------------------------------------

    // Adds the host of the page URL to a list; the handler (no error) is
    // called before returning. Reloading is the caller's business.
    void createBlockWebsiteCustomRule(const NullableString& url,
                                      CompletionHandler completionHandler);
    void createSecureWebsiteCustomRule(const NullableString& url,
                                       CompletionHandler completionHandler);
    void createWhitelistWebsiteCustomRule(const NullableString& url,
                                          CompletionHandler completionHandler);

    [[nodiscard]] SharedCustomRule blockWebsiteCustomRule(const NullableString& host) const;
    [[nodiscard]] SharedCustomRule secureWebsiteCustomRule(const NullableString& host) const;
    [[nodiscard]] SharedCustomRule whitelistWebsiteCustomRule(const NullableString& host) const;

    // -1 (no list rule yet), 1 (list rule exists), 0 (shared database only),
    // or another value (skip); -1 for actions that have no list. A position
    // that the status text lacks reads as -1, a non-numeric one as 0.
    [[nodiscard]] int64_t getWebsitesStatusShared(int64_t action) const;
    // Sets the action's position to 1 and stores the record (any action).
    void updateWebsitesStatusShared(int64_t action);

    // Exact membership: a plain entry of the list equal to the host.
    [[nodiscard]] bool checkWebsiteExists(const NullableString& host, int64_t action) const;
    // The same for several lists, one answer per action, from one read of
    // the profile.
    [[nodiscard]] std::vector<bool> checkWebsiteExists(const NullableString& host,
                                                       std::span<const int64_t> actions) const;
    // Membership with "*" entries as reversed-label prefixes. The first
    // argument is unused.
    [[nodiscard]] bool checkDomainInWebsiteList(const NullableString& website,
                                                const NullableString& domain, int64_t action) const;
    [[nodiscard]] static bool checkBlockWebsite(const SharedCustomRule& rule, int64_t total);

    [[nodiscard]] static bool checkDomainsShareOrigin(const NullableString& host,
                                                      const NullableString& childDomain);
    static NullableString extractDomainData(const NullableString& host);
    static std::string reverseDomain(std::string_view host);
    static NullableString hostFromURL(const NullableString& url);

    // --- Lifecycle and status ---------------------------------------------------

    void syncShared();
    void connectProfileDatabase();
    void updateExtensionStatus() { blockerEnabled_ = true; }
    // Toggles blocking (status 0 <-> 1, any other value -> 0), stores it,
    // notifies and sets "blockingStatus". Without a shared record nothing is
    // stored. The handler gets no error before the call returns.
    void changeStatus(CompletionHandler completionHandler);
    // Makes the profile the active one in the shared record and notifies;
    // neither reopens the database nor reloads.
    void activateProfile(const NullableString& profileID, CompletionHandler completionHandler);
    static void sendUpdateNotification();

  private:
    void createWebsiteCustomRule(int64_t action, const NullableString& url,
                                 CompletionHandler completionHandler);
    SharedCustomRule websiteCustomRule(int64_t action, const NullableString& host) const;
    NullableString activeProfileID() const;

    bool blockerEnabled_ = false;
    std::shared_ptr<ProfileDatabase> activeDatabase_;
    FileHandler fileHandler_;
    SharedDatabase* sharedDatabase_ = nullptr;
    std::optional<SharedData> sharedData_;
    std::weak_ptr<CompanionControllerDelegate> delegate_;
};

}  // namespace stonewall
