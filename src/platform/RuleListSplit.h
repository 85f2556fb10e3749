#pragma once

// One content-blocker rule list as several that WebKit applies side by side,
// so that a change to a few rules recompiles only the parts that hold them.
//
// WebKit compiles each list on its own and unites what the lists decide,
// except for "ignore-previous-rules": it cancels the earlier rules of its own
// list only. So a part holds a share of the list's other rules, in list
// order, followed by every "ignore-previous-rules" rule that comes after the
// first of them in the list and could cancel one of them. A rule of a part
// is then cancelled by exactly the rules that cancel it in the whole list,
// and the parts together block, hide and upgrade exactly what the whole
// list does. The order of the other rules among themselves carries no
// meaning, so they are shared out by a hash: rules anchored at a host
// ("||ads.example^") by the host's last two labels, so that an exception
// anchored at a host needs to follow only one of those parts, and the rest
// by their text. A rule stays in its part whatever else changes.
//
// A change to one rule recompiles one or two parts (a rule whose text
// changes may move); the user's website lists and picked elements live in
// the small parts of rules without a host. A change to an
// "ignore-previous-rules" rule that has no host (an allowed website)
// recompiles every part that it follows.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace stonewall::platform {

inline constexpr size_t kRuleListParts = 8;

// What a part with no rule holds: a list that changes nothing (its one rule
// cancels only rules of its own list, and there are none).
inline constexpr std::string_view kEmptyRuleListPart =
    R"([{"action":{"type":"ignore-previous-rules"},"trigger":{"url-filter":".*"}}])";

struct RuleListPart {
    std::string json;             // a rule list of its own
    std::vector<size_t> indexes;  // each of its rules' index in the whole list
};

// The kRuleListParts parts of a JSON array of objects, or none when the
// text is not one (the caller then hands WebKit the whole text, for its own
// verdict on it).
std::optional<std::vector<RuleListPart>> splitRuleList(std::string_view json);

// The identifier the part `index` of a content blocker's list is stored
// under: "<identifier>.part<index>".
std::string ruleListPartIdentifier(std::string_view identifier, size_t index);

}  // namespace stonewall::platform
