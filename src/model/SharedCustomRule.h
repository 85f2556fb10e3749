#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/ContentBlockerRule.h"
#include "model/RuleCodes.h"
#include "utilities/Custom.h"
#include "utilities/Nullable.h"

namespace stonewall {

// A rule the user made (a picked element, a website to block, secure or
// allow), as kept in the shared database.
struct SharedCustomRule {
    NullableString ruleID;
    int64_t blocker = BlockerCode::kCustom;
    int64_t action = 0;
    NullableString selector;
    NullableString filter;
    NullableString resources;
    NullableString loads;
    int64_t domainType = DomainTypeCode::kIfTopURL;
    Custom::Timestamp addDate = Custom::currentTimestamp();
    NullableString blockerProfileID;
    NullableString ruleName;
    int64_t filterSensitive = 0;
    Custom::Timestamp modDate = 0;
    int64_t regularExpression = 0;
    int64_t ruleType = 1;
    int64_t active = 1;
    NullableString filterDomain;
    NullableString domains;
    int64_t filterInfo = 1;

    bool operator==(const SharedCustomRule&) const = default;

    // From the 9-entry form [action, filter, selector, resources, loads,
    // domains, domainType, filterSensitive, filterDomain]; any other size
    // gives the defaults only.
    static SharedCustomRule initWithRuleData(const std::vector<std::string>& ruleData,
                                             const NullableString& blockerProfileID);
    static NullableString dataOrNil(const std::vector<std::string>& data, size_t index);
    static SharedCustomRule initWithSafariData(const ContentBlockerRule& rule);

    ContentBlockerRule convertToSafariData() const;
    std::string computeHash() const;
    static std::string validateData(const NullableString& text);
    void mergeWhitelistCustomRule(const SharedCustomRule& other);
    std::string description() const;
};

}  // namespace stonewall
