// Custom rules: picked page elements -> hide and block rules, and the storing
// of every custom rule (picked elements and website choices).

#include "engine/CustomRules.h"

#include <array>
#include <string>
#include <utility>

#include "engine/TextComponents.h"
#include "engine/WebsiteLists.h"
#include "model/ProfileRule.h"
#include "model/RuleCodes.h"
#include "utilities/Generator.h"
#include "utilities/StringHelpers.h"
#include "utilities/URLParts.h"

namespace stonewall {

namespace {

constexpr char kAnyURLFilter[] = ".*";
// Any scheme, any run of subdomains, then the escaped URL text.
constexpr char kBlockFilterPrefix[] = "^[^:]+://+([^:/]+\\.)?";
constexpr char kSchemeSeparator[] = "://";

constexpr int64_t kFilterInfoPickedHide = 4;

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
    if (from.empty()) return text;
    std::string result;
    result.reserve(text.size());
    size_t start = 0;
    while (true) {
        const size_t found = text.find(from, start);
        if (found == std::string::npos) break;
        result.append(text, start, found - start).append(to);
        start = found + from.size();
    }
    result.append(text, start, std::string::npos);
    return result;
}

bool isWebsiteListAction(int64_t action) {
    return action == ActionCode::kBlockWebsite || action == ActionCode::kAllowWebsite ||
           action == ActionCode::kSecureWebsite;
}

// The URL text after its scheme (up to any further "://"), or none when the
// source has no scheme separator.
NullableString textAfterScheme(const std::string& source) {
    const std::vector<std::string> parts =
        engine_detail::componentsSeparatedByString(source, kSchemeSeparator);
    if (parts.size() < 2) return std::nullopt;
    return parts[1];
}

}  // namespace

void CustomRules::createVisualCustomRules(const std::vector<DataElement>& elements,
                                          CompletionHandler completionHandler) {
    std::vector<SharedCustomRule> rules;
    rules.reserve(elements.size());
    for (const DataElement& element : elements) {
        if (auto rule = createVisualCustomRule(element.location, element)) {
            rules.push_back(std::move(*rule));
        }
    }
    processCustomRules(std::move(rules));
    CompanionState::sendUpdateNotification();
    if (completionHandler) completionHandler(std::nullopt);
}

std::optional<SharedCustomRule> CustomRules::createVisualCustomRule(
    const NullableString& host, const DataElement& dataElement) {
    if (!checkTagSource(dataElement.tag)) return hideCustomRule(host, dataElement.selector);

    const NullableString source = getElementSource(dataElement.source, dataElement.currentSource);
    if (!source || source->empty()) return std::nullopt;

    const DataElement* parent = dataElement.parentElement.get();
    if (parent && parent->tag == "a") {
        const bool ownSource = WebsiteLists::checkDomainsShareOrigin(host, source);
        const NullableString linkSource = getElementSource(parent->source, parent->currentSource);
        const bool parentShared = WebsiteLists::checkDomainsShareOrigin(host, linkSource);
        if (!ownSource && !parentShared) {
            // Neither the media nor its link belongs to the page's site: an
            // ad network's banner; block everything from that host.
            const NullableString foreignHost = PunycodeAdditions::hostFromURL(*source);
            if (!foreignHost) return std::nullopt;
            return blockCustomRule(host, escapeData(foreignHost),
                                   PunycodeAdditions::schemeAndHostFromURL(*source));
        }
    }
    const NullableString path = textAfterScheme(*source);
    if (!path) return std::nullopt;
    return blockCustomRule(host, escapeData(path), source);
}

SharedCustomRule CustomRules::hideCustomRule(const NullableString& host,
                                             const NullableString& selector) {
    SharedCustomRule rule;
    rule.blocker = BlockerCode::kCustom;
    rule.action = ActionCode::kHide;
    rule.filter = kAnyURLFilter;
    rule.selector = selector;
    rule.domains = host;
    rule.domainType = DomainTypeCode::kIfTopURL;
    rule.ruleID = Generator::customRuleID();
    rule.filterInfo = kFilterInfoPickedHide;
    return rule;
}

SharedCustomRule CustomRules::blockCustomRule(const NullableString& host,
                                              const NullableString& escapedURL,
                                              const NullableString& filterDomain) {
    SharedCustomRule rule;
    rule.blocker = BlockerCode::kCustom;
    rule.action = ActionCode::kBlock;
    rule.filter = engine_detail::concatenate({kBlockFilterPrefix, textOrNull(escapedURL)});
    rule.domains = host;
    rule.domainType = DomainTypeCode::kIfTopURL;
    // The escaped URL is the user's exact resource; a case-insensitive match
    // could catch other resources.
    rule.filterSensitive = 1;
    rule.filterDomain = filterDomain;
    rule.ruleID = Generator::customRuleID();
    return rule;
}

NullableString CustomRules::escapeData(const NullableString& text) {
    if (!text) return std::nullopt;
    return PunycodeAdditions::escapeData(*text);
}

NullableString CustomRules::unescapeData(const NullableString& text) {
    if (!text) return std::nullopt;
    std::string result = *text;
    for (std::string_view character : {".", "?", "^", "+", "|"}) {
        result =
            replaceAll(std::move(result), engine_detail::concatenate({"\\", character}), character);
    }
    return result;
}

bool CustomRules::checkTagSource(const NullableString& tag) {
    if (!tag) return false;
    static constexpr std::array<std::string_view, 5> kMediaTags = {"img", "video", "audio", "embed",
                                                                   "object"};
    for (std::string_view media : kMediaTags) {
        if (*tag == media) return true;
    }
    return false;
}

NullableString CustomRules::getElementSource(const NullableString& elementSource,
                                             const NullableString& elementCurrentSource) {
    if (elementCurrentSource && !elementCurrentSource->empty()) return elementCurrentSource;
    return elementSource;
}

void CustomRules::processCustomRules(std::vector<SharedCustomRule> rules) {
    const NullableString profileID = state_.activeProfileID();
    std::vector<SharedCustomRule> sharedRules;
    std::vector<ProfileRule> profileRules;
    sharedRules.reserve(rules.size());

    for (SharedCustomRule& rule : rules) {
        rule.blockerProfileID = profileID;
        if (!isWebsiteListAction(rule.action)) {
            if (rule.active) profileRules.push_back(ProfileRule::initWithSharedCustomRule(rule));
            sharedRules.push_back(std::move(rule));
            continue;
        }
        switch (WebsiteLists::websitesStatus(state_.sharedData(), rule.action)) {
            case WebsiteListStatus::kListRuleExists: {
                // The list rule exists: the host joins its domains. The
                // rule's own on/off flag does not matter for the list.
                std::vector<ProfileRule> listRules;
                if (state_.activeDatabase())
                    listRules = state_.activeDatabase()->getProfileRulesByAction(rule.action);
                if (!listRules.empty()) {
                    ProfileRule listRule = std::move(listRules.front());
                    listRule.mergeProfileRuleDomains(ProfileRule::initWithSharedCustomRule(rule));
                    state_.activeDatabase()->updateProfileRules({listRule});
                } else {
                    // The status promised a list rule that the profile lacks
                    // (the application may have removed it): start the list
                    // anew rather than lose the website.
                    profileRules.push_back(ProfileRule::initWithSharedCustomRule(rule));
                }
                sharedRules.push_back(std::move(rule));
                break;
            }
            case WebsiteListStatus::kSharedOnly:
                sharedRules.push_back(std::move(rule));
                break;
            case WebsiteListStatus::kNoListRule:
                if (rule.active)
                    profileRules.push_back(ProfileRule::initWithSharedCustomRule(rule));
                sharedRules.push_back(std::move(rule));
                break;
            default:
                break;
        }
    }

    state_.sharedDatabase().addSharedCustomRulesDetails(sharedRules);
    if (state_.activeDatabase()) state_.activeDatabase()->addProfileRules(profileRules);
}

}  // namespace stonewall
