// A rule list applied in parts decides every request as the whole list does.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "platform/RuleListSplit.h"

namespace stonewall::platform {
namespace {

using nlohmann::json;

// WebKit's content-blocker matching, for the keys the lists below use: the
// url-filter (a regular expression, case-insensitive), resource-type and
// the top-URL conditions; "ignore-previous-rules" cancels the rules of its
// own list that came before it.
struct Request {
    std::string url, top, type;
};
using Outcome = std::set<std::string>;  // surviving actions, with their selectors

bool anyMatches(const json& patterns, const std::string& text) {
    for (const json& pattern : patterns) {
        if (std::regex_search(text, std::regex(pattern.get<std::string>(), std::regex::icase)))
            return true;
    }
    return false;
}

Outcome decide(const json& list, const Request& request) {
    std::vector<std::string> actions;
    for (const json& rule : list) {
        const json& trigger = rule["trigger"];
        if (!std::regex_search(request.url, std::regex(trigger["url-filter"].get<std::string>(),
                                                       std::regex::icase)))
            continue;
        if (trigger.contains("resource-type") &&
            std::find(trigger["resource-type"].begin(), trigger["resource-type"].end(),
                      request.type) == trigger["resource-type"].end())
            continue;
        if (trigger.contains("if-top-url") && !anyMatches(trigger["if-top-url"], request.top))
            continue;
        if (trigger.contains("unless-top-url") &&
            anyMatches(trigger["unless-top-url"], request.top))
            continue;
        const std::string type = rule["action"]["type"];
        if (type == "ignore-previous-rules") {
            actions.clear();
        } else {
            actions.push_back(type + " " + rule["action"].value("selector", ""));
        }
    }
    return Outcome(actions.begin(), actions.end());
}

json rule(const std::string& type, const std::string& filter, json extra = json::object(),
          const std::string& selector = "") {
    json made = {{"action", {{"type", type}}}, {"trigger", {{"url-filter", filter}}}};
    if (!selector.empty()) made["action"]["selector"] = selector;
    if (extra.is_object()) made["trigger"].update(extra);
    return made;
}

TEST(RuleListSplitTest, PartsTogetherDecideEveryRequestAsTheWholeList) {
    const std::string host = "^[^:]+://+([^:/]+\\.)?";
    auto site = [&](const std::string& name) { return json::array({host + name + "[:/]"}); };
    // The compiler's order: blocked websites, blocks, cookies, hides,
    // allowed websites, exceptions, secured websites, upgrades; an
    // exception first of all cancels nothing.
    json list = json::array({
        rule("ignore-previous-rules", "early"),
        rule("block", ".*", {{"if-top-url", site("blocked\\.test")}}),
    });
    const std::string sep = "[^a-zA-Z0-9_.%-]";
    for (int i = 0; i < 40; ++i) {
        list.push_back(rule("block", host + "ads" + std::to_string(i) + "\\.test" + sep));
    }
    list.push_back(rule("block", host + "sub\\.ads1\\.test" + sep));
    list.push_back(rule("block", host + "ads\\.co\\.uk:8080/"));
    list.push_back(rule("block", "/banner/", {{"resource-type", {"image"}}}));
    list.push_back(rule("block-cookies", host + "track\\.test([^a-zA-Z0-9_.%-].*)?$"));
    list.push_back(rule("css-display-none", ".*", {}, ".ad, .sponsor"));
    list.push_back(rule("css-display-none", ".*", {{"if-top-url", site("news\\.test")}}, "#promo"));
    list.push_back(rule("ignore-previous-rules", ".*", {{"if-top-url", site("shop\\.test")}}));
    list.push_back(rule("ignore-previous-rules", host + "ads7\\.test/ok"));
    list.push_back(rule("ignore-previous-rules", host + "ads1\\.test/ok"));
    list.push_back(rule("ignore-previous-rules", host + "test/keep"));
    list.push_back(rule("ignore-previous-rules", host + "good\\.co\\.uk" + sep));
    list.push_back(rule("ignore-previous-rules", "/banner/keep", {{"resource-type", {"image"}}}));
    list.push_back(rule("make-https", ".*", {{"if-top-url", site("bank\\.test")}}));
    list.push_back(rule("make-https", host + "ads3\\.test" + sep));

    const auto parts = splitRuleList(list.dump());
    ASSERT_TRUE(parts);
    ASSERT_EQ(parts->size(), kRuleListParts);

    std::vector<Request> corpus;
    for (const char* top : {"https://news.test/", "https://shop.test/a", "https://blocked.test/",
                            "https://bank.test/", "https://other.test/"}) {
        for (const char* url :
             {"https://ads1.test/x.js", "https://ads7.test/ok.js", "https://ads7.test/no.js",
              "https://sub.ads1.test/ok.js", "https://sub.ads1.test/x", "https://ads2.test/keep",
              "https://ads.co.uk:8080/a", "https://good.co.uk:8080/a", "https://ADS5.TEST/x",
              "http://ads3.test/", "https://cdn.test/banner/1.png",
              "https://cdn.test/banner/keep.png", "https://track.test/p", "https://news.test/",
              "https://early.test/"}) {
            for (const char* type : {"script", "image", "document"}) {
                corpus.push_back({url, top, type});
            }
        }
    }
    size_t blocked = 0;
    for (const Request& request : corpus) {
        SCOPED_TRACE(request.url + " on " + request.top + " as " + request.type);
        Outcome united;
        for (const RuleListPart& part : *parts) {
            const Outcome some = decide(json::parse(part.json), request);
            united.insert(some.begin(), some.end());
        }
        const Outcome whole = decide(list, request);
        EXPECT_EQ(united, whole);
        blocked += whole.contains("block ");
    }
    // The corpus reaches both sides of every rule.
    EXPECT_GT(blocked, corpus.size() / 4);
    EXPECT_LT(blocked, corpus.size() * 3 / 4);

    // Every rule but the leading exception is in the parts, once for each
    // rule that is not an exception; the indexes point back at it.
    std::multiset<size_t> seen;
    for (const RuleListPart& part : *parts) {
        const json rules = json::parse(part.json);
        ASSERT_EQ(rules.size(), part.indexes.empty() ? 1 : part.indexes.size());
        for (size_t i = 0; i < part.indexes.size(); ++i) {
            EXPECT_EQ(rules[i], list[part.indexes[i]]);
            seen.insert(part.indexes[i]);
        }
    }
    EXPECT_EQ(seen.count(0), 0u);
    EXPECT_EQ(seen.count(1), 1u);
    // Exceptions anchored at a host follow fewer parts than those without.
    const auto followed = [&](const std::string& filter) {
        for (size_t i = 0; i < list.size(); ++i) {
            if (list[i]["trigger"]["url-filter"] == filter) return seen.count(i);
        }
        return size_t{0};
    };
    // (a part whose first rule comes after an exception does not need it)
    EXPECT_GE(followed(host + "test/keep"), kRuleListParts - 1);
    EXPECT_LT(followed(host + "ads7\\.test/ok"), kRuleListParts / 2);
}

TEST(RuleListSplitTest, AChangedRuleRecompilesOnlyThePartsItLeavesAndJoins) {
    json list = json::array();
    for (int i = 0; i < 200; ++i) list.push_back(rule("block", "ads" + std::to_string(i)));
    const auto before = splitRuleList(list.dump());
    list[17]["trigger"]["url-filter"] = "changed";
    const auto after = splitRuleList(list.dump());
    ASSERT_TRUE(before && after);
    size_t changed = 0;
    for (size_t p = 0; p < kRuleListParts; ++p) changed += (*before)[p].json != (*after)[p].json;
    EXPECT_GE(changed, 1u);
    EXPECT_LE(changed, 2u);
}

TEST(RuleListSplitTest, TextThatIsNoRuleListIsLeftToWebKit) {
    for (const char* text :
         {"", "{}", "[", "[{]", "[{}", "[{},]", "[{}] x", "[1]", R"([{"a":"}"])"}) {
        EXPECT_FALSE(splitRuleList(text)) << text;
    }
    const auto empty = splitRuleList(" [ ] ");
    ASSERT_TRUE(empty);
    for (const RuleListPart& part : *empty) EXPECT_EQ(part.json, kEmptyRuleListPart);
    // Braces and quotes inside strings do not end a rule.
    const auto tricky = splitRuleList(
        R"([{"action":{"type":"css-display-none","selector":"a[title=\"}]\"]"},"trigger":{"url-filter":".*"}}])");
    ASSERT_TRUE(tricky);
}

}  // namespace
}  // namespace stonewall::platform
