// Subscribed lists from a local HTTP server: every answer the server can
// give, and what the profile holds afterwards.

#include <ctime>
#include <filesystem>

#include "ListServer.h"
#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

class SubscriptionCommandsTest : public ToolTest {
  protected:
    // Every imported block rule of the profile, in one text.
    std::string blockFilters(const std::string& profile = "defaultProfile") const {
        std::string text;
        for (const Row& row : sqlQuery(profileDatabase(profile),
                                       "SELECT filter FROM ProfileRules WHERE action=1 "
                                       "ORDER BY filter")) {
            text += row.at(0).value_or("NULL") + "\n";
        }
        return text;
    }
    fs::path subscriptionsFile() const { return container() / ".Shared" / "subscriptions.json"; }

    ListServer server;
};

TEST_F(SubscriptionCommandsTest, UpdateReplacesTheListOrKeepsItsOldRulesAndSaysWhy) {
    createContainer();
    server.answer(
        reply(200, "ETag: \"v1\"\r\n", "! Expires: 2 days\n||ads1.test^\n||more1.test^\n"));
    const std::string url = server.url("/list.txt");
    const json subscribed = runJSON({"profile", "subscribe", "defaultProfile", url});
    EXPECT_EQ(subscribed["added"], 2);
    EXPECT_NE(blockFilters().find("ads1"), std::string::npos);
    // Two days after now, within the minute the command ran in.
    EXPECT_NEAR(subscribed["nextDue"].get<double>(),
                static_cast<double>(std::time(nullptr)) + 2 * 86400, 60);

    std::string binary(4096, '\0');
    for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i * 7);
    std::string large;
    while (large.size() <= 32u * 1024 * 1024) large += "||a-rather-long-host-name.test^\n";
    const std::string v2 = "||ads2.test^\n";

    struct Case {
        const char* name;
        Answer answer;
        int exitCode;
        const char* says;       // in the list's line
        const char* sentETag;   // If-None-Match the server must have seen
        const char* rulesHold;  // in the profile's block rules afterwards
    };
    const Case cases[] = {
        {"a new version", reply(200, "ETag: \"v2\"\r\n", v2), 0, "updated: 1 rule (were 2)",
         "\"v1\"", "ads2"},
        {"not modified", reply(304, "ETag: \"v2\"\r\n", ""), 0, "not modified", "\"v2\"", "ads2"},
        {"not found", reply(404, "", "gone"), 6, "failed: HTTP 404", "\"v2\"", "ads2"},
        {"dropped mid-body", reply(200, "", "||ads3.test^\n||ads4.test^\n", 14), 6,
         "failed: connection dropped", "\"v2\"", "ads2"},
        {"too large", reply(200, "", large), 6, "failed: body too large (over 32 MiB)", "\"v2\"",
         "ads2"},
        {"binary", reply(200, "", binary), 6, "failed: not a filter list", "\"v2\"", "ads2"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        const std::string before = blockFilters();
        server.answer(each.answer);
        const RunResult result = run({"update", "--force"});
        EXPECT_EQ(result.exitCode, each.exitCode) << describe({"update", "--force"}, result);
        EXPECT_NE(result.out.find(url), std::string::npos) << result.out;
        EXPECT_NE(result.out.find(each.says), std::string::npos) << result.out;
        EXPECT_EQ(server.lastRequestHeader("If-None-Match"), each.sentETag);
        EXPECT_NE(blockFilters().find(each.rulesHold), std::string::npos);
        if (each.exitCode != 0) {
            EXPECT_EQ(blockFilters(), before);
            EXPECT_NE(result.err.find("could not be updated; their old rules stay"),
                      std::string::npos)
                << result.err;
        }
    }
    // The failure is remembered with the list until a fetch works.
    const json listed = runJSON({"profile", "subscriptions"});
    EXPECT_NE(listed["subscriptions"][0]["lastError"].get<std::string>().find("not a filter list"),
              std::string::npos);
    // The new rules reached the compiled list: one reload at the end.
    EXPECT_NE(readFile(ruleFile()).find("ads2"), std::string::npos);
}

TEST_F(SubscriptionCommandsTest, SubscribeListUnsubscribeKeepsOtherListsAndRefusesBadInput) {
    createContainer();
    writeFile(scratch("own.txt"), "||own.test^\n");
    writeFile(scratch("list.txt"), "[Adblock Plus 2.0]\n||sub1.test^\n||sub2.test^\n");
    runJSON({"profile", "import", "defaultProfile", scratch("own.txt").string()});
    const std::string url = "file://" + scratch("list.txt").string();

    json listed = runJSON({"profile", "subscriptions"});
    EXPECT_TRUE(listed["subscriptions"].empty());
    ASSERT_EQ(listed["offered"].size(), 2u);
    EXPECT_EQ(listed["offered"][0]["command"],
              "stonewall profile subscribe defaultProfile easylist");
    EXPECT_EQ(listed["offered"][1]["url"], "https://easylist.to/easylist/easyprivacy.txt");

    for (const std::string& bad : {std::string("ftp://lists.test/x.txt"), std::string("not a url"),
                                   std::string("file://" + scratch("missing.txt").string())}) {
        SCOPED_TRACE(bad);
        const auto before = snapshotFiles(container());
        const RunResult refused = run({"profile", "subscribe", "defaultProfile", bad});
        EXPECT_NE(refused.exitCode, 0);
        EXPECT_TRUE(snapshotFiles(container()) == before);
    }

    EXPECT_EQ(runJSON({"profile", "subscribe", "defaultProfile", url})["added"], 2);
    EXPECT_EQ(runJSON({"profile", "subscribe", "defaultProfile", url})["changed"], false);
    listed = runJSON({"profile", "subscriptions"});
    ASSERT_EQ(listed["subscriptions"].size(), 1u);
    EXPECT_EQ(listed["subscriptions"][0]["url"], url);
    EXPECT_EQ(listed["subscriptions"][0]["lastError"], "");
    EXPECT_NE(runOK({"update"}).find("No list is due yet"), std::string::npos);
    // A file has no ETag; the same bytes again are no change either.
    const auto unchanged = snapshotFiles(container() / ".Profiles");
    EXPECT_NE(runOK({"update", "--force"}).find("not modified"), std::string::npos);
    EXPECT_TRUE(snapshotFiles(container() / ".Profiles") == unchanged);

    const json removed = runJSON({"profile", "unsubscribe", "defaultProfile", url});
    EXPECT_EQ(removed["removed"], 2);
    EXPECT_NE(blockFilters().find("own"), std::string::npos);
    EXPECT_EQ(blockFilters().find("sub1"), std::string::npos);
    EXPECT_TRUE(runJSON({"profile", "subscriptions"})["subscriptions"].empty());
    EXPECT_EQ(run({"profile", "unsubscribe", "defaultProfile", url}).exitCode, 2);

    // A removed profile takes its subscriptions with it.
    const std::string work = runJSON({"profile", "create", "Work"})["profile"].get<std::string>();
    runJSON({"profile", "subscribe", work, url});
    EXPECT_EQ(runJSON({"profile", "remove", work})["subscriptionsRemoved"], 1);
    EXPECT_TRUE(runJSON({"profile", "subscriptions"})["subscriptions"].empty());

    // A damaged file is moved aside and said once.
    writeFile(subscriptionsFile(), "{\"subscriptions\": [{\"url\": 3}");
    const RunResult first = run({"profile", "subscriptions"});
    EXPECT_EQ(first.exitCode, 0);
    EXPECT_NE(first.err.find("moved aside"), std::string::npos) << first.err;
    const RunResult second = run({"profile", "subscriptions"});
    EXPECT_EQ(second.err, "");
}

}  // namespace
}  // namespace stonewall::tool::testing
