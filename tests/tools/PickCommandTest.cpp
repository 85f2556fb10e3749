// stonewall pick: picked elements of a "VisualData" message become custom
// rules of the page's host and reach the compiled list.

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
using nlohmann::json;

// A banner to hide, an own-site image to block, and a media element with no
// source (no rule). Position 0 holds the page's idea of its location, which
// the command replaces with the --page host.
const char* kElements = R"([
  ["elsewhere.test", "div", "div.banner", "", "", "body", "body", "", ""],
  ["elsewhere.test", "img", "img.promo", "https://shop.example.com/img/promo.png", "",
   "div", "div.promo", "", ""],
  ["elsewhere.test", "video", "video.clip", "", "", "div", "div.clip", "", ""]
])";

class PickCommandTest : public ToolTest {};

TEST_F(PickCommandTest, TurnsElementsIntoRulesOfThePageHostAndReloads) {
    writeFile(scratch("elements.json"), kElements);
    const json report = runJSON(
        {"pick", "--page", "https://shop.example.com/sale", scratch("elements.json").string()});
    EXPECT_EQ(report["page"], "shop.example.com");
    EXPECT_EQ(report["elements"], 3);
    EXPECT_EQ(report["hideRules"], 1);
    EXPECT_EQ(report["blockRules"], 1);
    EXPECT_EQ(report["skipped"], 1);
    EXPECT_EQ(report["reload"], "done");

    const auto rows = sqlQuery(sharedDatabase(),
                               "SELECT action, selector, domains FROM SharedCustomRules "
                               "ORDER BY action");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0][0], "1");
    EXPECT_EQ(rows[0][2], "shop.example.com");
    EXPECT_EQ(rows[1][0], "2");
    EXPECT_EQ(rows[1][1], "div.banner");
    EXPECT_EQ(rows[1][2], "shop.example.com");

    const json rules = ruleList();
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[0]["action"]["type"], "block");
    EXPECT_EQ(rules[0]["trigger"]["url-filter"],
              "^[^:]+://+([^:/]+\\.)?shop\\.example\\.com/img/promo\\.png");
    EXPECT_EQ(rules[1]["action"],
              json::parse(R"({"type":"css-display-none","selector":"div.banner"})"));
    EXPECT_EQ(rules[1]["trigger"]["if-top-url"][0], "^[^:]+://+shop\\.example\\.com[:/]");
}

TEST_F(PickCommandTest, ReadsStandardInputAndTheWholeUserInfoObject) {
    const std::string userInfo = R"({"data":[["x","p","p.note","","","div","div.notes","",""]]})";
    const json report = runJSON({"pick", "--page", "https://blog.example.net/", "-"}, userInfo);
    EXPECT_EQ(report["hideRules"], 1);
    EXPECT_EQ(customRuleCount(), 1);
    EXPECT_EQ(ruleList()[0]["action"]["selector"], "p.note");
}

}  // namespace
}  // namespace stonewall::tool::testing
