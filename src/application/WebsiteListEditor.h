#pragma once

// Upkeep of the block, allow and secure website lists of the active profile,
// as the main application does it: merging the list rules of an action into
// one (and marking its position of "domainStatus" as 1, after which the
// engine merges new websites into that rule) and taking websites off a list.
//
// Threads: as the engine it is given, one thread at a time. Every change is
// read back from the store; a change the store did not take is an error of
// kind Storage. Posts "extensionUpdate" after each change.

#include <cstdint>
#include <string>

#include "application/ApplicationError.h"
#include "engine/CompanionController.h"

namespace stonewall {

class WebsiteListEditor {
  public:
    explicit WebsiteListEditor(CompanionController& engine) : engine_(engine) {}

    struct TidyReport {
        int64_t rulesBefore = 0;  // list rules of the action before
        int64_t hosts = 0;        // distinct entries of the one rule after
        bool changed = false;     // a rule or the status was rewritten
        bool statusSet = false;   // the action's status moved to 1
        // The action's status, when it is neither -1 nor 1: the list is then
        // kept elsewhere (0: the shared database only) and left alone.
        std::optional<int64_t> leftAloneStatus;
    };

    // Merges every list rule of the action (3, 5 or 7) into one rule holding
    // each entry once, in first-seen order, and sets the action's status to 1.
    [[nodiscard]] ApplicationOutcome tidyList(int64_t action, TidyReport& report);

    // Takes the host off the action's list: from the profile's list rule
    // and from the shared custom rules of the active profile. A list left
    // empty loses its rule and its status returns to -1. `removed` is false,
    // and nothing is changed, when the host was on neither.
    [[nodiscard]] ApplicationOutcome removeWebsite(int64_t action, const std::string& host,
                                                   bool& removed);

    // Whether a profile rule is one of the website-list rules that this
    // system writes (filter ".*", domain type 1, no other condition).
    static bool isWebsiteListRule(const ProfileRule& rule);

  private:
    ApplicationOutcome setStatus(int64_t action, std::string_view value);
    std::vector<ProfileRule> listRules(int64_t action) const;

    CompanionController& engine_;
};

}  // namespace stonewall
