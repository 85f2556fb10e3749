#include "model/ProfileRule.h"

#include <string_view>

#include "model/RuleText.h"
#include "model/SharedCustomRule.h"
#include "utilities/Punycode.h"
#include "utilities/StringHelpers.h"

namespace stonewall {

namespace {

constexpr std::string_view kTopURLPrefix = "^[^:]+://+";
constexpr std::string_view kSubdomainsPrefix = "^[^:]+://+([^:/]+\\.)?";
constexpr std::string_view kTopURLSuffix = "[:/]";

enum class DomainScheme {
    TopURL,  // convertToSafariData2: URL patterns under "if-top-url"/"unless-top-url"
    Domain,  // convertToSafariData: host names under "if-domain"/"unless-domain"
};

// The part both conversions share: the action, its url-filter, the case flag
// and the resource and load types.
ContentBlockerRule convertActionAndTypes(const ProfileRule& rule) {
    ContentBlockerRule result;
    auto& action = result.action;
    auto& trigger = result.trigger;

    switch (rule.action) {
        case ActionCode::kBlock:
        case ActionCode::kBlockWebsite:
            action.type = "block";
            // Deliberately only the block codes IDNA-encode their filter; the
            // other codes keep it as stored.
            if (rule.filter) trigger.urlFilter = PunycodeAdditions::IDNAEncodedString(*rule.filter);
            break;
        case ActionCode::kHide:
            action.type = "css-display-none";
            action.selector = rule.selector;
            trigger.urlFilter = rule.filter;
            break;
        case ActionCode::kBlockCookies:
            action.type = "block-cookies";
            trigger.urlFilter = rule.filter;
            break;
        case ActionCode::kAllowWebsite:
        case ActionCode::kException:
            action.type = "ignore-previous-rules";
            if (rule.selector && !rule.selector->empty()) action.selector = rule.selector;
            trigger.urlFilter = rule.filter;
            break;
        case ActionCode::kSecureWebsite:
        case ActionCode::kUpgradeHTTPS:
            action.type = "make-https";
            trigger.urlFilter = rule.filter;
            break;
        default:
            // Unknown codes still produce an object; the browser rejects it.
            break;
    }

    trigger.urlFilterIsCaseSensitive = rule.filterSensitive != 0;
    if (rule.resources) trigger.resourceType = RuleText::components(*rule.resources);
    if (rule.loads) trigger.loadType = RuleText::components(*rule.loads);
    return result;
}

std::string topURLPattern(std::string_view encodedDomain) {
    std::string pattern;
    // "*.shop.test" and "*shop.test" both mean the domain and its
    // subdomains. The subdomain group of the pattern brings its own dot, so
    // the dot after the "*" goes with the "*"; keeping it would demand an
    // empty label ("x..shop.test") and match nothing.
    const bool withSubdomains = !encodedDomain.empty() && encodedDomain.front() == '*';
    if (withSubdomains) {
        encodedDomain.remove_prefix(1);
        if (!encodedDomain.empty() && encodedDomain.front() == '.') encodedDomain.remove_prefix(1);
    }
    const std::string escaped = PunycodeAdditions::escapeData(encodedDomain);
    const std::string_view prefix = withSubdomains ? kSubdomainsPrefix : kTopURLPrefix;
    pattern.reserve(prefix.size() + escaped.size() + kTopURLSuffix.size());
    pattern += prefix;
    pattern += escaped;
    pattern += kTopURLSuffix;
    return pattern;
}

void convertDomains(const ProfileRule& rule, DomainScheme scheme, ContentBlockerTrigger& trigger) {
    if (!rule.domains) return;
    const int64_t type = rule.domainType;
    const bool patterns = scheme == DomainScheme::TopURL && (type == DomainTypeCode::kIfTopURL ||
                                                             type == DomainTypeCode::kUnlessTopURL);
    const bool verbatim = scheme == DomainScheme::Domain ||
                          type == DomainTypeCode::kIfTopURLVerbatim ||
                          type == DomainTypeCode::kUnlessTopURLVerbatim;
    if (!patterns && !verbatim) return;
    if (scheme == DomainScheme::Domain && type != DomainTypeCode::kIfTopURL &&
        type != DomainTypeCode::kUnlessTopURL)
        return;  // no key to write: skip the encoding work

    std::vector<std::string> list = RuleText::components(*rule.domains);
    for (std::string& entry : list) {
        std::string encoded = PunycodeAdditions::IDNAEncodedString(entry);
        entry = patterns ? topURLPattern(encoded) : std::move(encoded);
    }
    // Only the first entry is looked at: a list that starts empty means "no
    // domains", later empty entries are carried as they are.
    if (list.empty() || list.front().empty()) return;

    std::optional<std::vector<std::string>>* key = nullptr;
    if (scheme == DomainScheme::TopURL) {
        if (type == DomainTypeCode::kIfTopURL || type == DomainTypeCode::kIfTopURLVerbatim)
            key = &trigger.ifTopURL;
        else if (type == DomainTypeCode::kUnlessTopURL ||
                 type == DomainTypeCode::kUnlessTopURLVerbatim)
            key = &trigger.unlessTopURL;
    } else {
        if (type == DomainTypeCode::kIfTopURL)
            key = &trigger.ifDomain;
        else if (type == DomainTypeCode::kUnlessTopURL)
            key = &trigger.unlessDomain;
    }
    if (key) *key = std::move(list);
}

void appendValidated(std::string& out, const NullableString& text) {
    if (text) out += *text;
}

// What a rule does and where: the fields a profile rule and a shared custom
// rule have in common.
template <typename Rule>
void copyMatchFields(const Rule& from, ProfileRule& to) {
    to.action = from.action;
    to.selector = from.selector;
    to.filter = from.filter;
    to.resources = from.resources;
    to.loads = from.loads;
    to.domainType = from.domainType;
    to.filterSensitive = from.filterSensitive;
    to.domains = from.domains;
}

}  // namespace

ProfileRule ProfileRule::initWithRule(const ProfileRule& rule, int64_t reloadType) {
    ProfileRule result;
    if (const auto tag = ruleIDForReloadType(reloadType)) result.ruleID = std::string(*tag);
    result.blocker = rule.blocker;
    copyMatchFields(rule, result);
    return result;
}

ProfileRule ProfileRule::initWithCustomRule(const SharedCustomRule& rule) {
    ProfileRule result;
    result.ruleID = rule.ruleID;
    result.blocker = BlockerCode::kCustom;
    copyMatchFields(rule, result);
    return result;
}

ProfileRule ProfileRule::initWithSharedCustomRule(const SharedCustomRule& rule) {
    return initWithCustomRule(rule);
}

ContentBlockerRule ProfileRule::convertToSafariData2() const {
    ContentBlockerRule result = convertActionAndTypes(*this);
    convertDomains(*this, DomainScheme::TopURL, result.trigger);
    return result;
}

ContentBlockerRule ProfileRule::convertToSafariData() const {
    ContentBlockerRule result = convertActionAndTypes(*this);
    convertDomains(*this, DomainScheme::Domain, result.trigger);
    return result;
}

std::string ProfileRule::computeHash() const {
    std::string hash;
    appendHash(hash);
    return hash;
}

void ProfileRule::appendHash(std::string& out) const {
    // "%ld-%@-%@-%@-%@-%ld-%@"; validateData maps null to "", which
    // appendValidated does without the copy.
    RuleText::appendInteger(out, action);
    out.push_back('-');
    appendValidated(out, selector);
    out.push_back('-');
    appendValidated(out, filter);
    out.push_back('-');
    appendValidated(out, resources);
    out.push_back('-');
    appendValidated(out, loads);
    out.push_back('-');
    RuleText::appendInteger(out, domainType);
    out.push_back('-');
    appendValidated(out, domains);
}

std::string ProfileRule::validateData(const NullableString& text) {
    return text ? *text : std::string();
}

void ProfileRule::mergeProfileRuleDomains(const ProfileRule& other) {
    domains = RuleText::mergeDomains(domains, other.domains);
}

std::string ProfileRule::description() const {
    std::string text;
    text.reserve(160);
    text += "ruleID: ";
    text += textOrNull(ruleID);
    text += " - blocker: ";
    RuleText::appendInteger(text, blocker);
    text += " - action: ";
    RuleText::appendInteger(text, action);
    text += " - selector: ";
    text += textOrNull(selector);
    text += " - filter: ";
    text += textOrNull(filter);
    text += " - resources: ";
    text += textOrNull(resources);
    text += " - loads: ";
    text += textOrNull(loads);
    text += " - domains: ";
    text += textOrNull(domains);
    text += " - domainType: ";
    RuleText::appendInteger(text, domainType);
    text += " - filterSensitive: ";
    RuleText::appendInteger(text, filterSensitive);
    return text;
}

}  // namespace stonewall
