#pragma once

// The rule compiler: a blocker profile's rules -> the content-blocker rule
// list file, and the two-phase reload of the content blocker. Class
// operations only; it keeps no state between calls.
//
// Failures: operations never throw and never make up errors; the only error
// ever handed on is the browser's own reload error, or a CompileReport
// failure when the list could not be made.
//
// Process services: needs the platform services installed (dispatch,
// defaults, content blocker, host).

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "model/ContentBlockerRule.h"
#include "model/ProfileRule.h"
#include "model/RuleCodes.h"
#include "platform/ContainerLayout.h"
#include "platform/Dispatch.h"
#include "platform/Error.h"
#include "storage/ProfileDatabase.h"
#include "utilities/Nullable.h"

namespace stonewall {

// The browser identifier of the product's content-blocker extension.
inline constexpr std::string_view kContentBlockerIdentifier =
    ContainerLayout::kContentBlockerIdentifier;
// The most rules one compiled list holds; the browser refuses longer lists.
inline constexpr size_t kMaximumRuleCount = 50000;
// Shared defaults keys that the content-blocker extension reads on its load
// ("blockingStatus", the third, is CompanionState's).
inline constexpr std::string_view kActiveProfileIDKey = ContainerLayout::kActiveProfileIDKey;
inline constexpr std::string_view kBlockerReloadTypeKey = "blockerReloadType";
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

class RuleCompiler {
  public:
    RuleCompiler() = delete;

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

    // 4, 3 or 1 by the browser's content-blocker service generation.
    static int64_t setCurrentSafariServices();
};

}  // namespace stonewall
