// What an import keeps when the cap leaves no room for all of a list.

#include <gtest/gtest.h>

#include "application/ImportBudget.h"
#include "model/RuleCodes.h"

namespace stonewall {
namespace {

ProfileRule rule(int64_t action, std::string filter, NullableString domains = std::nullopt,
                 NullableString selector = std::nullopt) {
    ProfileRule made;
    made.blocker = BlockerCode::kList1;
    made.action = action;
    made.filter = std::move(filter);
    made.selector = std::move(selector);
    made.domains = std::move(domains);
    made.domainType = made.domains ? DomainTypeCode::kIfTopURL : DomainTypeCode::kNone;
    return made;
}

TEST(ImportBudgetTest, KeepsExceptionsThenWhatActsOnEverySite) {
    const std::string host = "^[^:]+://+([^:/]+\\.)?";
    // In list order; the ranks the policy gives them decide what stays.
    const std::vector<ProfileRule> list = {
        rule(ActionCode::kBlock, host + "site-only\\.test[^a-z]", "*news.test"),  // 0: rank 4
        rule(ActionCode::kHide, ".*", "*news.test", ".local-ad"),                 // 1: rank 5
        rule(ActionCode::kBlock, host + "ads\\.test[^a-z]"),                      // 2: rank 3
        rule(ActionCode::kBlock, host + "ads\\.test/banner"),                     // 3: rank 2
        rule(ActionCode::kBlock, "/adserver/"),                                   // 4: rank 2
        rule(ActionCode::kHide, ".*", std::nullopt, ".ad"),                       // 5: rank 1
        rule(ActionCode::kException, host + "good\\.test[^a-z]"),                 // 6: rank 0
        rule(ActionCode::kBlockCookies, host + "track\\.test[^a-z]"),             // 7: rank 3
    };
    const std::vector<std::pair<int64_t, std::vector<bool>>> cases = {
        {100, {1, 1, 1, 1, 1, 1, 1, 1}},
        {5, {0, 0, 1, 1, 1, 1, 1, 0}},
        {3, {0, 0, 0, 1, 0, 1, 1, 0}},
        {1, {0, 0, 0, 0, 0, 0, 1, 0}},
        // Exceptions stay even past the slots; the caller refuses such lists.
        {0, {0, 0, 0, 0, 0, 0, 1, 0}},
    };
    for (const auto& [slots, kept] : cases) {
        SCOPED_TRACE(slots);
        const ImportBudget::Fit fit = ImportBudget::fit(list, slots);
        EXPECT_EQ(fit.kept, kept);
        std::array<int64_t, 9> leftOut{};
        for (size_t i = 0; i < list.size(); ++i) {
            if (!kept[i]) ++leftOut[static_cast<size_t>(list[i].action)];
        }
        EXPECT_EQ(fit.leftOutByAction, leftOut);
    }
    EXPECT_EQ(ImportBudget::availableSlots(0), 49000);
    EXPECT_EQ(ImportBudget::availableSlots(1500), 48500);
    EXPECT_EQ(ImportBudget::availableSlots(60000), 0);
}

TEST(ImportBudgetTest, JoinsHidingRulesOnlyWhenTheirTriggersAgree) {
    std::vector<ProfileRule> list = {
        rule(ActionCode::kHide, ".*", std::nullopt, ".a"),
        rule(ActionCode::kBlock, "/ad/"),
        rule(ActionCode::kHide, ".*", "*x.test", ".b"),
        rule(ActionCode::kHide, ".*", std::nullopt, ".c"),
        rule(ActionCode::kHide, ".*", "*x.test", "#d"),
        rule(ActionCode::kHide, ".*", "*y.test", ".e"),
        rule(ActionCode::kHide, ".*", std::nullopt, ""),  // an empty selector joins nothing
    };
    list[3].filterSensitive = 1;  // another trigger
    const std::vector<ProfileRule> joined = ImportBudget::joinHideRules(list);
    std::vector<NullableString> selectors;
    for (const ProfileRule& each : joined) selectors.push_back(each.selector);
    EXPECT_EQ(selectors,
              (std::vector<NullableString>{".a", std::nullopt, ".b, #d", ".c", ".e", ""}));

    std::vector<ProfileRule> many;
    for (size_t i = 0; i <= ImportBudget::kSelectorsPerHideRule; ++i) {
        many.push_back(rule(ActionCode::kHide, ".*", std::nullopt, ".s" + std::to_string(i)));
    }
    const std::vector<ProfileRule> groups = ImportBudget::joinHideRules(many);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(*groups[1].selector, ".s" + std::to_string(ImportBudget::kSelectorsPerHideRule));
}

}  // namespace
}  // namespace stonewall
