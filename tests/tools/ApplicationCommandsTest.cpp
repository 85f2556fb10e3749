// The application's side from a shell: profiles, filter-list import, website
// removal, list tidying and the internal URLs, against the real binary,
// real SQLite files and WebKit's real compiler.

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
using nlohmann::json;

constexpr const char* kFilterList =
    "[Adblock Plus 2.0]\n! Title: test list\n"
    "||ads.example.com^\n||track.example.net^$third-party,script\n"
    "@@||ads.example.com/ok.js$script\n||cookies.test^$cookie\n"
    "##.ad-banner\nnews.test#@#.ad-banner\nnews.test##.sponsored\n"
    "||x.test^$redirect=noop.js\nnews.test#?#div:-abp-has(.ad)\n";

class ApplicationCommandsTest : public ToolTest {
  protected:
    std::string createProfile(const std::string& name) {
        const json created = runJSON({"profile", "create", name});
        return created["profile"].get<std::string>();
    }
    std::vector<Row> listRows(int action) {
        return sqlQuery(profileDatabase(),
                        "SELECT ruleID, domains FROM ProfileRules WHERE action=" +
                            std::to_string(action));
    }
    json check(const std::string& host) { return runJSON({"check", "https://" + host + "/"}); }
};

// The whole road: a new profile, filled from a list, activated and compiled
// (WebKit accepts it), then websites blocked and unblocked with check always
// telling the truth.
TEST_F(ApplicationCommandsTest, AProfileFromAFilterListThenBlockAndUnblock) {
    createContainer();
    const std::string work = createProfile("Work");
    EXPECT_EQ(sharedValue("profiles"), "Default Profile,Work");
    EXPECT_EQ(sharedValue("profileIDs"), "defaultProfile," + work);
    EXPECT_EQ(work.size(), 10u);

    writeFile(scratch("list.txt"), kFilterList);
    const json imported = runJSON({"profile", "import", work, scratch("list.txt").string()});
    EXPECT_EQ(imported["added"], 6);
    EXPECT_EQ(imported["rulesByKind"]["block"], 2);
    EXPECT_EQ(imported["rulesByKind"]["hide"], 2);
    EXPECT_EQ(imported["rulesByKind"]["block cookies"], 1);
    EXPECT_EQ(imported["rulesByKind"]["exception"], 1);
    EXPECT_EQ(imported["skipped"], (json{{"extended CSS, scriptlet or HTML filter", 1},
                                         {"unsupported option", 1}}));
    // Importing again adds nothing.
    EXPECT_EQ(runJSON({"profile", "import", work, scratch("list.txt").string()})["added"], 0);

    const json activated = runJSON({"profile", "activate", work});
    EXPECT_EQ(activated["reload"], "done");
    EXPECT_EQ(activated["rulesWritten"], 6);

    for (const char* host : {"a.example", "b.example", "c.example"}) {
        runJSON({"block", std::string("https://") + host + "/page"});
    }
    for (const char* host : {"a.example", "b.example", "c.example"}) {
        EXPECT_EQ(check(host)["block"], true) << host;
    }
    // One list rule: the first block started it, the tidy marked it, the
    // engine merged the next two into it.
    EXPECT_EQ(sharedValue("domainStatus"), "1,-1,-1");
    const auto blockRows = sqlQuery(profileDatabase(work),
                                    "SELECT domains FROM ProfileRules WHERE action=5");
    ASSERT_EQ(blockRows.size(), 1u);
    EXPECT_EQ(blockRows[0][0], "c.example,b.example,a.example");

    const json unblocked = runJSON({"unblock", "https://b.example/"});
    EXPECT_EQ(unblocked["changed"], true);
    EXPECT_EQ(unblocked["reload"], "done");
    EXPECT_EQ(check("b.example")["block"], false);
    EXPECT_EQ(check("a.example")["block"], true);
    EXPECT_EQ(check("c.example")["block"], true);
    EXPECT_EQ(sqlQuery(sharedDatabase(),
                       "SELECT COUNT(*) FROM SharedCustomRules WHERE domains='b.example'")[0][0],
              "0");
    const json compiled = ruleList(work);
    EXPECT_EQ(compiled.size(), 7u);
    EXPECT_EQ(compiled[0]["trigger"]["if-top-url"].size(), 2u);

    // The last website off the list takes the rule with it.
    runJSON({"unblock", "https://a.example/"});
    runJSON({"unblock", "https://c.example/"});
    EXPECT_TRUE(sqlQuery(profileDatabase(work), "SELECT * FROM ProfileRules WHERE action=5")
                    .empty());
    EXPECT_EQ(sharedValue("domainStatus"), "-1,-1,-1");
    runJSON({"block", "https://d.example/"});
    EXPECT_EQ(check("d.example")["block"], true);
}

TEST_F(ApplicationCommandsTest, TidyMergesListRulesAndTheEngineThenMergesIntoTheOne) {
    createContainer();
    // As the engine leaves a list while its status is -1: one rule per host.
    const std::string listID = "5b0d32f4c8";
    for (const char* domains : {"one.test", "two.test,one.test", "three.test"}) {
        sqlExec(profileDatabase(), "INSERT INTO ProfileRules VALUES ('" + listID +
                                       "',4,5,NULL,'.*',NULL,NULL,1,'" + domains + "',0)");
    }
    EXPECT_EQ(check("two.test")["block"], false);  // only the first rule is read

    const json tidy = runJSON({"lists", "tidy"});
    EXPECT_EQ(tidy["changed"], true);
    EXPECT_EQ(tidy["lists"]["block"], (json{{"rulesBefore", 3}, {"hosts", 3}, {"changed", true}, {"statusSet", true}}));
    EXPECT_EQ(tidy["domainStatus"], "1,-1,-1");
    auto rows = listRows(5);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][1], "one.test,two.test,three.test");
    EXPECT_EQ(rows[0][0]->size(), 40u);  // the list's fixed identifier
    for (const char* host : {"one.test", "two.test", "three.test"}) {
        EXPECT_EQ(check(host)["block"], true) << host;
    }

    EXPECT_NE(runOK({"lists", "tidy"}).find("The website lists are tidy; nothing changed."),
              std::string::npos);
    const auto before = snapshotFiles(container());
    EXPECT_EQ(runJSON({"lists", "tidy"})["changed"], false);
    EXPECT_TRUE(snapshotFiles(container()) == before);

    runJSON({"secure", "https://four.test/"});
    runJSON({"block", "https://four.test/"});
    rows = listRows(5);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][1], "four.test,one.test,two.test,three.test");
    EXPECT_EQ(listRows(7).size(), 1u);
    EXPECT_EQ(sharedValue("domainStatus"), "1,-1,1");
}

TEST_F(ApplicationCommandsTest, ProfilesAreRenamedAndRemovedKeepingNamesAndIdentifiersPaired) {
    createContainer();
    const std::string a = createProfile("Alpha");
    const std::string b = createProfile("Beta");
    runJSON({"profile", "rename", a, "Älpha ✓"});
    EXPECT_EQ(sharedValue("profiles"), "Default Profile,Älpha ✓,Beta");
    EXPECT_TRUE(std::filesystem::exists(profileDatabase(a)));

    runJSON({"profile", "activate", b});
    runJSON({"block", "https://b-only.test/"});
    runJSON({"profile", "activate", "defaultProfile"});
    runJSON({"profile", "remove", b});
    EXPECT_EQ(sharedValue("profiles"), "Default Profile,Älpha ✓");
    EXPECT_EQ(sharedValue("profileIDs"), "defaultProfile," + a);
    EXPECT_FALSE(std::filesystem::exists(profileDatabase(b)));
    EXPECT_FALSE(std::filesystem::exists(ruleFile(b)));
    EXPECT_EQ(customRuleCount(), 0);
}

TEST_F(ApplicationCommandsTest, BadInputIsRefusedAndChangesNothing) {
    createContainer();
    addWorkProfile();
    writeFile(scratch("rules.json"), R"([{"trigger":{"url-filter":".*"},"action":{"type":"block"}}])");
    writeFile(scratch("hosts"), "127.0.0.1 localhost\n0.0.0.0 ads.test\n0.0.0.0 b.test\n");
    writeFile(scratch("binary"), std::string("\x7f" "ELF\0\0\x01", 7));
    writeFile(scratch("comments"), "! nothing but comments\n");
    writeFile(scratch("nothing"), "||x.test^$redirect=noop.js\n/(a|b)/\n");
    writeFile(scratch("list"), "||a.test^\n");
    const std::string fortyOne(41, 'n');
    struct Case {
        std::vector<std::string> args;
        std::string message;  // the start of the line after "stonewall: "
    };
    const std::vector<Case> cases = {
        {{"profile", "create", ""}, "name \"\": is empty"},
        {{"profile", "create", "  "}, "name \"  \": is empty"},
        {{"profile", "create", fortyOne}, "name \"" + fortyOne + "\": is too long (41"},
        {{"profile", "create", "a,b"}, "name \"a,b\": holds a \",\""},
        {{"profile", "create", "Work"}, "name \"Work\": another profile has this name"},
        {{"profile", "rename", "nope", "X"}, "profile \"nope\": unknown profile identifier"},
        {{"profile", "rename", "work", "Default Profile"}, "name \"Default Profile\": another"},
        {{"profile", "remove", "defaultProfile"}, "profile \"defaultProfile\": is the active"},
        {{"profile", "remove", "nope"}, "profile \"nope\": unknown profile identifier"},
        {{"profile", "import", "nope", scratch("list").string()}, "profile \"nope\": unknown"},
        {{"profile", "import", "work", scratch("missing").string()},
         scratch("missing").string() + ": cannot be read"},
        {{"profile", "import", "work", scratch("rules.json").string()},
         scratch("rules.json").string() + ": is JSON"},
        {{"profile", "import", "work", scratch("hosts").string()},
         scratch("hosts").string() + ": is a hosts file"},
        {{"profile", "import", "work", scratch("binary").string()},
         scratch("binary").string() + ": is not a text file"},
        {{"profile", "import", "work", scratch("comments").string()},
         scratch("comments").string() + ": holds no filter rules"},
        {{"profile", "import", "work", scratch("nothing").string()},
         scratch("nothing").string() + ": no line could be imported (2 skipped)"},
        {{"unblock", "example.com"}, "URL \"example.com\": has no host"},
        {{"open-url", "stonewall://nowhere"}, "URL \"stonewall://nowhere\": is not one of"},
    };
    const auto before = snapshotFiles(container());
    for (const Case& c : cases) {
        const RunResult result = run(c.args);
        EXPECT_EQ(result.exitCode, 2) << describe(c.args, result);
        EXPECT_EQ(result.err.rfind("stonewall: " + c.message, 0), 0u) << result.err;
        EXPECT_TRUE(snapshotFiles(container()) == before) << describe(c.args, result);
    }
    // Nor can the last one, which is always the active one.
    sqlExec(sharedDatabase(), "UPDATE SharedData SET activeProfileID='work'");
    runJSON({"profile", "remove", "defaultProfile"});
    const RunResult last = run({"profile", "remove", "work"});
    EXPECT_EQ(last.exitCode, 2);
    EXPECT_EQ(last.err, "stonewall: profile \"work\": is the active profile (activate another "
                        "one first)\n");
}

TEST_F(ApplicationCommandsTest, AHostNotOnTheListChangesNothing) {
    runJSON({"allow", "https://kept.test/"});
    const auto before = snapshotFiles(container());
    for (const char* command : {"unblock", "unsecure", "unallow"}) {
        const RunResult result = run({command, "https://other.test/"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.out.find("other.test is not on the"), std::string::npos) << result.out;
    }
    EXPECT_EQ(run({"unsecure", "https://kept.test/"}).exitCode, 0);
    EXPECT_TRUE(snapshotFiles(container()) == before);
    EXPECT_EQ(runJSON({"unallow", "https://kept.test/"})["changed"], true);
    EXPECT_EQ(check("kept.test")["allow"], false);
}

TEST_F(ApplicationCommandsTest, EachInternalURLOpensItsScreen) {
    runJSON({"block", "https://listed.test/"});
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"stonewall://status", "Content blocking"},
        {"stonewall://activate", "Blocker profiles"},
        {"stonewall://blockwebsite", "Blocked websites"},
        {"STONEWALL://SecureWebsite/", "Secured websites"},
        {"stonewall://whitelistwebsite", "Allowed websites"},
        {"stonewall://visual", "Picked elements"},
        {"stonewall://open", "Stonewall"},
    };
    for (const auto& [url, screen] : cases) {
        EXPECT_EQ(runJSON({"open-url", url})["screen"], screen) << url;
    }
    EXPECT_EQ(runJSON({"open-url", "stonewall://blockwebsite"})["hosts"], json::array({"listed.test"}));
    EXPECT_EQ(runJSON({"open-url", "stonewall://securewebsite"})["hosts"], json::array());
}

}  // namespace
}  // namespace stonewall::tool::testing
