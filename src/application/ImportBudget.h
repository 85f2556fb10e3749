#pragma once

// Fits the rules of imported filter lists into what the content blocker's
// cap leaves them. The compiled list holds at most kMaximumRuleCount rules in
// a fixed order (blocks before hides before allows and exceptions), so a
// profile filled past the cap would lose its exceptions and the user's own
// allow and secure lists first. Imports therefore never fill more than the
// cap less a reserve for the user's rules, and choose what stays by a stated
// policy (kPolicy).
//
// Pure: no I/O, no process services.

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "model/ProfileRule.h"

namespace stonewall {

class ImportBudget {
  public:
    // Rule slots kept free for the user's website lists and picked elements.
    static constexpr int64_t kUserRuleReserve = 1000;
    // Selectors joined into one hiding rule (WebKit joins them the same way
    // in the style sheet it builds for a list).
    static constexpr size_t kSelectorsPerHideRule = 1000;

    // What --help and the docs say about the order in which rules stay.
    static constexpr std::string_view kPolicy =
        "The exceptions (@@) of a list always stay. Then, while there is room:\n"
        "hiding rules for every site (joined, up to 1000 selectors a rule),\n"
        "block rules for every site that match a part of the address\n"
        "(\"/ads/banner_\", they act on every site), block rules for a whole\n"
        "host (\"||ads.example^\"), block-cookies and HTTPS upgrades, then rules\n"
        "limited to listed sites (blocks before hides). Ties go in list order;\n"
        "what does not fit is left out and counted by kind.";

    // The slots the imported lists of a profile share: the cap less the
    // reserve, or less the user's rules when they take more. Never negative.
    static int64_t availableSlots(int64_t userRules);

    // Joins hiding rules that differ only in their selector into rules of
    // up to kSelectorsPerHideRule selectors, in list order; other rules are
    // kept as they are, where they are.
    static std::vector<ProfileRule> joinHideRules(std::vector<ProfileRule> rules);

    struct Fit {
        std::vector<bool> kept;                    // by the rule's index
        std::array<int64_t, 9> leftOutByAction{};  // rules left out, by action code
    };
    // Keeps what the policy ranks first, up to `slots` rules; exceptions
    // stay whatever `slots` says (the caller refuses an import whose
    // exceptions alone do not fit).
    static Fit fit(const std::vector<ProfileRule>& rules, int64_t slots);
};

}  // namespace stonewall
