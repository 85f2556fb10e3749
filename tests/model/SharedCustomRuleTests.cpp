#include "model/SharedCustomRule.h"

#include <gtest/gtest.h>

#include <limits>

#include "RuleJSONTestSupport.h"
#include "model/ProfileRule.h"
#include "utilities/Custom.h"
#include "utilities/Generator.h"

namespace stonewall {
namespace {

using test_support::parsed;
using test_support::written;
using Strings = std::vector<std::string>;

class SharedCustomRuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Custom::setClockForTesting([] { return kNow; });
    }
    void TearDown() override { Custom::setClockForTesting({}); }

    static constexpr Custom::Timestamp kNow = 1700000000.25;
};

bool isLowerHex(const std::string& text)
{
    return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST_F(SharedCustomRuleTest, InitDefaults)
{
    const SharedCustomRule rule;
    EXPECT_EQ(rule.ruleID, std::nullopt);
    EXPECT_EQ(rule.blocker, 4);
    EXPECT_EQ(rule.action, 0);
    EXPECT_EQ(rule.domainType, 1);
    EXPECT_EQ(rule.addDate, kNow);
    EXPECT_EQ(rule.modDate, 0);
    EXPECT_EQ(rule.filterSensitive, 0);
    EXPECT_EQ(rule.regularExpression, 0);
    EXPECT_EQ(rule.ruleType, 1);
    EXPECT_EQ(rule.active, 1);
    EXPECT_EQ(rule.filterInfo, 1);
    for (const NullableString* field :
         {&rule.selector, &rule.filter, &rule.resources, &rule.loads, &rule.blockerProfileID,
          &rule.ruleName, &rule.filterDomain, &rule.domains})
        EXPECT_EQ(*field, std::nullopt);
}

TEST_F(SharedCustomRuleTest, InitWithRuleDataOfTheWrongSizeGivesDefaults)
{
    for (size_t size : {0u, 1u, 8u, 10u, 20u}) {
        const Strings data(size, "5");
        const SharedCustomRule rule = SharedCustomRule::initWithRuleData(data, "profile1234");
        EXPECT_EQ(rule, SharedCustomRule{}) << size;
        EXPECT_EQ(rule.blockerProfileID, std::nullopt);
        EXPECT_EQ(rule.ruleID, std::nullopt);
    }
}

TEST_F(SharedCustomRuleTest, InitWithRuleData)
{
    const Strings data = {"2", "^https?://a\\.test/", "div.ad", "image,media", "third-party",
                          "a.test,*.b.test", "2", "1", "https://a.test"};
    const SharedCustomRule rule = SharedCustomRule::initWithRuleData(data, "profile1234");

    SharedCustomRule expected;
    expected.blockerProfileID = "profile1234";
    expected.action = 2;
    expected.filter = "^https?://a\\.test/";
    expected.selector = "div.ad";
    expected.resources = "image,media";
    expected.loads = "third-party";
    expected.domains = "a.test,*.b.test";
    expected.domainType = 2;
    expected.filterSensitive = 1;
    expected.filterDomain = "https://a.test";
    expected.ruleID = rule.ruleID;  // random for a hide rule: checked below
    EXPECT_EQ(rule, expected);
    ASSERT_TRUE(rule.ruleID);
    EXPECT_EQ(rule.ruleID->size(), 10u);
    EXPECT_TRUE(isLowerHex(*rule.ruleID));
}

TEST_F(SharedCustomRuleTest, InitWithRuleDataEmptyEntries)
{
    const SharedCustomRule rule =
        SharedCustomRule::initWithRuleData(Strings(9, ""), std::nullopt);
    EXPECT_EQ(rule.action, 0);
    EXPECT_EQ(rule.domainType, 0);
    EXPECT_EQ(rule.filterSensitive, 0);
    for (const NullableString* field : {&rule.filter, &rule.selector, &rule.resources, &rule.loads,
                                        &rule.domains, &rule.filterDomain})
        EXPECT_EQ(*field, std::nullopt);
    EXPECT_TRUE(rule.ruleID);  // a rule made from data always gets an identifier
}

TEST_F(SharedCustomRuleTest, InitWithRuleDataIntegerEntries)
{
    struct Case {
        std::string text;
        int64_t value;
    };
    const Case cases[] = {
        {"5", 5},  {" 7", 7},  {"-1", -1}, {"+3", 3}, {"3rd", 3}, {"x3", 0}, {"", 0},
        {"99999999999999999999", std::numeric_limits<int64_t>::max()},
        {"-99999999999999999999", std::numeric_limits<int64_t>::min()},
    };
    for (const auto& c : cases) {
        const Strings data = {c.text, "", "", "", "", "", c.text, c.text, ""};
        const SharedCustomRule rule = SharedCustomRule::initWithRuleData(data, "p");
        EXPECT_EQ(rule.action, c.value) << c.text;
        EXPECT_EQ(rule.domainType, c.value) << c.text;
        EXPECT_EQ(rule.filterSensitive, c.value) << c.text;
    }
}

TEST_F(SharedCustomRuleTest, WebsiteRuleDataGetsTheProfilesFixedIdentifier)
{
    for (int64_t action : {ActionCode::kAllowWebsite, ActionCode::kBlockWebsite,
                           ActionCode::kSecureWebsite}) {
        Strings data(9, "");
        data[0] = std::to_string(action);
        const SharedCustomRule rule = SharedCustomRule::initWithRuleData(data, "profile1234");
        EXPECT_EQ(rule.ruleID, Generator::customRuleID(action, "profile1234")) << action;
        ASSERT_TRUE(rule.ruleID);
        EXPECT_EQ(rule.ruleID->size(), 40u);
    }
}

TEST_F(SharedCustomRuleTest, DataOrNil)
{
    const Strings data = {"a", ""};
    EXPECT_EQ(SharedCustomRule::dataOrNil(data, 0), "a");
    EXPECT_EQ(SharedCustomRule::dataOrNil(data, 1), std::nullopt);
    EXPECT_EQ(SharedCustomRule::dataOrNil(data, 2), std::nullopt);  // out of range: null, no crash
}

TEST_F(SharedCustomRuleTest, InitWithSafariDataOfTheMakeHTTPSExample)
{
    const SharedCustomRule rule = SharedCustomRule::initWithSafariData(ContentBlockerRule::fromJSON(
        R"({"action":{"type":"make-https"},"trigger":{"url-filter":".*"}})"));
    SharedCustomRule expected;
    expected.action = 0;
    expected.filter = ".*";
    expected.domainType = 1;
    expected.regularExpression = 1;
    EXPECT_EQ(rule, expected);
}

TEST_F(SharedCustomRuleTest, InitWithSafariData)
{
    struct Case {
        const char* json;
        int64_t action;
        NullableString selector;
        NullableString filter;
        int64_t filterSensitive;
        NullableString resources;
        NullableString loads;
        int64_t domainType;
        NullableString domains;
    };
    const Case cases[] = {
        {R"({"action":{"type":"block"},"trigger":{"url-filter":"ads","url-filter-is-case-sensitive":true,
             "resource-type":["image","script"],"load-type":["third-party"],"if-domain":["a.test","*.b.test"]}})",
         1, std::nullopt, "ads", 1, "image,script", "third-party", 1, "a.test,*.b.test"},
        {R"({"action":{"type":"css-display-none","selector":"div.ad"},"trigger":{"url-filter":".*",
             "unless-domain":["a.test"]}})",
         2, "div.ad", ".*", 0, std::nullopt, std::nullopt, 2, "a.test"},
        {R"({"action":{"type":"ignore-previous-rules","selector":"x"},"trigger":{"url-filter":".*",
             "if-domain":[],"unless-domain":["b.test"]}})",
         3, "x", ".*", 0, std::nullopt, std::nullopt, 1, ""},
        {R"({"action":{"type":"block-cookies"},"trigger":{"url-filter":".*","resource-type":[""],
             "if-top-url":["^[^:]+://+a\\.test[:/]"],"unless-top-url":["x"]}})",
         0, std::nullopt, ".*", 0, "", std::nullopt, 1, std::nullopt},
        {R"({"action":{},"trigger":{}})", 0, std::nullopt, std::nullopt, 0, std::nullopt,
         std::nullopt, 1, std::nullopt},
        // Wrong types read as absent fields; non-string members are skipped.
        {R"({"action":{"type":["block"],"selector":7},"trigger":{"url-filter":false,
             "url-filter-is-case-sensitive":"yes","resource-type":"image",
             "load-type":[1,"first-party",null],"if-domain":"a.test","unless-domain":[{}]}})",
         0, std::nullopt, std::nullopt, 0, std::nullopt, "first-party", 2, ""},
        {R"({"action":"block","trigger":"ads"})", 0, std::nullopt, std::nullopt, 0, std::nullopt,
         std::nullopt, 1, std::nullopt},
        {"not json", 0, std::nullopt, std::nullopt, 0, std::nullopt, std::nullopt, 1, std::nullopt},
    };
    for (const auto& c : cases) {
        const SharedCustomRule rule =
            SharedCustomRule::initWithSafariData(ContentBlockerRule::fromJSON(c.json));
        SharedCustomRule expected;
        expected.regularExpression = 1;
        expected.action = c.action;
        expected.selector = c.selector;
        expected.filter = c.filter;
        expected.filterSensitive = c.filterSensitive;
        expected.resources = c.resources;
        expected.loads = c.loads;
        expected.domainType = c.domainType;
        expected.domains = c.domains;
        EXPECT_EQ(rule, expected) << c.json;
    }
}

TEST_F(SharedCustomRuleTest, ConvertToSafariData)
{
    struct Case {
        int64_t action;
        int64_t domainType;
        NullableString domains;
        const char* json;
    };
    const Case cases[] = {
        {1, 1, "b\xC3\xBC" "cher.test,*.a.test",
         R"({"action":{"type":"block"},"trigger":{"url-filter":"b\u00fccher.test/x",
             "if-domain":["bücher.test","*.a.test"]}})"},
        {2, 2, "a.test", R"({"action":{"type":"css-display-none","selector":""},
                             "trigger":{"url-filter":"b\u00fccher.test/x","unless-domain":["a.test"]}})"},
        {3, 4, "a.test", R"({"action":{"type":"ignore-previous-rules"},
                             "trigger":{"url-filter":"b\u00fccher.test/x"}})"},
        {4, 1, "", R"({"action":{"type":"block-cookies"},"trigger":{"url-filter":"b\u00fccher.test/x"}})"},
        {4, 1, ",a.test", R"({"action":{"type":"block-cookies"},
                             "trigger":{"url-filter":"b\u00fccher.test/x","if-domain":["","a.test"]}})"},
        {5, 1, "a.test", R"({"action":{},"trigger":{"if-domain":["a.test"]}})"},
        {7, -1, "a.test", R"({"action":{},"trigger":{}})"},
        {0, 2, std::nullopt, R"({"action":{},"trigger":{}})"},
        {6, 2, std::nullopt, R"({"action":{},"trigger":{}})"},
        {8, 2, std::nullopt, R"({"action":{},"trigger":{}})"},
    };
    for (const auto& c : cases) {
        SharedCustomRule rule;
        rule.action = c.action;
        rule.selector = "";
        rule.filter = "b\xC3\xBC" "cher.test/x";  // never IDNA-encoded here
        rule.domainType = c.domainType;
        rule.domains = c.domains;
        EXPECT_EQ(written(rule.convertToSafariData()), parsed(c.json)) << "action " << c.action;
    }

    SharedCustomRule typed;
    typed.action = ActionCode::kBlock;
    typed.filterSensitive = 1;
    typed.resources = "image,";
    typed.loads = "";
    const ContentBlockerRule converted = typed.convertToSafariData();
    EXPECT_TRUE(converted.trigger.urlFilterIsCaseSensitive);
    EXPECT_EQ(converted.trigger.urlFilter, std::nullopt);
    EXPECT_EQ(converted.trigger.resourceType, (Strings{"image", ""}));
    EXPECT_EQ(converted.trigger.loadType, Strings{""});
}

TEST_F(SharedCustomRuleTest, SafariDataRoundTrip)
{
    const char* inputs[] = {
        R"({"action":{"type":"block"},"trigger":{"url-filter":"^https?://ads\\.test/"}})",
        R"({"action":{"type":"block"},"trigger":{"url-filter":"x","url-filter-is-case-sensitive":true,
            "resource-type":["image","script"],"load-type":["third-party"],"if-domain":["*.a.test","b.test"]}})",
        R"({"action":{"type":"css-display-none","selector":"div.ad, #banner"},
            "trigger":{"url-filter":".*","unless-domain":["a.test"]}})",
        R"({"action":{"type":"css-display-none","selector":""},"trigger":{"url-filter":".*"}})",
        R"({"action":{"type":"ignore-previous-rules"},"trigger":{"url-filter":".*","if-domain":["a.test"]}})",
        R"({"action":{"type":"block"},"trigger":{"resource-type":["font"],"load-type":["first-party"]}})",
    };
    for (const char* input : inputs) {
        const ContentBlockerRule original = ContentBlockerRule::fromJSON(input);
        ASSERT_NE(original, ContentBlockerRule{}) << input;
        const SharedCustomRule rule = SharedCustomRule::initWithSafariData(original);
        EXPECT_EQ(rule.convertToSafariData(), original) << input;
    }
}

TEST_F(SharedCustomRuleTest, HashEqualsTheHashOfItsProfileRule)
{
    SharedCustomRule bare;
    SharedCustomRule full;
    full.ruleID = "0123456789";
    full.action = ActionCode::kHide;
    full.selector = "div.ad";
    full.filter = ".*";
    full.resources = "image";
    full.loads = "third-party";
    full.domainType = 2;
    full.domains = "a.test";
    full.filterSensitive = 1;
    full.ruleName = "not part of the key";
    SharedCustomRule emptyFields = bare;
    emptyFields.selector = emptyFields.filter = emptyFields.domains = "";

    for (const SharedCustomRule& rule : {bare, full, emptyFields}) {
        EXPECT_EQ(rule.computeHash(), ProfileRule::initWithSharedCustomRule(rule).computeHash());
    }
    EXPECT_EQ(bare.computeHash(), "0-----1-");  // domainType 1 here, not -1
    EXPECT_EQ(full.computeHash(), "2-div.ad-.*-image-third-party-2-a.test");
    EXPECT_EQ(emptyFields.computeHash(), bare.computeHash());
    EXPECT_EQ(SharedCustomRule::validateData(std::nullopt), "");
    EXPECT_EQ(SharedCustomRule::validateData("x"), "x");
}

TEST_F(SharedCustomRuleTest, MergeWhitelistCustomRule)
{
    struct Case {
        NullableString own;
        NullableString other;
        std::string merged;
    };
    const Case cases[] = {
        {"b.test,c.test", "a.test,b.test,b.test", "a.test,b.test,c.test"},
        {"c.test", "d.test,d.test", "d.test,d.test,c.test"},
        {std::nullopt, std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SharedCustomRule a;
        a.action = ActionCode::kAllowWebsite;
        a.domains = c.own;
        SharedCustomRule b;
        b.domains = c.other;
        SharedCustomRule expected = a;
        expected.domains = c.merged;
        a.mergeWhitelistCustomRule(b);
        EXPECT_EQ(a, expected);
    }
}

TEST_F(SharedCustomRuleTest, Description)
{
    SharedCustomRule rule;
    rule.ruleID = "r1";
    rule.action = 5;
    rule.domains = "a.test";
    rule.modDate = 1.5;
    EXPECT_EQ(rule.description(),
              "ruleID: r1 - blocker: 4 - action: 5 - selector: (null) - filter: (null) - "
              "resources: (null) - loads: (null) - domainType: 1 - addDate: 1700000000.250000 - "
              "blockerProfileID: (null) - ruleName: (null) - filterSensitive: 0 - "
              "modDate: 1.500000 - regularExpression: 0 - ruleType: 1 - active: 1 - "
              "filterDomain: (null) - domains: a.test - filterInfo: 1 - domains: a.test");

    // "%f" of any magnitude is written whole, never cut.
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
