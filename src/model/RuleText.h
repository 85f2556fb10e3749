#pragma once

// The text conventions of rule records: lists kept inside one string field,
// joined with a bare "," and never trimmed, and the lenient integer reading
// of text entries.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "utilities/Nullable.h"

namespace stonewall::RuleText {

inline constexpr char kListSeparator = ',';

// Appends the pieces of text split on "," to out. Empty pieces are kept, so ""
// gives one empty piece and "a," gives "a" and "".
void appendComponents(std::string_view text, std::vector<std::string>& out);
std::vector<std::string> components(std::string_view text);

// The pieces joined with ","; no pieces give "".
std::string joinComponents(const std::vector<std::string>& pieces);

// The integer at the start of text: optional leading white space, an optional
// sign, then decimal digits; anything else gives 0. A value beyond the range
// of int64_t clamps to its nearest end.
int64_t integerValue(std::string_view text);

// Appends the decimal form of value ("%ld").
void appendInteger(std::string& out, int64_t value);

// The domains merge of the website-list rules: the pieces of other that own
// lacks, in other's order (repeats within other kept), then all of own's
// pieces. A null list has no pieces, "" has one empty piece; the result is
// never null.
std::string mergeDomains(const NullableString& own, const NullableString& other);

}  // namespace stonewall::RuleText
