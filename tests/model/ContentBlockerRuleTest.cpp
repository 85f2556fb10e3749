#include <gtest/gtest.h>

#include "RuleTestSupport.h"
#include "model/ContentBlockerRule.h"

namespace stonewall {
namespace {

using test_support::parsed;
using Strings = std::vector<std::string>;

// Every kind of rule object the conversions can emit for actions 1 to 8: with
// and without selector, filter, case flag, resource and load types, and each
// domain key of both conversions.
std::vector<ContentBlockerRule> everyKindOfRule() {
    const NullableString selectors[] = {std::nullopt, "", "div.ad > a[href^=\"x\"]"};
    const NullableString filters[] = {std::nullopt,
                                      "^https?://b\xC3\xBC"
                                      "cher\\.test/\\?q=\\d+"};
    const NullableString resources[] = {std::nullopt, "", "image,script,"};
    const NullableString loads[] = {std::nullopt, "third-party"};
    const int64_t domainTypes[] = {-1, 1, 2, 4, 5};
    std::vector<ContentBlockerRule> rules;
    // Action, selector and domain type in every combination; the remaining
    // fields cycle through their values so that each meets each action.
    for (int64_t action = 1; action <= 8; ++action)
        for (const auto& selector : selectors)
            for (int64_t domainType : domainTypes)
                for (size_t variant = 0; variant < 6; ++variant) {
                    const ProfileRule rule = test_support::aRule()
                                                 .action(action)
                                                 .selector(selector)
                                                 .filter(filters[variant % 2])
                                                 .filterSensitive(static_cast<int64_t>(variant / 3))
                                                 .resources(resources[variant % 3])
                                                 .loads(loads[(variant / 2) % 2])
                                                 .domainType(domainType)
                                                 .domains("*.shop.test,bücher.test,,x.test");
                    rules.push_back(rule.convertToSafariData2());
                    rules.push_back(rule.convertToSafariData());
                }
    return rules;
}

TEST(ContentBlockerRule, EveryWrittenKindReadsBackEqualAloneAndInAList) {
    const std::vector<ContentBlockerRule> rules = everyKindOfRule();
    std::string out;
    ContentBlockerRuleListWriter writer(out);
    for (const ContentBlockerRule& rule : rules) {
        const std::string json = rule.toJSON();
        EXPECT_EQ(ContentBlockerRule::fromJSON(json), rule) << json;
        // Exactly the two objects, both always present.
        const nlohmann::json object = parsed(json);
        EXPECT_TRUE(object.size() == 2 && object["action"].is_object() &&
                    object["trigger"].is_object())
            << json;
        writer.add(rule);
    }
    writer.finish();
    EXPECT_EQ(writer.count(), rules.size());
    const nlohmann::json list = parsed(out);
    ASSERT_TRUE(list.is_array());
    ASSERT_EQ(list.size(), rules.size());
    for (size_t i = 0; i < rules.size(); ++i)
        EXPECT_EQ(ContentBlockerRule::fromJSON(list[i].dump()), rules[i]) << i;
}

TEST(ContentBlockerRule, ListWriterBoundaries) {
    std::string empty;
    ContentBlockerRuleListWriter emptyWriter(empty);
    emptyWriter.finish();
    emptyWriter.finish();  // closing twice writes nothing more
    EXPECT_EQ(empty, "[]");

    // The writer appends after what the buffer holds and ignores rules that
    // come after the list was closed.
    std::string out = "prefix:";
    ContentBlockerRuleListWriter writer(out);
    ContentBlockerRule placeholder;
    placeholder.action.type = "block";
    placeholder.trigger.urlFilter = "ockit.svg";
    writer.add(placeholder);
    writer.add(ContentBlockerRule{});
    writer.finish();
    writer.add(placeholder);
    EXPECT_EQ(writer.count(), 2u);
    EXPECT_EQ(out, R"(prefix:[{"action":{"type":"block"},"trigger":{"url-filter":"ockit.svg"}},)"
                   R"({"action":{},"trigger":{}}])");
}

TEST(ContentBlockerRule, StringEscaping) {
    struct Case {
        std::string text;
        std::string json;  // the string as written, without its quotes
    };
    const Case cases[] = {
        {"plain .*", "plain .*"},
        {"\"quoted\"", "\\\"quoted\\\""},
        {"back\\slash", "back\\\\slash"},
        {"\b\f\n\r\t", "\\b\\f\\n\\r\\t"},
        {std::string("\0\x01\x1f", 3), "\\u0000\\u0001\\u001f"},
        {"\x7f/", "\x7f/"},
        // Valid UTF-8 passes through unchanged, up to four-byte sequences.
        {"\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF",
         "\xC3\xBC\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"},
        // Invalid bytes become U+FFFD, one per maximal ill-formed subpart.
        {"a\xFF"
         "b",
         "a\xEF\xBF\xBD"
         "b"},
        {"\x80", "\xEF\xBF\xBD"},
        {"\xC3", "\xEF\xBF\xBD"},
        {"\xC3(", "\xEF\xBF\xBD("},
        {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},                                  // overlong
        {"\xE0\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},                  // overlong
        {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},                  // surrogate
        {"\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},  // > U+10FFFF
        {"\xE2\x82x", "\xEF\xBF\xBDx"},
        {"\xF0\x9F\x98", "\xEF\xBF\xBD"},
        {"\xF0\x9F\x98\"", "\xEF\xBF\xBD\\\""},
        {"\xF5\x80", "\xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const auto& c : cases) {
        ContentBlockerRule rule;
        rule.action.selector = c.text;
        const std::string expected = R"({"action":{"selector":")" + c.json + R"("},"trigger":{}})";
        const std::string json = rule.toJSON();
        EXPECT_EQ(json, expected);
        // Whatever went in, a strict parser accepts what came out.
        EXPECT_FALSE(parsed(json).is_discarded()) << json;
    }
}

TEST(ContentBlockerRule, FromJSONOfBadInputGivesTheEmptyRule) {
    const std::string inputs[] = {
        "",
        "not json",
        "null",
        "42",
        "\"text\"",
        "[]",
        R"([{"action":{"type":"block"},"trigger":{}}])",
        R"({"action":{"type":"block"},"trigger":{})",     // cut short
        R"({"action":{"type":"block"},"trigger":{}} x)",  // trailing text
        R"({"action":{"type":"bl)"
        "\xFF"
        R"(ock"},"trigger":{}})",  // invalid UTF-8
        R"({"action":"block","trigger":["url-filter"]})",
        R"({"action":{"type":1,"selector":["x"]},"trigger":{"url-filter":5}})",
        R"({"action":{"type":null},"trigger":{"url-filter":{"a":"b"},"resource-type":"image"}})",
        R"({"action":{"type":true},"trigger":{"if-domain":{"0":"a.test"},"load-type":7}})",
        R"({"Action":{"type":"block"},"Trigger":{"url-filter":".*"}})",
    };
    for (const auto& input : inputs)
        EXPECT_EQ(ContentBlockerRule::fromJSON(input), ContentBlockerRule{}) << input;
}

TEST(ContentBlockerRule, FromJSONSkipsWhatItCannotUse) {
    const auto rule = ContentBlockerRule::fromJSON(R"({
        "action": {"type": "block", "unknown": 1},
        "trigger": {
            "url-filter": ".*",
            "resource-type": ["image", 3, null, {"x": 1}, ["y"], true, "media"],
            "load-type": [],
            "if-top-url": "not an array",
            "unless-domain": ["", "a.test"],
            "if-frame-url": ["ignored"]
        },
        "extra": {}
    })");
    ContentBlockerRule expected;
    expected.action.type = "block";
    expected.trigger.urlFilter = ".*";
    expected.trigger.resourceType = Strings{"image", "media"};
    expected.trigger.loadType = Strings{};
    expected.trigger.unlessDomain = Strings{"", "a.test"};
    EXPECT_EQ(rule, expected);

    // A missing object keeps its defaults, the other is still read.
    EXPECT_EQ(ContentBlockerRule::fromJSON(R"({"trigger":{"url-filter":"x"}})").trigger.urlFilter,
              "x");
    EXPECT_EQ(ContentBlockerRule::fromJSON(R"({"action":{"type":"block"}})").action.type, "block");
}

TEST(ContentBlockerRule, CaseFlagReadsAsAnIntegerValue) {
    const std::pair<const char*, bool> cases[] = {
        {"true", true},     {"false", false},  {"1", true},
        {"0", false},       {"-2", true},      {"0.5", false},
        {"2.5", true},      {"-1.0", true},    {"\"1\"", true},
        {"\"yes\"", false}, {"\" 3x\"", true}, {"null", false},
        {"[]", false},      {"{}", false},     {"18446744073709551615", true},
    };
    for (const auto& [value, sensitive] : cases) {
        const std::string json =
            std::string(R"({"action":{},"trigger":{"url-filter-is-case-sensitive":)") + value +
            "}}";
        EXPECT_EQ(ContentBlockerRule::fromJSON(json).trigger.urlFilterIsCaseSensitive, sensitive)
            << value;
    }
}

TEST(ContentBlockerRule, FromJSONCopesWithSizeAndDepth) {
    // A huge list is read whole.
    std::string huge = R"({"action":{},"trigger":{"if-domain":[)";
    constexpr size_t kEntries = 50000;
    for (size_t i = 0; i < kEntries; ++i) {
        if (i) huge += ',';
        huge += "\"d" + std::to_string(i) + ".test\"";
    }
    huge += "]}}";
    const auto rule = ContentBlockerRule::fromJSON(huge);
    ASSERT_TRUE(rule.trigger.ifDomain);
    EXPECT_EQ(rule.trigger.ifDomain->size(), kEntries);
    EXPECT_EQ(rule.trigger.ifDomain->back(), "d49999.test");

    // Deep nesting, balanced and unbalanced, neither crashes nor is read.
    constexpr size_t kDepth = 100000;
    const std::string balanced = R"({"action":{"type":"block"},"trigger":)" +
                                 std::string(kDepth, '[') + std::string(kDepth, ']') + "}";
    const auto deep = ContentBlockerRule::fromJSON(balanced);
    EXPECT_EQ(deep.action.type, "block");
    EXPECT_EQ(deep.trigger, ContentBlockerTrigger{});
    EXPECT_EQ(ContentBlockerRule::fromJSON(std::string(kDepth, '[')), ContentBlockerRule{});
    EXPECT_EQ(ContentBlockerRule::fromJSON(std::string(kDepth, '{')), ContentBlockerRule{});
}

}  // namespace
}  // namespace stonewall
