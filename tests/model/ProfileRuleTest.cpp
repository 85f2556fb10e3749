#include <gtest/gtest.h>

#include <limits>

#include "RuleTestSupport.h"
#include "model/ProfileRule.h"

namespace stonewall {
namespace {

using namespace test_support;
using Json = nlohmann::json;

constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();

// Every action code: the type, whether the selector goes along, and which
// codes IDNA-encode the filter (1 and 5 only).
TEST(ProfileRule, ActionCodeTable) {
    const std::pair<int64_t, const char*> cases[] = {
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
    for (const auto& [action, json] : cases) {
        const ProfileRule rule =
            aRule().action(action).filter("bücher.test/ads").selector("div.ad");
        EXPECT_EQ(written(rule.convertToSafariData2()), parsed(json)) << action;
    }
    // A null filter writes no url-filter; an empty one writes "".
    for (int64_t action = 0; action <= 9; ++action)
        EXPECT_FALSE(aRule().action(action).build().convertToSafariData2().trigger.urlFilter);
    EXPECT_EQ(aRule().action(1).filter("").build().convertToSafariData2().trigger.urlFilter, "");
}

TEST(ProfileRule, SelectorOfHideAgainstExceptionRules) {
    // The action table has the rows with a selector; here null against empty.
    const std::tuple<int64_t, NullableString, NullableString> cases[] = {
        {2, std::nullopt, std::nullopt},
        {2, "", ""},
        {3, std::nullopt, std::nullopt},
        {3, "", {}},
        {6, "", std::nullopt}};
    for (const auto& [action, selector, expected] : cases) {
        const ProfileRule rule = aRule().action(action).selector(selector);
        EXPECT_EQ(rule.convertToSafariData2().action.selector, expected)
            << action << " " << textOrNull(selector);
    }
}

// The triggers (action 0: no url-filter), as JSON text
// in which "H:" stands for the any-host prefix of the top-URL patterns and
// "S:" for it with the optional subdomains.
Json trigger(std::string text) {
    for (auto [from, to] :
         {std::pair<std::string, std::string>{"\"S:", "\"^[^:]+://+([^:/]+\\\\.)?"},
          {"\"H:", "\"^[^:]+://+"}}) {
        for (size_t at; (at = text.find(from)) != std::string::npos;) text.replace(at, 3, to);
    }
    return parsed(text);
}

TEST(ProfileRule, DomainTypeTable) {
    const std::tuple<int64_t, NullableString, const char*> cases[] = {
        {1, "*.shop.test", R"({"if-top-url":["S:shop\\.test[:/]"]})"},
        {2, "shop.test,*.cdn.test",
         R"({"unless-top-url":["H:shop\\.test[:/]","S:cdn\\.test[:/]"]})"},
        {1, "*.bücher.test", R"({"if-top-url":["S:xn--bcher-kva\\.test[:/]"]})"},
        {4, "*.shop.test,bücher.test", R"({"if-top-url":["*.shop.test","xn--bcher-kva.test"]})"},
        {5, "*.shop.test,bücher.test",
         R"({"unless-top-url":["*.shop.test","xn--bcher-kva.test"]})"},
        // Only a leading "*" is special; the escape set is exactly . ? ^ + |
        {1, "a*b.test", R"({"if-top-url":["H:a*b\\.test[:/]"]})"},
        {1, "**.test", R"({"if-top-url":["S:*\\.test[:/]"]})"},
        {1, "a?b^c+d|e$f(g)", R"({"if-top-url":["H:a\\?b\\^c\\+d\\|e$f(g)[:/]"]})"},
        {1, "*", R"({"if-top-url":["S:[:/]"]})"},
        {1, "*.", R"({"if-top-url":["S:[:/]"]})"},
        // Without the dot the "*" still stands for the domain and its subdomains.
        {1, "*shop.test", R"({"if-top-url":["S:shop\\.test[:/]"]})"},
        {1, "*..shop.test", R"({"if-top-url":["S:\\.shop\\.test[:/]"]})"},
        // The pattern of an empty domain is not empty, so it is written.
        {1, "", R"({"if-top-url":["H:[:/]"]})"},
        {1, ",shop.test", R"({"if-top-url":["H:[:/]","H:shop\\.test[:/]"]})"},
        {1, "a.test,,b.test", R"({"if-top-url":["H:a\\.test[:/]","H:[:/]","H:b\\.test[:/]"]})"},
        {4, "", "{}"},
        {4, ",shop.test", "{}"},
        {5, "a.test,,b.test", R"({"unless-top-url":["a.test","","b.test"]})"},
        {-1, "shop.test", "{}"},
        {3, "shop.test", "{}"},
        {0, "shop.test", "{}"},
        {6, "shop.test", "{}"},
        {1, std::nullopt, "{}"},
        {2, std::nullopt, "{}"},
        {4, std::nullopt, "{}"}};
    for (const auto& [domainType, domains, topURL] : cases) {
        SCOPED_TRACE(std::to_string(domainType) + " " + textOrNull(domains));
        const ProfileRule rule = aRule().domainType(domainType).domains(domains);
        EXPECT_EQ(written(rule.convertToSafariData2())["trigger"], trigger(topURL));
    }
}

TEST(ProfileRule, TriggerListsAndCaseFlag) {
    // Resource and load types split on commas, keeping empty pieces.
    using Strings = std::vector<std::string>;
    const std::pair<NullableString, std::optional<Strings>> lists[] = {
        {std::nullopt, std::nullopt},
        {"", Strings{""}},
        {"image,", Strings{"image", ""}},
        {"image,script,style-sheet", Strings{"image", "script", "style-sheet"}},
        {" image", Strings{" image"}},
    };
    for (const auto& [list, split] : lists) {
        const auto converted =
            aRule().action(1).resources(list).loads(list).build().convertToSafariData2();
        EXPECT_EQ(converted.trigger.resourceType, split) << textOrNull(list);
        EXPECT_EQ(converted.trigger.loadType, split) << textOrNull(list);
    }
    // The case flag is written, as true, whenever it is not 0.
    for (const auto& [sensitive, flag] :
         {std::pair<int64_t, bool>{0, false}, {1, true}, {-3, true}, {kInt64Min, true}}) {
        const Json trigger = written(aRule()
                                         .action(1)
                                         .filter(".*")
                                         .filterSensitive(sensitive)
                                         .build()
                                         .convertToSafariData2())["trigger"];
        EXPECT_EQ(trigger.value("url-filter-is-case-sensitive", Json()), flag ? Json(true) : Json())
            << sensitive;
    }
}

TEST(ProfileRule, ExactTextOfTheWrittenObject) {
    const std::pair<ProfileRule, const char*> cases[] = {
        {aRule().action(3).filter(".*").domains("shop.test,*.cdn.test").domainType(1),
         R"({"action":{"type":"ignore-previous-rules"},"trigger":{"url-filter":".*",)"
         R"("if-top-url":["^[^:]+://+shop\\.test[:/]","^[^:]+://+([^:/]+\\.)?cdn\\.test[:/]"]}})"},
        {aRule().action(2).selector("div.ad").filter(".*"),
         R"({"action":{"type":"css-display-none","selector":"div.ad"},"trigger":{"url-filter":".*"}})"},
    };
    for (const auto& [rule, json] : cases) EXPECT_EQ(rule.convertToSafariData2().toJSON(), json);
}

// Every field away from its default, in declaration order.
ProfileRule fullRule() {
    return {"id", 3, 2, "div", ".*", "image", "third-party", "a.test,b.test", 4, 1};
}

TEST(ProfileRule, HashKeyTable) {
    // ruleID, blocker and filterSensitive take no part; null equals empty.
    const std::pair<ProfileRule, const char*> cases[] = {
        {aRule().action(1), "1------1-"},
        {aRule().action(1).selector("").filter("").resources("").loads("").domains(""),
         "1------1-"},
        {fullRule(), "2-div-.*-image-third-party-4-a.test,b.test"},
        {aRuleFrom(fullRule()).ruleID({}).blocker(1).filterSensitive(0),
         "2-div-.*-image-third-party-4-a.test,b.test"},
        {aRule().action(kInt64Min).domainType(kInt64Max),
         "-9223372036854775808-----9223372036854775807-"}};
    for (const auto& [rule, hash] : cases) EXPECT_EQ(rule.computeHash(), hash);
    std::string buffer = "prefix|";
    fullRule().appendHash(buffer);  // appends the same text to what the buffer holds
    EXPECT_EQ(buffer, "prefix|" + fullRule().computeHash());
    EXPECT_EQ(ProfileRule::validateData(std::nullopt), "");
    EXPECT_EQ(ProfileRule::validateData(" "), " ");
}

}  // namespace
}  // namespace stonewall
