#pragma once

#include <cstdint>
#include <string>

#include "utilities/Nullable.h"

namespace stonewall {

// Identifiers: lower-case hex cut from a SHA-1 digest of a seed text.
class Generator {
  public:
    // New random identifiers, 10 hex characters.
    static std::string profileID();
    static std::string customRuleID();
    // The website-list rules (types 3, 5 and 7) get a fixed 40-character
    // identifier per profile; every other type a new random 10-character one.
    static std::string customRuleID(int64_t ruleType, const NullableString& blockerProfileID);
};

}  // namespace stonewall
