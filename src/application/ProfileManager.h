#pragma once

// The blocker profiles, as the main application manages them: created with
// a new identifier and a database copied from the template, renamed,
// removed, and filled from filter lists. The shared record keeps the names
// ("profiles") and identifiers ("profileIDs") in the same order.
//
// Threads: as the engine it is given, one thread at a time. A BadInput
// refusal changes nothing; every change is read back from the store, and one
// the store did not take is an error of kind Storage. Posts
// "extensionUpdate" after each change.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "application/ApplicationError.h"
#include "application/FilterListParser.h"
#include "engine/CompanionController.h"

namespace stonewall {

class ProfileManager {
  public:
    // The popover shows this many characters of a name and cuts the rest.
    static constexpr size_t kMaximumNameLength = 40;

    explicit ProfileManager(CompanionController& engine) : engine_(engine) {}

    // Why the text cannot name a profile (empty, too long, a "," that
    // would split the stored list, control characters), or none.
    static std::optional<std::string> checkProfileName(std::string_view name);

    [[nodiscard]] ApplicationOutcome createProfile(const std::string& name, std::string& profileID);
    [[nodiscard]] ApplicationOutcome renameProfile(const std::string& profileID,
                                                   const std::string& name);
    // Neither the active profile nor the last one. Its database, its rule
    // list and its custom rules go with it.
    [[nodiscard]] ApplicationOutcome removeProfile(const std::string& profileID);

    struct ImportReport {
        FilterListImport list;       // what the parser made of the text
        int64_t alreadyPresent = 0;  // rules the profile held already (not added again)
        int64_t added = 0;           // rows written
        // Hiding rules that went into a joined rule (ImportBudget).
        int64_t hideRulesJoined = 0;
        // The slots the profile's imported lists share (ImportBudget).
        int64_t slots = 0;
        // What the budget left out of this list, by action code.
        std::array<int64_t, 9> leftOutByAction{};
        // Rules of lists imported before that made room for better ranked
        // ones of this list, by action code.
        std::array<int64_t, 9> displacedByAction{};
        // Rows of the same list (the tag's) that the new ones replaced.
        int64_t replaced = 0;
        int64_t leftOut() const;
        int64_t displaced() const;
    };
    // Adds the list's rules to the profile's database (list code 1). The
    // list shares the profile's budget (ImportBudget) with the lists imported
    // before: its rules and theirs are ranked together by the policy, and
    // what ranks last is left out, or removed when an earlier list had it,
    // in the same transaction as the new rules are written. The text must
    // pass FilterListParser::checkFormat. Lists whose exceptions alone do
    // not fit are refused (BadInput) and nothing changes.
    //
    // With a list tag (a subscribed list: letters and digits), the rows of
    // the profile whose ruleID begins with "<tag>-" are the list's earlier
    // version: they are not ranked and not kept, and the new rows (ruleID
    // "<tag>-<random>") replace them.
    [[nodiscard]] ApplicationOutcome importFilterList(
        const std::string& profileID, std::string_view text, ImportReport& report,
        const std::optional<std::string>& listTag = std::nullopt);
    // Removes every row of the tagged list from the profile; `removed` is
    // how many there were.
    [[nodiscard]] ApplicationOutcome removeFilterList(const std::string& profileID,
                                                      const std::string& listTag, int64_t& removed);

    // The position of the identifier in the shared record's profileIDs.
    std::optional<size_t> profileIndex(const std::string& profileID) const;

  private:
    ApplicationOutcome writeProfileLists(std::vector<std::string> names,
                                         std::vector<std::string> identifiers);
    ApplicationOutcome requireProfile(const std::string& profileID, size_t& index) const;

    CompanionController& engine_;
};

}  // namespace stonewall
