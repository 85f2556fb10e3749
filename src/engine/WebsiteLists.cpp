// The block, allow and secure website lists of the active profile, their
// status in the shared record, and the same-site heuristics used for picked
// elements.

#include "engine/WebsiteLists.h"

#include <uriparser/Uri.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <string>

#include "engine/RuleCompiler.h"
#include "engine/TextComponents.h"
#include "model/ProfileRule.h"
#include "utilities/Generator.h"
#include "utilities/URLParts.h"

namespace stonewall {

namespace {

constexpr char kAnyURLFilter[] = ".*";
constexpr char kDefaultStatusComponent[] = "-1";
constexpr size_t kStatusComponentCount = 3;
constexpr std::string_view kListRuleExists = "1";

// The three status components; positions the text lacks (an old or damaged
// record) read as "no list rule yet".
std::array<std::string, kStatusComponentCount> statusComponents(const NullableString& status) {
    std::array<std::string, kStatusComponentCount> components;
    components.fill(kDefaultStatusComponent);
    if (!status) return components;
    const auto pieces = engine_detail::componentsSeparatedByString(*status, ",");
    for (size_t i = 0; i < kStatusComponentCount && i < pieces.size(); ++i) {
        components[i] = pieces[i];
    }
    return components;
}

// The integer at the start of the text, as the product's other programs read
// these components: leading spaces and a sign allowed, digits up to the first
// other character, 0 when there are none, clamped to 32 bits.
int64_t leadingIntegerValue(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
    int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = std::min<int64_t>(value * 10 + (text[i] - '0'), int64_t{INT32_MAX} + 1);
    }
    if (negative) value = -value;
    return std::clamp<int64_t>(value, INT32_MIN, INT32_MAX);
}

// Length in UTF-16 units, the unit in which label lengths are counted.
size_t utf16Length(std::string_view text) {
    size_t length = 0;
    for (unsigned char byte : text) {
        if ((byte & 0xC0) == 0x80) continue;  // continuation byte
        length += byte >= 0xF0 ? 2 : 1;
    }
    return length;
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// Whether the text parses as a URL reference whose path is empty
// ("https://example.com" yes; "https://example.com/" and "example.com" no).
std::optional<bool> urlPathIsEmpty(const std::string& text) {
    UriUriA uri;
    const char* errorPosition = nullptr;
    if (uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(), &errorPosition) !=
        URI_SUCCESS) {
        return std::nullopt;
    }
    const bool empty = uri.pathHead == nullptr && uri.absolutePath == URI_FALSE;
    uriFreeUriMembersA(&uri);
    return empty;
}

}  // namespace

// --- Adding the current website to a list --------------------------------------

void WebsiteLists::createBlockWebsiteCustomRule(const NullableString& url,
                                                CompletionHandler completionHandler) {
    createWebsiteCustomRule(ActionCode::kBlockWebsite, url, std::move(completionHandler));
}

void WebsiteLists::createSecureWebsiteCustomRule(const NullableString& url,
                                                 CompletionHandler completionHandler) {
    createWebsiteCustomRule(ActionCode::kSecureWebsite, url, std::move(completionHandler));
}

void WebsiteLists::createWhitelistWebsiteCustomRule(const NullableString& url,
                                                    CompletionHandler completionHandler) {
    createWebsiteCustomRule(ActionCode::kAllowWebsite, url, std::move(completionHandler));
}

void WebsiteLists::createWebsiteCustomRule(int64_t action, const NullableString& url,
                                           CompletionHandler completionHandler) {
    const NullableString host = url ? PunycodeAdditions::hostFromURL(*url) : std::nullopt;
    customRules_.processCustomRules({websiteCustomRule(action, host)});
    // Status 0 keeps the rule in the shared database only; the application
    // has nothing new to read from the profile then.
    if (getWebsitesStatusShared(action) != WebsiteListStatus::kSharedOnly) {
        CompanionState::sendUpdateNotification();
    }
    if (completionHandler) completionHandler(std::nullopt);
}

SharedCustomRule WebsiteLists::blockWebsiteCustomRule(const NullableString& host) const {
    return websiteCustomRule(ActionCode::kBlockWebsite, host);
}

SharedCustomRule WebsiteLists::secureWebsiteCustomRule(const NullableString& host) const {
    return websiteCustomRule(ActionCode::kSecureWebsite, host);
}

SharedCustomRule WebsiteLists::whitelistWebsiteCustomRule(const NullableString& host) const {
    return websiteCustomRule(ActionCode::kAllowWebsite, host);
}

SharedCustomRule WebsiteLists::websiteCustomRule(int64_t action, const NullableString& host) const {
    SharedCustomRule rule;
    rule.blocker = BlockerCode::kCustom;
    rule.action = action;
    rule.filter = kAnyURLFilter;
    rule.domains = host;
    rule.domainType = DomainTypeCode::kIfTopURL;
    // One identifier per list and profile, so the application sees every
    // website of a list as one rule.
    rule.ruleID = Generator::customRuleID(action, state_.activeProfileID());
    rule.active = 1;
    return rule;
}

// --- Domain status -------------------------------------------------------------------

int64_t WebsiteLists::getWebsitesStatusShared(int64_t action) const {
    return websitesStatus(state_.sharedData(), action);
}

int64_t WebsiteLists::websitesStatus(const std::optional<SharedData>& sharedData, int64_t action) {
    const std::optional<size_t> position = websiteListStatusPosition(action);
    if (!position) return WebsiteListStatus::kNoListRule;
    const auto components = statusComponents(sharedData ? sharedData->domainStatus : std::nullopt);
    return leadingIntegerValue(components[*position]);
}

void WebsiteLists::updateWebsitesStatusShared(int64_t action) {
    std::optional<SharedData>& sharedData = state_.sharedData();
    if (!sharedData) return;
    if (const std::optional<size_t> position = websiteListStatusPosition(action)) {
        auto components = statusComponents(sharedData->domainStatus);
        components[*position] = std::string(kListRuleExists);
        sharedData->domainStatus =
            engine_detail::concatenate({components[0], ",", components[1], ",", components[2]});
    }
    state_.sharedDatabase().updateSharedDataDetails(*sharedData);
}

// --- Membership -------------------------------------------------------------------------

namespace {

// Only the first rule of an action is its list; pattern entries never count.
bool listRuleHolds(const ProfileRule& listRule, const std::string& host) {
    if (!listRule.domains) return false;
    for (const std::string& entry :
         engine_detail::componentsSeparatedByString(*listRule.domains, ",")) {
        if (!startsWith(entry, "*") && entry == host) return true;
    }
    return false;
}

}  // namespace

bool WebsiteLists::checkWebsiteExists(const NullableString& host, int64_t action) const {
    return checkWebsiteExists(host, std::span<const int64_t>(&action, 1)).front();
}

std::vector<bool> WebsiteLists::checkWebsiteExists(const NullableString& host,
                                                   std::span<const int64_t> actions) const {
    std::vector<bool> exists(actions.size(), false);
    const std::shared_ptr<ProfileDatabase>& activeDatabase = state_.activeDatabase();
    if (!host || !activeDatabase) return exists;
    const auto listRules = activeDatabase->getFirstProfileRulesByActions(actions);
    for (size_t i = 0; i < actions.size(); ++i) {
        exists[i] = listRules[i] && listRuleHolds(*listRules[i], *host);
    }
    return exists;
}

bool WebsiteLists::checkDomainInWebsiteList(const NullableString& /*website*/,
                                            const NullableString& domain, int64_t action) const {
    if (!domain) return false;
    const std::string reversedDomain = reverseDomain(*domain);
    for (const std::string& entry :
         RuleCompiler::readWebsitesRules(std::nullopt, action, state_.activeDatabase())) {
        if (startsWith(entry, "*")) {
            // A plain prefix of the reversed labels: "*example.com" also takes
            // "examplefoo.com", as the lists have always matched.
            if (startsWith(reversedDomain, reverseDomain(std::string_view(entry).substr(1)))) {
                return true;
            }
        } else if (entry == *domain) {
            return true;
        }
    }
    return false;
}

bool WebsiteLists::checkBlockWebsite(const SharedCustomRule& rule, int64_t total) {
    if (total != 1) return false;
    if (!rule.filter || !startsWith(*rule.filter, "^[^:]")) return false;
    if (rule.domains && !rule.domains->empty()) return false;
    if (!rule.filterDomain) return false;
    return urlPathIsEmpty(*rule.filterDomain).value_or(false);
}

// --- Same-site heuristics --------------------------------------------------------------------

bool WebsiteLists::checkDomainsShareOrigin(const NullableString& host,
                                           const NullableString& childDomain) {
    if (host && childDomain && *host == *childDomain) return true;
    if (!childDomain || childDomain->empty() || *childDomain == "about:blank") return false;
    const NullableString key = extractDomainData(host);
    const NullableString childHost = hostFromURL(childDomain);
    if (!key || !childHost) return false;
    return startsWith(reverseDomain(*childHost), *key);
}

NullableString WebsiteLists::extractDomainData(const NullableString& host) {
    if (!host) return std::nullopt;
    const auto labels = engine_detail::componentsSeparatedByString(reverseDomain(*host), ".");
    const size_t topLength = utf16Length(labels[0]);
    using engine_detail::concatenate;
    if (topLength == 3 && labels.size() >= 2) return concatenate({labels[0], ".", labels[1]});
    // Two-letter top-level domains are taken to have a second-level public
    // suffix (co.uk), so a third label is part of the key when there is one.
    if (topLength == 2 && labels.size() >= 3) {
        return concatenate({labels[0], ".", labels[1], ".", labels[2]});
    }
    if (topLength == 2 && labels.size() == 2) return concatenate({labels[0], ".", labels[1]});
    return std::nullopt;
}

std::string WebsiteLists::reverseDomain(std::string_view host) {
    if (host.empty()) return {};
    auto labels = engine_detail::componentsSeparatedByString(host, ".");
    std::reverse(labels.begin(), labels.end());
    std::string reversed;
    reversed.reserve(host.size());
    for (size_t i = 0; i < labels.size(); ++i) {
        if (i) reversed.push_back('.');
        reversed.append(labels[i]);
    }
    return reversed;
}

NullableString WebsiteLists::hostFromURL(const NullableString& url) {
    if (!url) return std::nullopt;
    return PunycodeAdditions::hostFromURL(*url);
}

}  // namespace stonewall
