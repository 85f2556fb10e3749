// The popover's status switch and the profiles from a shell, checked through
// the shared database, the shared defaults and WebKit's real compiler.

#include <filesystem>
#include <map>

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

class ProfileCommandsTest : public ToolTest {
  protected:
    std::string createProfile(const std::string& name) {
        return runJSON({"profile", "create", name})["profile"].get<std::string>();
    }
    bool blocked(const std::string& host) {
        return runJSON({"check", "https://" + host + "/"})["block"].get<bool>();
    }
};

TEST_F(ProfileCommandsTest, SwitchingStoresAndReloadsWithoutRewritingTheRuleFile) {
    EXPECT_EQ(runOK({"status"}), "blocking  on\n");
    // Without a compiled list the content blocker would have nothing to load
    // back when blocking comes on again: the first switch compiles one.
    const json first = runJSON({"status", "off"});
    EXPECT_EQ(first["reload"], "done");
    EXPECT_EQ(first["rulesWritten"], 1);
    runJSON({"status", "on"});
    const std::string compiled = readFile(ruleFile());
    // A status reload names no profile, so a rule added since the compile stays out.
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads\\.example\\.com");
    for (const auto& [state, changed] : {std::pair{"off", true}, {"off", false}, {"on", true}}) {
        SCOPED_TRACE(state);
        const auto before = snapshotFiles(container());
        EXPECT_EQ(runJSON({"status", state})["changed"], changed);
        EXPECT_EQ(sharedValue("status"), std::string(state) == "on" ? "1" : "0");
        EXPECT_EQ(readFile(ruleFile()), compiled);
        if (!changed) {
            EXPECT_TRUE(snapshotFiles(container()) == before);
        }
    }
}

TEST_F(ProfileCommandsTest, ActivateSwitchesCompilesAndReloadsTheNewProfile) {
    createContainer();
    addWorkProfile();
    EXPECT_EQ(runOK({"profile", "list"}),
              "* defaultProfile  Default Profile\n"
              "  work            Work\n");
    runJSON({"compile", "--profile", "work", "--no-reload"});
    addProfileRule("work", 1, 1, std::nullopt, "work-ads\\.example\\.com");
    const json report = runJSON({"profile", "activate", "work"});
    EXPECT_EQ(report["previousProfile"], "defaultProfile");
    EXPECT_EQ(report["reload"], "done");
    EXPECT_EQ(ruleList("work")[0]["trigger"]["url-filter"], "work-ads\\.example\\.com");
    EXPECT_EQ(runJSON({"info"})["defaults"]["activeProfileID"], "work");
    EXPECT_EQ(runJSON({"compile"})["profile"], "work");

    const auto before = snapshotFiles(container());
    EXPECT_EQ(runOK({"profile", "activate", "work"}),
              "Profile work is already active; nothing changed.\n");
    EXPECT_TRUE(snapshotFiles(container()) == before);
}

// Lists past the cap: the user's own lists and every exception stay in the
// compiled list, a second list shares the budget with the first, and the
// summary says what was left out.
TEST_F(ProfileCommandsTest, ImportedListsShareABudgetThatSparesTheUsersRules) {
    createContainer();
    const std::string work = createProfile("Work");
    runJSON({"profile", "activate", work});
    runJSON({"allow", "https://shop.test/"});
    runJSON({"secure", "https://bank.test/"});
    runJSON({"profile", "activate", "defaultProfile"});

    std::string first = "##.ad\n##.banner\n@@||ok1.test^\n";
    for (int i = 0; i < 49500; ++i) first += "||h" + std::to_string(i) + ".test^\n";
    std::string second = "@@||ok2.test^\n";
    for (int i = 0; i < 1000; ++i) second += "/path" + std::to_string(i) + "/\n";
    writeFile(scratch("first.txt"), first);
    writeFile(scratch("second.txt"), second);

    const json a = runJSON({"profile", "import", work, scratch("first.txt").string()});
    EXPECT_EQ(a["budget"], 49000);
    EXPECT_EQ(a["added"], 49000);
    EXPECT_EQ(a["hideRulesJoined"], 1);
    EXPECT_EQ(a["leftOut"]["block"], 49500 + 1 + 1 - 49000);
    const json b = runJSON({"profile", "import", work, scratch("second.txt").string()});
    EXPECT_EQ(b["added"], 1001);
    EXPECT_EQ(b["leftOut"]["block"], 0);
    EXPECT_EQ(b["removedFromEarlierLists"]["block"], 1001);

    const json compiled = runJSON({"compile", "--profile", work, "--no-reload"});
    EXPECT_EQ(compiled["rulesWritten"], 49000 + 2);
    std::map<std::string, int> byType;
    for (const json& rule : ruleList(work)) ++byType[rule["action"]["type"].get<std::string>()];
    EXPECT_EQ(byType["ignore-previous-rules"], 3);  // two exceptions and the allow list
    EXPECT_EQ(byType["make-https"], 1);
    EXPECT_EQ(byType["css-display-none"], 1);

    // Exceptions are never left out: a list with more than the budget holds
    // is refused, and the profile stays as it was.
    std::string exceptions;
    for (int i = 0; i < 49001; ++i) exceptions += "@@||e" + std::to_string(i) + ".test^\n";
    writeFile(scratch("exceptions.txt"), exceptions);
    const auto count = [&] {
        return sqlQuery(profileDatabase(work), "SELECT count(*) FROM ProfileRules");
    };
    const auto before = count();
    const RunResult refused = run({"profile", "import", work, scratch("exceptions.txt").string()});
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.err.find("exceptions"), std::string::npos) << refused.err;
    EXPECT_EQ(count(), before);
}

// The whole road: a new profile, filled from a filter list, activated and
// compiled (WebKit accepts it), then websites blocked and unblocked with
// check always telling the truth.
TEST_F(ProfileCommandsTest, AProfileFromAFilterListThenBlockAndUnblock) {
    createContainer();
    const std::string work = createProfile("Work");
    writeFile(scratch("list.txt"),
              "[Adblock Plus 2.0]\n! Title: test list\n"
              "||ads.example.com^\n||track.example.net^$third-party,script\n"
              "@@||ads.example.com/ok.js$script\n||cookies.test^$cookie\n"
              "##.ad-banner\nnews.test#@#.ad-banner\nnews.test##.sponsored\n"
              "||x.test^$redirect=noop.js\nnews.test#?#div:-abp-has(.ad)\n"
              "##.banner-\xED\xA0\x80x\n");
    const json imported = runJSON({"profile", "import", work, scratch("list.txt").string()});
    EXPECT_EQ(imported["added"], 6);
    EXPECT_EQ(imported["skipped"]["invalid UTF-8"], 1);
    EXPECT_EQ(runJSON({"profile", "import", work, scratch("list.txt").string()})["added"], 0);
    const json activated = runJSON({"profile", "activate", work});
    EXPECT_EQ(activated["reload"], "done");
    EXPECT_EQ(activated["rulesWritten"], 6);

    for (const char* host : {"a.example", "b.example", "c.example"}) {
        runJSON({"block", std::string("https://") + host + "/page"});
    }
    // One list rule: the first block started it, the tidy marked it, the
    // engine merged the next two into it.
    EXPECT_EQ(sharedValue("domainStatus"), "1,-1,-1");
    const auto blockRows = [&] {
        return sqlQuery(profileDatabase(work), "SELECT domains FROM ProfileRules WHERE action=5");
    };
    EXPECT_EQ(blockRows(), std::vector<Row>{{"c.example,b.example,a.example"}});

    EXPECT_EQ(runJSON({"unblock", "https://b.example/"})["reload"], "done");
    EXPECT_FALSE(blocked("b.example"));
    EXPECT_TRUE(blocked("a.example"));
    EXPECT_TRUE(blocked("c.example"));
    EXPECT_EQ(customRuleCount(), 2);
    EXPECT_EQ(ruleList(work)[0]["trigger"]["if-top-url"].size(), 2u);

    // The last website off the list takes the rule with it.
    runJSON({"unblock", "https://a.example/"});
    runJSON({"unblock", "https://c.example/"});
    EXPECT_TRUE(blockRows().empty());
    EXPECT_EQ(sharedValue("domainStatus"), "-1,-1,-1");
    runJSON({"block", "https://d.example/"});
    EXPECT_TRUE(blocked("d.example"));
}

TEST_F(ProfileCommandsTest, ProfilesAreRenamedAndRemovedKeepingNamesAndIdentifiersPaired) {
    createContainer();
    const std::string a = createProfile("Alpha");
    const std::string b = createProfile("Beta");
    runJSON({"profile", "rename", a, "Älpha ✓"});
    EXPECT_EQ(sharedValue("profiles"), "Default Profile,Älpha ✓,Beta");

    runJSON({"profile", "activate", b});
    runJSON({"block", "https://b-only.test/"});
    runJSON({"profile", "activate", "defaultProfile"});
    runJSON({"profile", "remove", b});
    EXPECT_EQ(sharedValue("profiles"), "Default Profile,Älpha ✓");
    EXPECT_EQ(sharedValue("profileIDs"), "defaultProfile," + a);
    EXPECT_FALSE(fs::exists(profileDatabase(b)));
    EXPECT_FALSE(fs::exists(ruleFile(b)));
    EXPECT_EQ(customRuleCount(), 0);
}

}  // namespace
}  // namespace stonewall::tool::testing
