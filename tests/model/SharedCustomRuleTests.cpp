#include <gtest/gtest.h>

#include "RuleTestSupport.h"
#include "model/SharedCustomRule.h"
#include "utilities/Custom.h"
#include "utilities/Generator.h"

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

TEST_F(SharedCustomRuleTest, InitWithRuleDataTable) {
    // [action, filter, selector, resources, loads, domains, domainType,
    // filterSensitive, filterDomain]; a hide rule gets a random identifier.
    const Strings full = {
        "2", "^https?://a\\.test/", "div.ad", "image,media", "third-party", "a.test,*.b.test", "2",
        "1", "https://a.test"};
    struct Case {
        Strings data;
        SharedCustomRule expected;  // ruleID aside
        size_t ruleIDSize;          // 0: none
    };
    const Case cases[] = {
        {full,
         aCustomRule()
             .blockerProfileID("p")
             .action(2)
             .filter("^https?://a\\.test/")
             .selector("div.ad")
             .resources("image,media")
             .loads("third-party")
             .domains("a.test,*.b.test")
             .domainType(2)
             .filterSensitive(1)
             .filterDomain("https://a.test"),
         10},
        // Empty entries read as null text and 0; any other size gives the defaults.
        {Strings(9, ""), aCustomRule().blockerProfileID("p").domainType(0), 10},
        {Strings(0), SharedCustomRule{}, 0},
        {Strings(8, "5"), SharedCustomRule{}, 0},
        {Strings(10, "5"), SharedCustomRule{}, 0},
        // The website lists get the profile's fixed 40-character identifier.
        {{"5", "", "", "", "", "", "", "", ""},
         aCustomRule().blockerProfileID("p").action(5).domainType(0),
         40},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.data.size() ? c.data[0] + "/" + std::to_string(c.data.size()) : "empty");
        SharedCustomRule rule = SharedCustomRule::initWithRuleData(c.data, "p");
        EXPECT_EQ(rule.ruleID.value_or("").size(), c.ruleIDSize);
        if (c.ruleIDSize == 40) {
            EXPECT_EQ(rule.ruleID, Generator::customRuleID(5, "p"));
        }
        rule.ruleID.reset();
        EXPECT_EQ(rule, c.expected);
    }
    for (int64_t action : {3, 7}) {
        Strings data(9, "");
        data[0] = std::to_string(action);
        EXPECT_EQ(SharedCustomRule::initWithRuleData(data, "p").ruleID,
                  Generator::customRuleID(action, "p"));
    }
    // Integer entries are read as RuleText reads them, not strictly.
    const auto lenient =
        SharedCustomRule::initWithRuleData({"3rd", "", "", "", "", "", " 7", "+1", ""}, "p");
    EXPECT_EQ(std::tuple(lenient.action, lenient.domainType, lenient.filterSensitive),
              std::tuple(3, 7, 1));
    EXPECT_EQ(SharedCustomRule::dataOrNil({"a", ""}, 1), std::nullopt);
    EXPECT_EQ(SharedCustomRule::dataOrNil({"a", ""}, 2), std::nullopt);  // out of range
}

TEST_F(SharedCustomRuleTest, InitWithSafariDataTable) {
    const std::pair<const char*, SharedCustomRule> cases[] = {
        {R"({"action":{"type":"make-https"},"trigger":{"url-filter":".*"}})",
         aCustomRule().filter(".*")},
        {R"({"action":{"type":"block"},"trigger":{"url-filter":"ads","url-filter-is-case-sensitive":true,
             "resource-type":["image","script"],"load-type":["third-party"],"if-domain":["a.test","*.b.test"]}})",
         aCustomRule()
             .action(1)
             .filter("ads")
             .filterSensitive(1)
             .resources("image,script")
             .loads("third-party")
             .domains("a.test,*.b.test")},
        {R"({"action":{"type":"css-display-none","selector":"div.ad"},"trigger":{"url-filter":".*",
             "unless-domain":["a.test"]}})",
         aCustomRule().action(2).selector("div.ad").filter(".*").domainType(2).domains("a.test")},
        {R"({"action":{"type":"ignore-previous-rules","selector":"x"},"trigger":{"url-filter":".*",
             "if-domain":[],"unless-domain":["b.test"]}})",
         aCustomRule().action(3).selector("x").filter(".*").domains("")},
        {R"({"action":{"type":"block-cookies"},"trigger":{"url-filter":".*","resource-type":[""],
             "if-top-url":["^[^:]+://+a\\.test[:/]"],"unless-top-url":["x"]}})",
         aCustomRule().filter(".*").resources("")},
        {R"({"action":{},"trigger":{}})", aCustomRule()},
        // Wrong types read as absent fields; non-string members are skipped.
        {R"({"action":{"type":["block"],"selector":7},"trigger":{"url-filter":false,
             "url-filter-is-case-sensitive":"yes","resource-type":"image",
             "load-type":[1,"first-party",null],"if-domain":"a.test","unless-domain":[{}]}})",
         aCustomRule().loads("first-party").domainType(2).domains("")},
        {R"({"action":"block","trigger":"ads"})", aCustomRule()},
        {"not json", aCustomRule()},
    };
    for (const auto& [json, expected] : cases) {
        SharedCustomRule withFlag = expected;
        withFlag.regularExpression = 1;
        EXPECT_EQ(SharedCustomRule::initWithSafariData(ContentBlockerRule::fromJSON(json)),
                  withFlag)
            << json;
    }
}

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

TEST_F(SharedCustomRuleTest, DefaultsMergeAndDescription) {
    EXPECT_EQ(SharedCustomRule{}.addDate, kNow);  // stamped when made

    SharedCustomRule merged = aCustomRule().action(3).domains("b.test");
    merged.mergeWhitelistCustomRule(aCustomRule().domains("a.test,b.test"));
    EXPECT_EQ(merged, aCustomRule().action(3).domains("a.test,b.test").build());

    // "%f" of any magnitude is written whole, never cut.
    SharedCustomRule rule;
    rule.addDate = -1e300;
    const std::string text = rule.description();
    const size_t start = text.find(" - addDate: -1");
    const size_t end = text.find(".000000 - blockerProfileID: ");
    ASSERT_NE(start, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(end - start, std::string_view(" - addDate: -").size() + 301);
}

}  // namespace
}  // namespace stonewall
