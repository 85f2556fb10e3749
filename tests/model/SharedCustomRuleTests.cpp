#include <gtest/gtest.h>

#include "RuleTestSupport.h"
#include "model/SharedCustomRule.h"
#include "utilities/Custom.h"

namespace stonewall {
namespace {

using namespace test_support;
using Strings = std::vector<std::string>;

class SharedCustomRuleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Custom::setClockForTesting([] { return kNow; });
    }
    void TearDown() override { Custom::setClockForTesting({}); }

    static constexpr Custom::Timestamp kNow = 1700000000.25;
};

TEST_F(SharedCustomRuleTest, ConvertToSafariDataTable) {
    const std::tuple<int64_t, int64_t, NullableString, const char*> cases[] = {
        {1, 1, "bücher.test,*.a.test",
         R"({"action":{"type":"block"},"trigger":{"url-filter":"bücher.test/x",
             "if-domain":["bücher.test","*.a.test"]}})"},
        {2, 2, "a.test", R"({"action":{"type":"css-display-none","selector":""},
                             "trigger":{"url-filter":"bücher.test/x","unless-domain":["a.test"]}})"},
        {3, 4, "a.test", R"({"action":{"type":"ignore-previous-rules"},
                             "trigger":{"url-filter":"bücher.test/x"}})"},
        {4, 1, "",
         R"({"action":{"type":"block-cookies"},"trigger":{"url-filter":"bücher.test/x"}})"},
        {4, 1, ",a.test", R"({"action":{"type":"block-cookies"},
                             "trigger":{"url-filter":"bücher.test/x","if-domain":["","a.test"]}})"},
        {5, 1, "a.test", R"({"action":{},"trigger":{"if-domain":["a.test"]}})"},
        {7, -1, "a.test", R"({"action":{},"trigger":{}})"},
        {0, 2, std::nullopt, R"({"action":{},"trigger":{}})"},
        {6, 2, std::nullopt, R"({"action":{},"trigger":{}})"},
        {8, 2, std::nullopt, R"({"action":{},"trigger":{}})"},
    };
    for (const auto& [action, domainType, domains, json] : cases) {
        // The filter is never IDNA-encoded here.
        const SharedCustomRule rule = aCustomRule()
                                          .action(action)
                                          .selector("")
                                          .filter("bücher.test/x")
                                          .domainType(domainType)
                                          .domains(domains);
        EXPECT_EQ(written(rule.convertToSafariData()), parsed(json)) << action;
    }
    const auto typed = aCustomRule()
                           .action(1)
                           .filterSensitive(1)
                           .resources("image,")
                           .loads("")
                           .build()
                           .convertToSafariData();
    EXPECT_TRUE(typed.trigger.urlFilterIsCaseSensitive);
    EXPECT_EQ(typed.trigger.urlFilter, std::nullopt);
    EXPECT_EQ(typed.trigger.resourceType, (Strings{"image", ""}));
    EXPECT_EQ(typed.trigger.loadType, Strings{""});
}

TEST_F(SharedCustomRuleTest, HashEqualsTheHashOfItsProfileRule) {
    SharedCustomRule full = aCustomRule()
                                .ruleID("0123456789")
                                .action(2)
                                .selector("div.ad")
                                .filter(".*")
                                .resources("image")
                                .loads("third-party")
                                .domainType(2)
                                .domains("a.test")
                                .filterSensitive(1);
    full.ruleName = "not part of the key";
    const std::pair<SharedCustomRule, const char*> cases[] = {
        {aCustomRule(), "0-----1-"},  // domainType 1 here, not -1
        {aCustomRule().selector("").filter("").domains(""), "0-----1-"},
        {full, "2-div.ad-.*-image-third-party-2-a.test"},
    };
    for (const auto& [rule, hash] : cases) {
        EXPECT_EQ(rule.computeHash(), hash);
        EXPECT_EQ(rule.computeHash(), ProfileRule::initWithSharedCustomRule(rule).computeHash());
    }
}

}  // namespace
}  // namespace stonewall
