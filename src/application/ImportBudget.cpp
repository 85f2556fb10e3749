#include "application/ImportBudget.h"

#include <algorithm>
#include <numeric>
#include <string>
#include <unordered_map>

#include "application/FilterListParser.h"
#include "engine/CompanionController.h"
#include "model/RuleCodes.h"

namespace stonewall {
namespace {

// The "||host^" form: the host anchor and then a host name only.
constexpr std::string_view kHostAnchor = FilterListParser::kHostAnchor;

bool limitedToSites(const ProfileRule& rule) {
    return rule.domainType == DomainTypeCode::kIfTopURL ||
           rule.domainType == DomainTypeCode::kIfTopURLVerbatim;
}

bool wholeHost(const ProfileRule& rule) {
    if (!rule.filter || !rule.filter->starts_with(kHostAnchor)) return false;
    const std::string_view rest = std::string_view(*rule.filter).substr(kHostAnchor.size());
    return rest.find('/') == std::string_view::npos && rest.find(".*") == std::string_view::npos;
}

// Lower ranks stay first; see ImportBudget::kPolicy.
int rank(const ProfileRule& rule) {
    if (rule.action == ActionCode::kException) return 0;
    if (limitedToSites(rule)) return rule.action == ActionCode::kHide ? 5 : 4;
    if (rule.action == ActionCode::kHide) return 1;
    if (rule.action == ActionCode::kBlock && !wholeHost(rule)) return 2;
    return 3;
}

std::string triggerKey(const ProfileRule& rule) {
    std::string key;
    for (const NullableString* field :
         {&rule.filter, &rule.resources, &rule.loads, &rule.domains}) {
        key.push_back(*field ? '+' : '-');
        if (*field) key.append(**field);
        key.push_back('\x1f');
    }
    key.append(std::to_string(rule.domainType));
    key.push_back(rule.filterSensitive ? 's' : 'i');
    return key;
}

}  // namespace

int64_t ImportBudget::availableSlots(int64_t userRules) {
    const int64_t cap = static_cast<int64_t>(kMaximumRuleCount);
    return std::max<int64_t>(0, cap - std::max(kUserRuleReserve, userRules));
}

std::vector<ProfileRule> ImportBudget::joinHideRules(std::vector<ProfileRule> rules) {
    struct Group {
        size_t rule;       // the joined rule's index in `joined`
        size_t selectors;  // how many it holds
    };
    std::unordered_map<std::string, Group> open;
    std::vector<ProfileRule> joined;
    joined.reserve(rules.size());
    for (ProfileRule& rule : rules) {
        if (rule.action != ActionCode::kHide || !rule.selector || rule.selector->empty()) {
            joined.push_back(std::move(rule));
            continue;
        }
        const std::string key = triggerKey(rule);
        auto found = open.find(key);
        if (found != open.end() && found->second.selectors < kSelectorsPerHideRule) {
            std::string& selector = *joined[found->second.rule].selector;
            selector.append(", ");
            selector.append(*rule.selector);
            ++found->second.selectors;
            continue;
        }
        open[key] = Group{joined.size(), 1};
        joined.push_back(std::move(rule));
    }
    return joined;
}

ImportBudget::Fit ImportBudget::fit(const std::vector<ProfileRule>& rules, int64_t slots) {
    Fit result;
    std::vector<size_t> order(rules.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return rank(rules[a]) < rank(rules[b]); });
    result.kept.assign(rules.size(), false);
    int64_t used = 0;
    for (size_t index : order) {
        const ProfileRule& rule = rules[index];
        if (rule.action == ActionCode::kException || used < slots) {
            result.kept[index] = true;
            ++used;
        } else if (rule.action >= 0 && rule.action < 9) {
            ++result.leftOutByAction[static_cast<size_t>(rule.action)];
        }
    }
    return result;
}

}  // namespace stonewall
