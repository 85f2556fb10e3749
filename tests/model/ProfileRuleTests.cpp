#include "model/ProfileRule.h"

#include <gtest/gtest.h>

#include <limits>

#include "RuleJSONTestSupport.h"
#include "model/SharedCustomRule.h"

namespace stonewall {
namespace {

using test_support::parsed;
using test_support::written;

constexpr std::string_view kAnyHost = "^[^:]+://+";

ProfileRule ruleWithAction(int64_t action)
{
    ProfileRule rule;
    rule.action = action;
    rule.filter = "b\xC3\xBC" "cher.test/ads";  // "bücher.test/ads"
    rule.selector = "div.ad";
    return rule;
}

TEST(ProfileRule, InitDefaults)
{
    const ProfileRule rule;
    EXPECT_EQ(rule.ruleID, std::nullopt);
    EXPECT_EQ(rule.blocker, 0);
    EXPECT_EQ(rule.action, 0);
    EXPECT_EQ(rule.selector, std::nullopt);
    EXPECT_EQ(rule.filter, std::nullopt);
    EXPECT_EQ(rule.resources, std::nullopt);
    EXPECT_EQ(rule.loads, std::nullopt);
    EXPECT_EQ(rule.domains, std::nullopt);
    EXPECT_EQ(rule.domainType, -1);
    EXPECT_EQ(rule.filterSensitive, 0);
}

// Every action code: the type, whether the selector goes along, and which
// codes IDNA-encode the filter (1 and 5 only).
TEST(ProfileRule, ConvertToSafariData2ActionCodes)
{
    struct Case {
        int64_t action;
        const char* json;
    };
    const Case cases[] = {
        {0, R"({"action":{},"trigger":{}})"},
        {1, R"({"action":{"type":"block"},"trigger":{"url-filter":"xn--bcher-kva.test/ads"}})"},
        {2, R"({"action":{"type":"css-display-none","selector":"div.ad"},
                "trigger":{"url-filter":"bücher.test/ads"}})"},
        {3, R"({"action":{"type":"ignore-previous-rules","selector":"div.ad"},
                "trigger":{"url-filter":"bücher.test/ads"}})"},
        {4, R"({"action":{"type":"block-cookies"},"trigger":{"url-filter":"bücher.test/ads"}})"},
        {5, R"({"action":{"type":"block"},"trigger":{"url-filter":"xn--bcher-kva.test/ads"}})"},
        {6, R"({"action":{"type":"ignore-previous-rules","selector":"div.ad"},
                "trigger":{"url-filter":"bücher.test/ads"}})"},
        {7, R"({"action":{"type":"make-https"},"trigger":{"url-filter":"bücher.test/ads"}})"},
        {8, R"({"action":{"type":"make-https"},"trigger":{"url-filter":"bücher.test/ads"}})"},
        {9, R"({"action":{},"trigger":{}})"},
        {-1, R"({"action":{},"trigger":{}})"},
    };
    for (const auto& c : cases) {
        const ProfileRule rule = ruleWithAction(c.action);
        EXPECT_EQ(written(rule.convertToSafariData2()), parsed(c.json)) << "action " << c.action;
        // The earlier conversion treats actions the same way.
        EXPECT_EQ(written(rule.convertToSafariData()), parsed(c.json)) << "action " << c.action;
    }
}

TEST(ProfileRule, SelectorOfHideAgainstExceptionRules)
{
    struct Case {
        int64_t action;
        NullableString selector;
        NullableString written;
    };
    const Case cases[] = {
        {2, std::nullopt, std::nullopt},
        {2, "", ""},
        {2, "div.ad", "div.ad"},
        {3, std::nullopt, std::nullopt},
        {3, "", std::nullopt},
        {3, "div.ad", "div.ad"},
        {6, std::nullopt, std::nullopt},
        {6, "", std::nullopt},
        {6, "div.ad", "div.ad"},
        {1, "div.ad", std::nullopt},
        {4, "div.ad", std::nullopt},
        {5, "div.ad", std::nullopt},
        {7, "div.ad", std::nullopt},
        {8, "div.ad", std::nullopt},
        {0, "div.ad", std::nullopt},
    };
    for (const auto& c : cases) {
        ProfileRule rule;
        rule.action = c.action;
        rule.selector = c.selector;
        EXPECT_EQ(rule.convertToSafariData2().action.selector, c.written)
            << "action " << c.action << " selector " << textOrNull(c.selector);
    }
}

TEST(ProfileRule, NullFilterWritesNoURLFilter)
{
    for (int64_t action = 0; action <= 9; ++action) {
        ProfileRule rule;
        rule.action = action;
        EXPECT_EQ(rule.convertToSafariData2().trigger.urlFilter, std::nullopt) << action;
    }
    ProfileRule rule;
    rule.action = ActionCode::kBlock;
    rule.filter = "";
    EXPECT_EQ(rule.convertToSafariData2().trigger.urlFilter, "");
}

TEST(ProfileRule, DomainTypesOfTheTopURLConversion)
{
    struct Case {
        int64_t domainType;
        NullableString domains;
        nlohmann::json trigger;  // the expected trigger, besides "url-filter"
    };
    const std::string host(kAnyHost);
    const std::string subdomains = host + "([^:/]+\\.)?";
    const Case cases[] = {
        {1, "*.shop.test", {{"if-top-url", {subdomains + "shop\\.test[:/]"}}}},
        {2, "shop.test,*.cdn.test",
         {{"unless-top-url", {host + "shop\\.test[:/]", subdomains + "cdn\\.test[:/]"}}}},
        {1, "*.b\xC3\xBC" "cher.test", {{"if-top-url", {subdomains + "xn--bcher-kva\\.test[:/]"}}}},
        {4, "*.shop.test,b\xC3\xBC" "cher.test",
         {{"if-top-url", {"*.shop.test", "xn--bcher-kva.test"}}}},
        {5, "*.shop.test,b\xC3\xBC" "cher.test",
         {{"unless-top-url", {"*.shop.test", "xn--bcher-kva.test"}}}},
        // Only a leading "*" is special; the escape set is exactly . ? ^ + |
        {1, "a*b.test", {{"if-top-url", {host + "a*b\\.test[:/]"}}}},
        {1, "**.test", {{"if-top-url", {subdomains + "*\\.test[:/]"}}}},
        {1, "a?b^c+d|e$f(g)", {{"if-top-url", {host + "a\\?b\\^c\\+d\\|e$f(g)[:/]"}}}},
        {1, "*", {{"if-top-url", {subdomains + "[:/]"}}}},
        {1, "*.", {{"if-top-url", {subdomains + "[:/]"}}}},
        // Without the dot the "*" still stands for the domain and its subdomains.
        {1, "*shop.test", {{"if-top-url", {subdomains + "shop\\.test[:/]"}}}},
        {1, "*..shop.test", {{"if-top-url", {subdomains + "\\.shop\\.test[:/]"}}}},
        // The pattern of an empty domain is not empty, so it is written.
        {1, "", {{"if-top-url", {host + "[:/]"}}}},
        {1, ",shop.test", {{"if-top-url", {host + "[:/]", host + "shop\\.test[:/]"}}}},
        // Verbatim lists: a first empty entry drops the key, later ones stay.
        {4, "", nlohmann::json::object()},
        {4, ",shop.test", nlohmann::json::object()},
        {5, "a.test,,b.test", {{"unless-top-url", {"a.test", "", "b.test"}}}},
        {-1, "shop.test", nlohmann::json::object()},
        {3, "shop.test", nlohmann::json::object()},
        {0, "shop.test", nlohmann::json::object()},
        {6, "shop.test", nlohmann::json::object()},
        {1, std::nullopt, nlohmann::json::object()},
        {4, std::nullopt, nlohmann::json::object()},
    };
    for (const auto& c : cases) {
        ProfileRule rule;
        rule.action = 0;  // no url-filter: the trigger holds only the domain key
        rule.domainType = c.domainType;
        rule.domains = c.domains;
        const nlohmann::json trigger = written(rule.convertToSafariData2())["trigger"];
        EXPECT_EQ(trigger, c.trigger) << "type " << c.domainType << " domains "
                                      << textOrNull(c.domains);
    }
}

TEST(ProfileRule, DomainTypesOfTheEarlierConversion)
{
    struct Case {
        int64_t domainType;
        NullableString domains;
        nlohmann::json trigger;
    };
    const Case cases[] = {
        {1, "*.shop.test", {{"if-domain", {"*.shop.test"}}}},
        {2, "b\xC3\xBC" "cher.test,a.test", {{"unless-domain", {"xn--bcher-kva.test", "a.test"}}}},
        {1, "a.test,,b.test", {{"if-domain", {"a.test", "", "b.test"}}}},
        {1, "", nlohmann::json::object()},
        {1, ",a.test", nlohmann::json::object()},
        {4, "*.shop.test", nlohmann::json::object()},
        {5, "*.shop.test", nlohmann::json::object()},
        {-1, "shop.test", nlohmann::json::object()},
        {2, std::nullopt, nlohmann::json::object()},
    };
    for (const auto& c : cases) {
        ProfileRule rule;
        rule.domainType = c.domainType;
        rule.domains = c.domains;
        EXPECT_EQ(written(rule.convertToSafariData())["trigger"], c.trigger)
            << "type " << c.domainType << " domains " << textOrNull(c.domains);
    }
}

TEST(ProfileRule, ResourceAndLoadTypesSplitKeepingEmptyPieces)
{
    struct Case {
        NullableString list;
        std::optional<std::vector<std::string>> split;
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt},
        {"", std::vector<std::string>{""}},
        {"image,", std::vector<std::string>{"image", ""}},
        {"image,script,style-sheet", std::vector<std::string>{"image", "script", "style-sheet"}},
        {" image", std::vector<std::string>{" image"}},
    };
    for (const auto& c : cases) {
        ProfileRule rule;
        rule.action = ActionCode::kBlock;
        rule.resources = c.list;
        rule.loads = c.list;
        const ContentBlockerRule converted = rule.convertToSafariData2();
        EXPECT_EQ(converted.trigger.resourceType, c.split) << textOrNull(c.list);
        EXPECT_EQ(converted.trigger.loadType, c.split) << textOrNull(c.list);
    }
}

TEST(ProfileRule, CaseSensitivityIsWrittenOnlyWhenSet)
{
    struct Case {
        int64_t filterSensitive;
        bool written;
    };
    const Case cases[] = {{0, false}, {1, true}, {-3, true}, {std::numeric_limits<int64_t>::min(), true}};
    for (const auto& c : cases) {
        ProfileRule rule;
        rule.action = ActionCode::kBlock;
        rule.filter = ".*";
        rule.filterSensitive = c.filterSensitive;
        const std::string json = rule.convertToSafariData2().toJSON();
        EXPECT_EQ(json.find("url-filter-is-case-sensitive") != std::string::npos, c.written);
        if (c.written) {
            EXPECT_EQ(parsed(json)["trigger"]["url-filter-is-case-sensitive"], true);
        }
    }
}

TEST(ProfileRule, ExamplesOfTheRuleObject)
{
    ProfileRule allow;
    allow.action = ActionCode::kAllowWebsite;
    allow.filter = ".*";
    allow.domains = "shop.test,*.cdn.test";
    allow.domainType = DomainTypeCode::kIfTopURL;
    EXPECT_EQ(allow.convertToSafariData2().toJSON(),
              R"({"action":{"type":"ignore-previous-rules"},"trigger":{"url-filter":".*",)"
              R"("if-top-url":["^[^:]+://+shop\\.test[:/]","^[^:]+://+([^:/]+\\.)?cdn\\.test[:/]"]}})");

    ProfileRule blockWebsite;
    blockWebsite.action = ActionCode::kBlockWebsite;
    blockWebsite.filter = ".*";
    blockWebsite.domains = "*.shop.test";
    blockWebsite.domainType = DomainTypeCode::kIfTopURL;
    const ContentBlockerRule converted = blockWebsite.convertToSafariData2();
    EXPECT_EQ(converted.action.type, "block");
    EXPECT_EQ(converted.trigger.urlFilter, ".*");
    ASSERT_TRUE(converted.trigger.ifTopURL);
    EXPECT_EQ(*converted.trigger.ifTopURL,
              std::vector<std::string>{"^[^:]+://+([^:/]+\\.)?shop\\.test[:/]"});

    ProfileRule hide;
    hide.action = ActionCode::kHide;
    hide.selector = "div.ad";
    hide.filter = ".*";
    EXPECT_EQ(hide.convertToSafariData2().toJSON(),
              R"({"action":{"type":"css-display-none","selector":"div.ad"},"trigger":{"url-filter":".*"}})");
}

TEST(ProfileRule, InitWithRuleTagsByReloadType)
{
    ProfileRule source;
    source.ruleID = "own-id";
    source.blocker = 2;
    source.action = 6;
    source.selector = "s";
    source.filter = "f";
    source.resources = "image";
    source.loads = "third-party";
    source.domains = "a.test";
    source.domainType = 4;
    source.filterSensitive = 1;

    struct Case {
        int64_t reloadType;
        NullableString ruleID;
    };
    const Case cases[] = {{0, std::nullopt}, {1, std::nullopt}, {2, "ad"},  {3, "ad"},
                          {4, "tr"},         {5, "sm"},         {6, "sm"},  {7, "wr_images"},
                          {8, "wr_media"},   {9, "wr_scripts"}, {10, "wr_stylesheets"},
                          {11, "wr_svgs"},   {12, std::nullopt}, {13, "bn"}, {14, "bn"},
                          {15, std::nullopt}, {-1, std::nullopt}};
    for (const auto& c : cases) {
        ProfileRule expected = source;
        expected.ruleID = c.ruleID;  // the source's own ruleID is never carried
        EXPECT_EQ(ProfileRule::initWithRule(source, c.reloadType), expected) << c.reloadType;
    }
}

TEST(ProfileRule, InitWithCustomRuleCarriesTheRuleFieldsOnly)
{
    SharedCustomRule custom;
    custom.ruleID = "abcdef0123";
    custom.blocker = 1;  // overridden: a rule made from a custom rule is always list 4
    custom.action = ActionCode::kHide;
    custom.selector = "div.ad";
    custom.filter = ".*";
    custom.resources = "image";
    custom.loads = "first-party";
    custom.domainType = 2;
    custom.filterSensitive = 1;
    custom.domains = "a.test";
    custom.ruleName = "name";
    custom.filterDomain = "https://a.test";
    custom.active = 0;

    ProfileRule expected;
    expected.ruleID = "abcdef0123";
    expected.blocker = BlockerCode::kCustom;
    expected.action = ActionCode::kHide;
    expected.selector = "div.ad";
    expected.filter = ".*";
    expected.resources = "image";
    expected.loads = "first-party";
    expected.domainType = 2;
    expected.filterSensitive = 1;
    expected.domains = "a.test";

    EXPECT_EQ(ProfileRule::initWithCustomRule(custom), expected);
    EXPECT_EQ(ProfileRule::initWithSharedCustomRule(custom), expected);
}

TEST(ProfileRule, ComputeHash)
{
    ProfileRule bare;
    bare.action = ActionCode::kBlock;
    EXPECT_EQ(bare.computeHash(), "1------1-");

    ProfileRule full;
    full.ruleID = "id";
    full.blocker = 3;
    full.action = 2;
    full.selector = "div";
    full.filter = ".*";
    full.resources = "image";
    full.loads = "third-party";
    full.domainType = 4;
    full.domains = "a.test,b.test";
    full.filterSensitive = 1;
    EXPECT_EQ(full.computeHash(), "2-div-.*-image-third-party-4-a.test,b.test");

    // ruleID, blocker and filterSensitive take no part; null equals empty.
    ProfileRule twin = full;
    twin.ruleID = std::nullopt;
    twin.blocker = 1;
    twin.filterSensitive = 0;
    EXPECT_EQ(twin.computeHash(), full.computeHash());
    ProfileRule emptied = bare;
    emptied.selector = emptied.filter = emptied.resources = emptied.loads = emptied.domains = "";
    EXPECT_EQ(emptied.computeHash(), bare.computeHash());

    ProfileRule extreme;
    extreme.action = std::numeric_limits<int64_t>::min();
    extreme.domainType = std::numeric_limits<int64_t>::max();
    EXPECT_EQ(extreme.computeHash(), "-9223372036854775808-----9223372036854775807-");

    // appendHash appends the same text to what the buffer holds.
    std::string buffer = "prefix|";
    full.appendHash(buffer);
    EXPECT_EQ(buffer, "prefix|" + full.computeHash());
}

TEST(ProfileRule, ValidateData)
{
    EXPECT_EQ(ProfileRule::validateData(std::nullopt), "");
    EXPECT_EQ(ProfileRule::validateData(""), "");
    EXPECT_EQ(ProfileRule::validateData(" "), " ");
}

TEST(ProfileRule, MergeProfileRuleDomains)
{
    struct Case {
        NullableString own;
        NullableString other;
        NullableString merged;
    };
    const Case cases[] = {
        {"b.test,c.test", "a.test,b.test,b.test", "a.test,b.test,c.test"},
        {"c.test", "d.test,d.test", "d.test,d.test,c.test"},
        {std::nullopt, std::nullopt, ""},
        {std::nullopt, "*.a.test", "*.a.test"},
    };
    for (const auto& c : cases) {
        ProfileRule a;
        a.ruleID = "keep";
        a.action = ActionCode::kBlockWebsite;
        a.domains = c.own;
        ProfileRule b;
        b.action = ActionCode::kAllowWebsite;
        b.domains = c.other;
        ProfileRule expected = a;
        expected.domains = c.merged;
        a.mergeProfileRuleDomains(b);
        EXPECT_EQ(a, expected);  // only domains changes
    }
}

TEST(ProfileRule, Description)
{
    ProfileRule rule;
    EXPECT_EQ(rule.description(),
              "ruleID: (null) - blocker: 0 - action: 0 - selector: (null) - filter: (null) - "
              "resources: (null) - loads: (null) - domains: (null) - domainType: -1 - "
              "filterSensitive: 0");
    rule.ruleID = "r";
    rule.blocker = 4;
    rule.action = 5;
    rule.selector = "";
    rule.filter = ".*";
    rule.resources = "image";
    rule.loads = "third-party";
    rule.domains = "a.test";
    rule.domainType = 1;
    rule.filterSensitive = 1;
    EXPECT_EQ(rule.description(),
              "ruleID: r - blocker: 4 - action: 5 - selector:  - filter: .* - resources: image - "
              "loads: third-party - domains: a.test - domainType: 1 - filterSensitive: 1");
}

}  // namespace
}  // namespace stonewall
