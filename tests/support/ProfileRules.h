#pragma once

// A profile row with the fields the tests vary; the rest as a new row has
// them.

#include <cstdint>

#include "model/ProfileRule.h"

namespace stonewall::testing {

inline ProfileRule makeRule(int64_t action, NullableString filter, int64_t blocker = 1,
                            NullableString ruleID = std::nullopt) {
    ProfileRule rule;
    rule.ruleID = std::move(ruleID);
    rule.blocker = blocker;
    rule.action = action;
    rule.filter = std::move(filter);
    return rule;
}

}  // namespace stonewall::testing
