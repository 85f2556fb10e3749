#pragma once

// Rule objects compared as parsed JSON, so expectations can be written as the
// JSON literals the browser reads, independent of key order.

#include <nlohmann/json.hpp>
#include <string_view>

#include "model/ContentBlockerRule.h"

namespace stonewall::test_support {

inline nlohmann::json parsed(std::string_view text)
{
    return nlohmann::json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
}

inline nlohmann::json written(const ContentBlockerRule& rule) { return parsed(rule.toJSON()); }

}  // namespace stonewall::test_support
