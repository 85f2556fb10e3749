#pragma once

#include <cstdint>
#include <string>

#include "model/ContentBlockerRule.h"
#include "model/RuleCodes.h"
#include "utilities/Nullable.h"

namespace stonewall {

struct SharedCustomRule;

// The one in-memory form of a blocking rule that the compiler works on.
struct ProfileRule {
    NullableString ruleID;
    int64_t blocker = 0;
    int64_t action = 0;
    NullableString selector;
    NullableString filter;
    NullableString resources;
    NullableString loads;
    NullableString domains;
    int64_t domainType = DomainTypeCode::kNone;
    int64_t filterSensitive = 0;

    bool operator==(const ProfileRule&) const = default;

    // ruleID from the reload-type tag table; the other fields from rule.
    static ProfileRule initWithRule(const ProfileRule& rule, int64_t reloadType);
    // blocker is always 4 (custom); the record's bookkeeping is not carried.
    static ProfileRule initWithCustomRule(const SharedCustomRule& rule);
    static ProfileRule initWithSharedCustomRule(const SharedCustomRule& rule);

    // The conversion the compiler uses ("if-top-url"/"unless-top-url").
    ContentBlockerRule convertToSafariData2() const;
    // The earlier conversion ("if-domain"/"unless-domain").
    ContentBlockerRule convertToSafariData() const;

    // The dedupe key: action, selector, filter, resources, loads, domain type
    // and domains; ruleID, blocker and filterSensitive take no part.
    std::string computeHash() const;
    // Appends the same key to out (the compiler's hot path reuses one buffer).
    void appendHash(std::string& out) const;

    // The text itself when non-null and non-empty, else "".
    static std::string validateData(const NullableString& text);

    // Puts other's domains that this rule lacks first, then this rule's own.
    void mergeProfileRuleDomains(const ProfileRule& other);

    std::string description() const;
};

}  // namespace stonewall
