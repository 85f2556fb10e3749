// The popover's website view and picked elements from a shell: block,
// secure, allow, their undoing, check, lists tidy, pick and open-url.

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
using nlohmann::json;

class WebsiteCommandsTest : public ToolTest {
  protected:
    json check(const std::string& url) { return runJSON({"check", url}); }
};

TEST_F(WebsiteCommandsTest, EachListTakesTheHostOnlyOnceAndReloads) {
    struct List {
        const char* command;
        int action;
        const char* actionType;  // in the compiled list
    };
    const List lists[] = {
        {"block", 5, "block"}, {"secure", 7, "make-https"}, {"allow", 3, "ignore-previous-rules"}};
    for (const List& list : lists) {
        SCOPED_TRACE(list.command);
        const std::string undo = std::string("un") + list.command;
        const json report = runJSON({list.command, "https://news.example.org/world/today?x=1"});
        EXPECT_EQ(report["changed"], true);
        EXPECT_EQ(report["reload"], "done");
        const auto rows =
            sqlQuery(sharedDatabase(), "SELECT action, domains FROM SharedCustomRules");
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(rows[0], (Row{std::to_string(list.action), "news.example.org"}));
        const json rules = ruleList();
        ASSERT_EQ(rules.size(), 1u);
        EXPECT_EQ(rules[0]["action"]["type"], list.actionType);
        const json checked = check("https://news.example.org/");
        for (const List& other : lists) {
            EXPECT_EQ(checked[other.command], &other == &list) << other.command;
        }

        const auto before = snapshotFiles(container());
        const RunResult again = run({list.command, "https://news.example.org/other"});
        EXPECT_EQ(again.out, "news.example.org is already on the " + std::string(list.command) +
                                 " list of profile defaultProfile; nothing changed.\n");
        // Undoing a host that is on another list only.
        const char* other = lists[(&list - lists + 1) % 3].command;
        const RunResult notThere = run({std::string("un") + other, "https://news.example.org/"});
        EXPECT_EQ(notThere.exitCode, 0) << notThere.err;
        EXPECT_NE(notThere.out.find(" is not on the"), std::string::npos) << notThere.out;
        EXPECT_TRUE(snapshotFiles(container()) == before);
        EXPECT_EQ(runJSON({undo, "https://news.example.org/"})["changed"], true);
        EXPECT_EQ(check("https://news.example.org/")[list.command], false);
    }
}

TEST_F(WebsiteCommandsTest, URLsAreTakenAsTheBrowserGivesThem) {
    // A Unicode host is encoded, upper case is lowered, as in the browser's URL.
    EXPECT_EQ(runJSON({"block", "https://Bücher.example/Kasse?a b"})["host"],
              "xn--bcher-kva.example");
    EXPECT_EQ(check("HTTP://BÜCHER.EXAMPLE:8080")["block"], true);
    EXPECT_EQ(runOK({"check", "https://xn--bcher-kva.example/"}),
              "host     xn--bcher-kva.example\nprofile  defaultProfile\n"
              "block    yes\nsecure   no\nallow    no\n");
}

TEST_F(WebsiteCommandsTest, TidyMergesAListIntoOneRule) {
    createContainer();
    // As the engine leaves a list while its status is -1: one rule per host.
    for (const char* domains : {"one.test", "two.test,one.test", "three.test"}) {
        sqlExec(profileDatabase(),
                "INSERT INTO ProfileRules VALUES ('5b0d32f4c8',4,5,NULL,'.*',"
                "NULL,NULL,1,'" +
                    std::string(domains) + "',0)");
    }

    const json tidy = runJSON({"lists", "tidy"});
    EXPECT_EQ(tidy["lists"]["block"],
              (json{{"rulesBefore", 3}, {"hosts", 3}, {"changed", true}, {"statusSet", true}}));
    EXPECT_EQ(tidy["domainStatus"], "1,-1,-1");
    const auto rows =
        sqlQuery(profileDatabase(), "SELECT ruleID, domains FROM ProfileRules WHERE action=5");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][1], "one.test,two.test,three.test");
    EXPECT_EQ(rows[0][0]->size(), 40u);  // the list's fixed identifier
    EXPECT_EQ(check("https://two.test/")["block"], true);

    const auto before = snapshotFiles(container());
    EXPECT_NE(runOK({"lists", "tidy"}).find("The website lists are tidy; nothing changed."),
              std::string::npos);
    EXPECT_TRUE(snapshotFiles(container()) == before);
}

TEST_F(WebsiteCommandsTest, PickedElementsBecomeRulesOfThePageHost) {
    // Position 0 holds the page's idea of its location, which --page replaces;
    // a media element with no source makes no rule.
    writeFile(scratch("elements.json"), R"([
      ["elsewhere.test", "div", "div.banner", "", "", "body", "body", "", ""],
      ["elsewhere.test", "img", "img.promo", "https://shop.example.com/img/promo.png", "",
       "div", "div.promo", "", ""],
      ["elsewhere.test", "video", "video.clip", "", "", "div", "div.clip", "", ""]])");
    const json report = runJSON(
        {"pick", "--page", "https://shop.example.com/sale", scratch("elements.json").string()});
    EXPECT_EQ(report["page"], "shop.example.com");
    EXPECT_EQ(report["hideRules"], 1);
    EXPECT_EQ(report["blockRules"], 1);
    EXPECT_EQ(report["skipped"], 1);
    EXPECT_EQ(report["reload"], "done");
    const json rules = ruleList();
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[1]["trigger"]["if-top-url"][0], "^[^:]+://+shop\\.example\\.com[:/]");

    // From standard input, as the whole user-info object.
    const std::string userInfo = R"({"data":[["x","p","p.note","","","div","div.notes","",""]]})";
    EXPECT_EQ(runJSON({"pick", "--page", "https://blog.example.net/", "-"}, userInfo)["hideRules"],
              1);
    EXPECT_EQ(customRuleCount(), 3);
}

TEST_F(WebsiteCommandsTest, EachInternalURLOpensItsScreen) {
    runJSON({"block", "https://listed.test/"});
    EXPECT_EQ(runJSON({"open-url", "STONEWALL://SecureWebsite/"})["screen"], "Secured websites");
    EXPECT_EQ(runJSON({"open-url", "stonewall://blockwebsite"})["hosts"],
              json::array({"listed.test"}));
}

}  // namespace
}  // namespace stonewall::tool::testing
