#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "application/FilterListParser.h"
#include "application/URLFilter.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall {
namespace {

constexpr int64_t kList = BlockerCode::kList1;
const std::string kHost = "^[^:]+://+([^:/]+\\.)?";
const std::string kSep = "[^a-zA-Z0-9_.%-]";
const std::string kEnd = "([^a-zA-Z0-9_.%-].*)?$";

struct Expected {
    int64_t action;
    std::string filter;
    NullableString resources = std::nullopt;
    NullableString loads = std::nullopt;
    NullableString domains = std::nullopt;
    int64_t domainType = DomainTypeCode::kNone;
    int64_t filterSensitive = 0;
};

struct LineCase {
    const char* line;
    std::optional<Expected> rule;  // none: skipped for `reason`
    std::string_view reason = {};
};

TEST(FilterListParserTest, NetworkRulesBecomeWebKitFilters) {
    const std::vector<LineCase> cases = {
        {"||ads.example.com^", Expected{1, kHost + "ads\\.example\\.com" + kSep}},
        {"||ads.example.com:8080^", Expected{1, kHost + "ads\\.example\\.com:8080" + kSep}},
        {"||ads.*.test^", Expected{1, kHost + "ads\\..*\\.test" + kEnd}},
        {"||ads.test/x^", Expected{1, kHost + "ads\\.test/x" + kEnd}},
        {"||ads.example.com^|", Expected{1, kHost + "ads\\.example\\.com" + kSep + "$"}},
        {"|https://track.test/px?a=1|", Expected{1, "^https://track\\.test/px\\?a=1$"}},
        {"/banner/*/img^", Expected{1, "/banner/.*/img" + kEnd}},
        {"**ad**space*", Expected{1, "ad.*space"}},
        {"&ad_box=(x)+[1]{2}$", Expected{1, "&ad_box=\\(x\\)\\+\\[1\\]\\{2\\}"}},
        {"||cdn.test^$script,image,third-party",
         Expected{1, kHost + "cdn\\.test" + kSep, "script,image", "third-party"}},
        {"||cdn.test/a.js$~third-party,xmlhttprequest,websocket",
         Expected{1, kHost + "cdn\\.test/a\\.js", "raw", "first-party"}},
        {"/ads.$~image,~script,~stylesheet,~font,~media,~subdocument,~popup,~ping",
         Expected{1, "/ads\\.", "raw,svg-document"}},
        {"/pop.$domain=a.test|B.Test", Expected{1, "/pop\\.", {}, {}, "*a.test,*b.test", 1}},
        {"/pop.$domain=~a.test|~b.test", Expected{1, "/pop\\.", {}, {}, "*a.test,*b.test", 2}},
        // An exclusion outside every included domain changes nothing.
        {"/pop.$domain=a.test|~b.test", Expected{1, "/pop\\.", {}, {}, "*a.test", 1}},
        {"/pop.$domain=a.test|~x.a.test", std::nullopt, SkipReason::kMixedDomains},
        {"/pop.$domain=bücher.test", Expected{1, "/pop\\.", {}, {}, "*xn--bcher-kva.test", 1}},
        {"/pop.$domain=example.*", std::nullopt, SkipReason::kInvalidDomain},
        {"|", std::nullopt, SkipReason::kMatchesEverything},
        {"@@*", std::nullopt, SkipReason::kMatchesEverything},
        {"*$image", Expected{1, ".*", "image"}},
        {"*$domain=a.test", Expected{1, ".*", {}, {}, "*a.test", 1}},
        {"/AdFrame.$match-case", Expected{1, "/AdFrame\\.", {}, {}, {}, -1, 1}},
        {"||tracker.test^$cookie", Expected{4, kHost + "tracker\\.test" + kSep}},
        {"||shop.test^$csp=upgrade-insecure-requests", Expected{8, kHost + "shop\\.test" + kSep}},
        {"||shop.test^$csp=script-src 'none'", std::nullopt, SkipReason::kUnsupportedOption},
        {"@@||good.test/ads.js$script", Expected{6, kHost + "good\\.test/ads\\.js", "script"}},
        {"@@||good.test^$document",
         Expected{
             6, ".*", {}, {}, kHost + "good\\.test" + kSep, DomainTypeCode::kIfTopURLVerbatim}},
        {"@@||good.test^$elemhide", std::nullopt, SkipReason::kUnsupportedOption},
        {"||x.test^$important,all", Expected{1, kHost + "x\\.test" + kSep}},
        {"||x.test^$object", std::nullopt, SkipReason::kUnsupportedResourceType},
        {"||x.test^$object,image", Expected{1, kHost + "x\\.test" + kSep, "image"}},
        {"||x.test^$redirect=noop.js", std::nullopt, SkipReason::kUnsupportedOption},
        {"/^https?:\\/\\/[a-z]+\\.ads\\.test\\//",
         Expected{1, "^https?:\\/\\/[a-z]+\\.ads\\.test\\/"}},
        {"/ads$/", Expected{1, "ads$"}},
        {"/\\d+\\.gif/", std::nullopt, SkipReason::kRegularExpression},
        {"/(ad|banner)s/", std::nullopt, SkipReason::kRegularExpression},
        {"/ad.{3}/$image", std::nullopt, SkipReason::kRegularExpression},
        {"||bücher.test^", std::nullopt, SkipReason::kNonASCII},
        {"0.0.0.0 ads.test", std::nullopt, SkipReason::kUnsupportedSyntax},
        {"||", std::nullopt, SkipReason::kUnsupportedSyntax},
        {"$$script[data-src]", std::nullopt, SkipReason::kExtendedSyntax},
        {"$image,domain=a.test", Expected{1, ".*", "image", {}, "*a.test", 1}},
    };
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.line);
        const FilterListImport list = FilterListParser::parse(c.line, kList);
        if (!c.rule) {
            EXPECT_TRUE(list.rules.empty());
            EXPECT_EQ(list.skipped.count(c.reason), 1u) << "skipped for another reason";
            continue;
        }
        ASSERT_EQ(list.rules.size(), 1u)
            << (list.skipped.empty() ? "" : list.skipped.begin()->first);
        const ProfileRule& rule = list.rules.front();
        const Expected& e = *c.rule;
        EXPECT_EQ(rule,
                  (ProfileRule{rule.ruleID, kList, e.action, std::nullopt, e.filter, e.resources,
                               e.loads, e.domains, e.domainType, e.filterSensitive}));
        EXPECT_TRUE(url_filter::isWebKitURLFilter(*rule.filter));
    }
}

// Hiding rules are read together: "#@#" exceptions change the rules with
// the same selector wherever they stand in the list.
TEST(FilterListParserTest, ElementHidingWithExceptions) {
    struct HideCase {
        const char* name;
        const char* list;
        // selector, domains, domain type of each resulting hide rule
        std::vector<std::tuple<std::string, NullableString, int64_t>> rules;
        std::string_view reason = {};
    };
    const std::vector<HideCase> cases = {
        {"generic", "##.ad-box", {{".ad-box", std::nullopt, -1}}},
        {"on sites",
         "a.test,B.test##div[id^=\"ad\"] > img",
         {{"div[id^=\"ad\"] > img", "*a.test,*b.test", 1}}},
        {"but sites", "~a.test##.ad", {{".ad", "*a.test", 2}}},
        {"excepted on a site", "##.ad\na.test#@#.ad", {{".ad", "*a.test", 2}}},
        {"excepted before the rule", "b.test#@#.ad\n~a.test##.ad", {{".ad", "*a.test,*b.test", 2}}},
        {"site removed", "a.test,b.test##.ad\nb.test#@#.ad", {{".ad", "*a.test", 1}}},
        {"last site removed", "x.b.test##.ad\nb.test#@#.ad", {}},
        {"excepted everywhere", "##.ad\na.test##.ad\n#@#.ad", {}},
        {"nothing to except",
         "##.ad\n#@#.other",
         {{".ad", std::nullopt, -1}},
         SkipReason::kUnmatchedHideException},
        {"duplicate", "##.ad\n##.ad", {{".ad", std::nullopt, -1}}, SkipReason::kDuplicate},
        {"procedural",
         "a.test#?#div:-abp-has(.ad)\na.test##div:has-text(Ad)",
         {},
         SkipReason::kExtendedSyntax},
        {"scriptlet", "a.test##+js(set-constant, x, 1)", {}, SkipReason::kExtendedSyntax},
        {"style injection", "a.test##.ad { color: red }", {}, SkipReason::kExtendedSyntax},
        {"unbalanced", "##div[class=\"ad\"", {}, SkipReason::kMalformedSelector},
        {"dangling combinator", "##div >", {}, SkipReason::kMalformedSelector},
    };
    for (const HideCase& c : cases) {
        SCOPED_TRACE(c.name);
        const FilterListImport list = FilterListParser::parse(c.list, kList);
        ASSERT_EQ(list.rules.size(), c.rules.size());
        for (size_t i = 0; i < c.rules.size(); ++i) {
            const ProfileRule& rule = list.rules[i];
            const auto& [selector, domains, domainType] = c.rules[i];
            EXPECT_EQ(rule, (ProfileRule{rule.ruleID, kList, ActionCode::kHide, selector, ".*",
                                         std::nullopt, std::nullopt, domains, domainType, 0}));
        }
        if (!c.reason.empty()) {
            EXPECT_GE(list.skipped.count(c.reason), 1u);
        }
    }
}

TEST(FilterListParserTest, CountsCommentsRulesAndSkipsOfAWholeList) {
    const std::string longest(FilterListParser::kMaximumLineLength - 2, 'x');
    const FilterListImport list = FilterListParser::parse(
        "\xEF\xBB\xBF[Adblock Plus 2.0]\r\n! Title: test\r\n\r\n||a.test^\r\n##.ad\r\n"
        "@@||a.test/ok^\r\n||a.test^\r\n||b.test^$rewrite=x\r\n||" +
            longest + "\n||" + longest + "y\n",
        kList);
    EXPECT_EQ(std::tie(list.lines, list.comments), std::make_tuple(9, 2));
    EXPECT_EQ(list.rulesByAction, (std::array<int64_t, 9>{0, 2, 1, 0, 0, 0, 1, 0, 0}));
    EXPECT_EQ(list.skipped,
              (decltype(list.skipped){{std::string(SkipReason::kDuplicate), 1},
                                      {std::string(SkipReason::kLineTooLong), 1},
                                      {std::string(SkipReason::kUnsupportedOption), 1}}));
}

// A line that is not UTF-8 is skipped, not stored as a rule whose selector
// storage would read back as null; the lines around it are imported.
TEST(FilterListParserTest, SkipsLinesOfInvalidUTF8) {
    const FilterListImport list = FilterListParser::parse(
        "! Liste f\xFCr Tests\n||a.test^\n##.banner-\xED\xA0\x80x\n##.ad\n"
        "||b.test/\xC0\x80^\nc.test,d\xF4\x90\x80\x80.test##.ad\n",
        kList);
    EXPECT_EQ(std::tie(list.lines, list.comments), std::make_tuple(6, 1));
    EXPECT_EQ(list.rulesByAction, (std::array<int64_t, 9>{0, 1, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(list.skipped, (decltype(list.skipped){{std::string(SkipReason::kInvalidUTF8), 3}}));
}

TEST(FilterListParserTest, RefusesTextInAnotherFormat) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {"! EasyList\n||a.test^\n", true},
        {"[Adblock Plus 2.0]\n##.ad\n", true},
        {"# hosts-style comment\n##.ad\n", true},
        {std::string("||a.test^\n\0\x01", 12), false},
        {"||a.test^\n\xff\xfe", false},
        {"||a.test^\n##.banner-\xED\xA0\x80x\n##.ad\n", true},      // one bad line of three
        {"! f\xFCr\n! \xFF\n||a.test^\n", true},                    // bad bytes in comments only
        {"||a.test^\n\xC0\x80\n\xF4\x90\x80\x80\n##.ad\n", false},  // half the rules
        {R"([{"trigger":{"url-filter":".*"},"action":{"type":"block"}}])", false},
        {"  {\"rules\": []}", false},
        {"# hosts\n0.0.0.0 ads.test\n127.0.0.1 b.test\n||c.test^\n", false},
        {"! only a comment\n\n", false},
        {"", false},
    };
    for (const auto& [text, accepted] : cases) {
        EXPECT_EQ(!FilterListParser::checkFormat(text).has_value(), accepted) << text;
    }
}

// A subscribed list's "Expires" header sets how often it is fetched.
TEST(FilterListParserTest, ReadsTheUpdateIntervalFromTheHeader) {
    constexpr int64_t kHour = 3600, kDay = 24 * kHour;
    const std::vector<std::pair<std::string, int64_t>> cases = {
        {"[Adblock Plus 2.0]\n! Title: x\n! Expires: 4 days (update frequency)\n||a.test^\n",
         4 * kDay},
        {"! Expires: 1 day\n||a.test^\n", kDay},
        {"! expires: 12 hours\r\n||a.test^\n", 12 * kHour},
        {"! Expires: 6h\n||a.test^\n", 6 * kHour},
        {"! Expires: 3\n||a.test^\n", 3 * kDay},           // a bare number counts days
        {"! Expires: 30 minutes\n||a.test^\n", 4 * kDay},  // no unit it knows
        {"! Expires: 0 hours\n||a.test^\n", kHour},        // at least an hour
        {"! Expires: 90 days\n||a.test^\n", 14 * kDay},    // at most two weeks
        {"! Expires: soon\n||a.test^\n", 4 * kDay},
        {"||a.test^\n! Expires: 1 day\n", 4 * kDay},  // only the header counts
        {"||a.test^\n", 4 * kDay},
    };
    for (const auto& [text, seconds] : cases) {
        EXPECT_EQ(FilterListParser::updateIntervalSeconds(text), seconds) << text;
    }
}

TEST(FilterListParserTest, KnowsWebKitsRegularExpressionSubset) {
    const std::vector<std::pair<const char*, bool>> cases = {
        {".*", true},
        {"^https?://a\\.test/", true},
        {"([^:/]+\\.)?x[0-9a-f]+$", true},
        {"a(b(c)?)*", true},
        {"[]a]", false},
        {"", false},
        {"*a", false},
        {"a**", false},
        {"a+?", false},
        {"a|b", false},
        {"a{2}", false},
        {"\\d", false},
        {"\\1", false},
        {"(?:a)", false},
        {"a^", false},
        {"a$b", false},
        {"(a$)", false},
        {"(a", false},
        {"a)", false},
        {"()", false},
        {"[a", false},
        {"[[:alpha:]]", false},
        {"caf\xc3\xa9", false},
        {"a\\", false},
    };
    for (const auto& [expression, accepted] : cases) {
        EXPECT_EQ(url_filter::isWebKitURLFilter(expression), accepted) << expression;
    }
}

// A list in the shape of the common ones: every rule the parser emits must
// compile with the real WebKit content-blocker compiler.
TEST(FilterListParserTest, WebKitAcceptsEveryRuleOfARepresentativeList) {
    const char* kRepresentative =
        "[Adblock Plus 2.0]\n! Title: representative\n"
        "||ads.example.com^\n||track.example.net^$third-party\n|https://pix.test/1.gif|\n"
        "/banner/*/ad_\n-ad-300x250.\n&adtype=$xmlhttprequest,~third-party\n"
        "||cdn.test/ads.js$script,domain=news.test|~shop.test\n"
        "||media.test^$media,font,stylesheet,popup,ping,other,subdocument\n"
        "/pop.$~image,~script\n/AdServer/$match-case\n||cookie.test^$cookie\n"
        "||insecure.test^$csp=upgrade-insecure-requests\n"
        "/^https?:\\/\\/[a-z0-9]+\\.adnet\\.test\\//\n"
        "@@||good.test/ads.js$script\n@@||trusted.test^$document\n"
        "##.ad-banner\n##div[id^=\"google_ads\"]\n##a[href*=\"/click?\"] > img\n"
        "news.test,blog.test##.sponsored\n~shop.test##.promo\nnews.test#@#.ad-banner\n"
        "bücher.test##.werbung\n##:is(.ad, .advert)\n##div:not(.content) > .ad\n"
        "##p:has(> a.ad-link)\n";
    const FilterListImport list = FilterListParser::parse(kRepresentative, kList);
    ASSERT_GE(list.rules.size(), 20u);
    EXPECT_EQ(list.skippedCount(), 0) << list.skipped.begin()->first;

    const std::string store = (std::filesystem::temp_directory_path() /
                               ("stonewall-import-" + std::to_string(::getpid())))
                                  .string();
    auto compile = [&](const std::vector<ProfileRule>& rules) {
        std::string json;
        ContentBlockerRuleListWriter writer(json);
        for (const ProfileRule& rule : rules) writer.add(rule.convertToSafariData2());
        writer.finish();
        return platform::gnulinux::WebKitContentBlockerManager::compileRuleList(store, "import",
                                                                                json);
    };
    if (const auto error = compile(list.rules)) {
        // Name the rules WebKit refuses, one by one.
        for (const ProfileRule& rule : list.rules) {
            if (const auto single = compile({rule})) {
                ADD_FAILURE() << rule.convertToSafariData2().toJSON() << ": " << single->message;
            }
        }
        ADD_FAILURE() << error->message;
    }
    std::filesystem::remove_all(store);
}

}  // namespace
}  // namespace stonewall
