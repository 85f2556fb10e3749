#pragma once

// A network rule's URL pattern (the adblock syntax: "||host^", "|", "*", "^",
// "/regex/") as the url-filter of a WebKit content-blocker rule, and the
// check that a regular expression is in the subset WebKit's compiler runs.

#include <optional>
#include <string>
#include <string_view>

#include "application/FilterListParser.h"

namespace stonewall::url_filter {

// What matches every address.
inline constexpr std::string_view kAnyURL = ".*";

// Writes the url-filter of `pattern` into `out`; a SkipReason text when the
// pattern cannot be one (not ASCII, a control character, "||" alone, a
// regular expression WebKit cannot run).
[[nodiscard]] std::optional<std::string_view> fromPattern(std::string_view pattern,
                                                          std::string& out);

// Whether WebKit's content-blocker compiler accepts the expression: ASCII,
// "^" only first and "$" only last, no alternation, no counted or lazy
// quantifiers, no back-references or character-class escapes, no nested
// or empty groups.
[[nodiscard]] bool isWebKitURLFilter(std::string_view expression);

}  // namespace stonewall::url_filter
