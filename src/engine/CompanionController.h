#pragma once

// The engine through which the browser side reads and changes the product's
// shared state: it compiles a blocker profile into the content-blocker rule
// list and drives the two-phase reload (class operations, no state), turns
// picked elements and website choices into custom rules, keeps the domain
// status of the three website lists and switches blocking and profiles.
//
// It is made of one part per concern and forwards each operation to it:
//
//   CompanionState  the shared database and record, the active profile's
//                   database, the file handler; status and profiles
//   RuleCompiler    compile, write, two-phase reload (class operations)
//   CustomRules     picked elements to rules, storing custom rules
//   WebsiteLists    block / secure / allow lists, domain status
//
// Each operation is described in the header of its part.
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

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/CompanionState.h"
#include "engine/CustomRules.h"
#include "engine/DataElement.h"
#include "engine/RuleCompiler.h"
#include "engine/WebsiteLists.h"
#include "model/ContentBlockerRule.h"
#include "model/ProfileRule.h"
#include "model/SharedCustomRule.h"
#include "model/SharedData.h"
#include "platform/Error.h"
#include "storage/FileHandler.h"
#include "storage/ProfileDatabase.h"
#include "storage/SharedDatabase.h"
#include "utilities/Nullable.h"

namespace stonewall {

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

    // --- Properties (CompanionState) --------------------------------------------

    bool blockerEnabled() const { return state_.blockerEnabled(); }
    void setBlockerEnabled(bool enabled) { state_.setBlockerEnabled(enabled); }
    const std::shared_ptr<ProfileDatabase>& activeDatabase() const {
        return state_.activeDatabase();
    }
    void setActiveDatabase(std::shared_ptr<ProfileDatabase> database) {
        state_.setActiveDatabase(std::move(database));
    }
    const FileHandler& fileHandler() const { return state_.fileHandler(); }
    SharedDatabase& sharedDatabase() const { return state_.sharedDatabase(); }
    const std::optional<SharedData>& sharedData() const { return state_.sharedData(); }
    void setSharedData(std::optional<SharedData> data) { state_.setSharedData(std::move(data)); }
    std::shared_ptr<CompanionControllerDelegate> delegate() const { return delegate_.lock(); }
    void setDelegate(const std::shared_ptr<CompanionControllerDelegate>& delegate) {
        delegate_ = delegate;
    }

    // --- Rule compiler (RuleCompiler, class operations) -------------------------

    using UniqueRules = RuleCompiler::UniqueRules;

    static void addUniqueRule(const ProfileRule& rule,
                              std::vector<ContentBlockerRule>& profileRules,
                              UniqueRules& uniqueRules);
    [[nodiscard]] static std::vector<ContentBlockerRule> readProfileRules(
        const NullableString& profileID, const std::shared_ptr<ProfileDatabase>& profileDatabase);
    static void writeProfileRules(const NullableString& profileID,
                                  const std::shared_ptr<ProfileDatabase>& profileDatabase);
    static void writeProfileRules(const NullableString& profileID,
                                  const std::shared_ptr<ProfileDatabase>& profileDatabase,
                                  CompileReport* report);
    [[nodiscard]] static std::vector<std::string> readWebsitesRules(
        const NullableString& profileID, int64_t action,
        const std::shared_ptr<ProfileDatabase>& profileDatabase);
    static void reloadBlockerRules(const NullableString& profileID,
                                   std::shared_ptr<ProfileDatabase> profileDatabase,
                                   CompletionHandler completionHandler);
    static void reloadBlockerRules(const NullableString& profileID,
                                   std::shared_ptr<ProfileDatabase> profileDatabase,
                                   CompletionHandler completionHandler, CompileReport* report);
    static platform::Nanoseconds settleDelay();
    [[nodiscard]] static bool hostReloadsContentBlockers();
    // Nothing in this program calls it.
    int64_t setCurrentSafariServices() const;

    // --- Custom rules (CustomRules) ---------------------------------------------

    void createVisualCustomRules(const std::vector<DataElement>& elements,
                                 CompletionHandler completionHandler);
    [[nodiscard]] static std::optional<SharedCustomRule> createVisualCustomRule(
        const NullableString& host, const DataElement& dataElement);
    [[nodiscard]] static SharedCustomRule hideCustomRule(const NullableString& host,
                                                         const NullableString& selector);
    [[nodiscard]] static SharedCustomRule blockCustomRule(const NullableString& host,
                                                          const NullableString& escapedURL,
                                                          const NullableString& filterDomain);
    static NullableString escapeData(const NullableString& text);
    static NullableString unescapeData(const NullableString& text);
    static bool checkTagSource(const NullableString& tag);
    static NullableString getElementSource(const NullableString& elementSource,
                                           const NullableString& elementCurrentSource);
    void processCustomRules(std::vector<SharedCustomRule> rules);

    // --- Website lists (WebsiteLists) -------------------------------------------

    void createBlockWebsiteCustomRule(const NullableString& url,
                                      CompletionHandler completionHandler);
    void createSecureWebsiteCustomRule(const NullableString& url,
                                       CompletionHandler completionHandler);
    void createWhitelistWebsiteCustomRule(const NullableString& url,
                                          CompletionHandler completionHandler);
    [[nodiscard]] SharedCustomRule blockWebsiteCustomRule(const NullableString& host) const;
    [[nodiscard]] SharedCustomRule secureWebsiteCustomRule(const NullableString& host) const;
    [[nodiscard]] SharedCustomRule whitelistWebsiteCustomRule(const NullableString& host) const;
    [[nodiscard]] int64_t getWebsitesStatusShared(int64_t action) const;
    void updateWebsitesStatusShared(int64_t action);
    [[nodiscard]] bool checkWebsiteExists(const NullableString& host, int64_t action) const;
    [[nodiscard]] std::vector<bool> checkWebsiteExists(const NullableString& host,
                                                       std::span<const int64_t> actions) const;
    [[nodiscard]] bool checkDomainInWebsiteList(const NullableString& website,
                                                const NullableString& domain, int64_t action) const;
    [[nodiscard]] static bool checkBlockWebsite(const SharedCustomRule& rule, int64_t total);
    [[nodiscard]] static bool checkDomainsShareOrigin(const NullableString& host,
                                                      const NullableString& childDomain);
    static NullableString extractDomainData(const NullableString& host);
    static std::string reverseDomain(std::string_view host);
    static NullableString hostFromURL(const NullableString& url);

    // --- Lifecycle and status (CompanionState) -----------------------------------

    void syncShared() { state_.syncShared(); }
    void connectProfileDatabase() { state_.connectProfileDatabase(); }
    void updateExtensionStatus() { state_.updateExtensionStatus(); }
    void changeStatus(CompletionHandler completionHandler);
    void activateProfile(const NullableString& profileID, CompletionHandler completionHandler);
    static void sendUpdateNotification();

  private:
    CompanionState state_;
    CustomRules customRules_{state_};
    WebsiteLists websiteLists_{state_, customRules_};
    std::weak_ptr<CompanionControllerDelegate> delegate_;
};

}  // namespace stonewall
