#include "model/SharedCustomRule.h"

#include <cstdio>

#include "model/ProfileRule.h"
#include "model/RuleText.h"
#include "utilities/Generator.h"

namespace stonewall {

namespace {

// The positions of the 9-entry rule data that the product's programs exchange.
enum RuleDataIndex : size_t {
    kActionIndex = 0,
    kFilterIndex,
    kSelectorIndex,
    kResourcesIndex,
    kLoadsIndex,
    kDomainsIndex,
    kDomainTypeIndex,
    kFilterSensitiveIndex,
    kFilterDomainIndex,
    kRuleDataCount,
};

NullableString joinedOrNull(const std::optional<std::vector<std::string>>& list) {
    if (!list) return std::nullopt;
    return RuleText::joinComponents(*list);
}

// "%f": six decimals, whatever the magnitude.
void appendFixed(std::string& out, double value) {
    const int length = std::snprintf(nullptr, 0, "%f", value);
    if (length <= 0) return;
    const size_t start = out.size();
    out.resize(start + static_cast<size_t>(length) + 1);
    std::snprintf(out.data() + start, static_cast<size_t>(length) + 1, "%f", value);
    out.resize(start + static_cast<size_t>(length));
}

}  // namespace

SharedCustomRule SharedCustomRule::initWithRuleData(const std::vector<std::string>& ruleData,
                                                    const NullableString& blockerProfileID) {
    SharedCustomRule rule;
    if (ruleData.size() != kRuleDataCount) return rule;
    rule.blockerProfileID = blockerProfileID;
    rule.action = RuleText::integerValue(ruleData[kActionIndex]);
    rule.filter = dataOrNil(ruleData, kFilterIndex);
    rule.selector = dataOrNil(ruleData, kSelectorIndex);
    rule.resources = dataOrNil(ruleData, kResourcesIndex);
    rule.loads = dataOrNil(ruleData, kLoadsIndex);
    rule.domains = dataOrNil(ruleData, kDomainsIndex);
    rule.domainType = RuleText::integerValue(ruleData[kDomainTypeIndex]);
    rule.filterSensitive = RuleText::integerValue(ruleData[kFilterSensitiveIndex]);
    rule.filterDomain = dataOrNil(ruleData, kFilterDomainIndex);
    rule.ruleID = Generator::customRuleID(rule.action, blockerProfileID);
    return rule;
}

NullableString SharedCustomRule::dataOrNil(const std::vector<std::string>& data, size_t index) {
    if (index >= data.size() || data[index].empty()) return std::nullopt;
    return data[index];
}

SharedCustomRule SharedCustomRule::initWithSafariData(const ContentBlockerRule& rule) {
    SharedCustomRule result;
    result.regularExpression = 1;
    result.blocker = BlockerCode::kCustom;

    const NullableString& type = rule.action.type;
    if (type == "block")
        result.action = ActionCode::kBlock;
    else if (type == "css-display-none")
        result.action = ActionCode::kHide;
    else if (type == "ignore-previous-rules")
        result.action = ActionCode::kAllowWebsite;
    result.selector = rule.action.selector;

    const ContentBlockerTrigger& trigger = rule.trigger;
    result.filter = trigger.urlFilter;
    result.filterSensitive = trigger.urlFilterIsCaseSensitive ? 1 : 0;
    result.resources = joinedOrNull(trigger.resourceType);
    result.loads = joinedOrNull(trigger.loadType);
    // Only the domain keys of the earlier scheme are read back; top-URL
    // patterns cannot be turned into domains again.
    if (trigger.ifDomain) {
        result.domainType = DomainTypeCode::kIfTopURL;
        result.domains = RuleText::joinComponents(*trigger.ifDomain);
    } else if (trigger.unlessDomain) {
        result.domainType = DomainTypeCode::kUnlessTopURL;
        result.domains = RuleText::joinComponents(*trigger.unlessDomain);
    }
    return result;
}

ContentBlockerRule SharedCustomRule::convertToSafariData() const {
    ContentBlockerRule result;
    auto& trigger = result.trigger;
    bool withFilter = true;
    switch (action) {
        case ActionCode::kBlock:
            result.action.type = "block";
            break;
        case ActionCode::kHide:
            result.action.type = "css-display-none";
            result.action.selector = selector;
            break;
        case ActionCode::kAllowWebsite:
            result.action.type = "ignore-previous-rules";
            break;
        case ActionCode::kBlockCookies:
            result.action.type = "block-cookies";
            break;
        default:
            // The website codes 5 and 7 and unknown codes: an empty action and
            // no url-filter, which the browser rejects.
            withFilter = false;
            break;
    }
    if (withFilter) trigger.urlFilter = filter;
    trigger.urlFilterIsCaseSensitive = filterSensitive != 0;
    if (resources) trigger.resourceType = RuleText::components(*resources);
    if (loads) trigger.loadType = RuleText::components(*loads);
    if (domains && !domains->empty()) {
        if (domainType == DomainTypeCode::kIfTopURL)
            trigger.ifDomain = RuleText::components(*domains);
        else if (domainType == DomainTypeCode::kUnlessTopURL)
            trigger.unlessDomain = RuleText::components(*domains);
    }
    return result;
}

std::string SharedCustomRule::computeHash() const {
    // The same key as the profile rule made from this record, so a custom
    // rule and its compiled form dedupe against each other.
    std::string hash;
    ProfileRule::initWithSharedCustomRule(*this).appendHash(hash);
    return hash;
}

std::string SharedCustomRule::validateData(const NullableString& text) {
    return ProfileRule::validateData(text);
}

void SharedCustomRule::mergeWhitelistCustomRule(const SharedCustomRule& other) {
    domains = RuleText::mergeDomains(domains, other.domains);
}

std::string SharedCustomRule::description() const {
    std::string text;
    text.reserve(320);
    auto field = [&text](std::string_view name, const NullableString& value) {
        text += name;
        text += textOrNull(value);
    };
    auto number = [&text](std::string_view name, int64_t value) {
        text += name;
        RuleText::appendInteger(text, value);
    };
    field("ruleID: ", ruleID);
    number(" - blocker: ", blocker);
    number(" - action: ", action);
    field(" - selector: ", selector);
    field(" - filter: ", filter);
    field(" - resources: ", resources);
    field(" - loads: ", loads);
    number(" - domainType: ", domainType);
    text += " - addDate: ";
    appendFixed(text, addDate);
    field(" - blockerProfileID: ", blockerProfileID);
    field(" - ruleName: ", ruleName);
    number(" - filterSensitive: ", filterSensitive);
    text += " - modDate: ";
    appendFixed(text, modDate);
    number(" - regularExpression: ", regularExpression);
    number(" - ruleType: ", ruleType);
    number(" - active: ", active);
    field(" - filterDomain: ", filterDomain);
    // domains appears twice; the text is kept as the product's other
    // programs print it.
    field(" - domains: ", domains);
    number(" - filterInfo: ", filterInfo);
    field(" - domains: ", domains);
    return text;
}

}  // namespace stonewall
