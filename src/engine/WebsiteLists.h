#pragma once

// The block, allow and secure website lists of the active profile: adding
// the current website to one, their status in the shared record, membership,
// and the same-site heuristics used for picked elements.
//
// Threads: used by one thread at a time, as the CompanionController that
// owns it. Every operation runs synchronously and calls its completion
// handler before returning.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/CompanionState.h"
#include "engine/CustomRules.h"
#include "model/RuleCodes.h"
#include "model/SharedCustomRule.h"
#include "model/SharedData.h"
#include "platform/Error.h"
#include "utilities/Nullable.h"

namespace stonewall {

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

class WebsiteLists {
  public:
    // The state and the custom rules stay the caller's and must outlive this
    // object; a website choice is stored as a custom rule.
    WebsiteLists(CompanionState& state, CustomRules& customRules)
        : state_(state), customRules_(customRules) {}
    WebsiteLists(const WebsiteLists&) = delete;
    WebsiteLists& operator=(const WebsiteLists&) = delete;

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
    // The same, read from the given shared record.
    [[nodiscard]] static int64_t websitesStatus(const std::optional<SharedData>& sharedData,
                                                int64_t action);
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

  private:
    void createWebsiteCustomRule(int64_t action, const NullableString& url,
                                 CompletionHandler completionHandler);
    SharedCustomRule websiteCustomRule(int64_t action, const NullableString& host) const;

    CompanionState& state_;
    CustomRules& customRules_;
};

}  // namespace stonewall
