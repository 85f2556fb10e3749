// stonewall status and stonewall profile: the popover's status switch and
// profile view, checked through the shared database and the shared defaults.

#include <filesystem>

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

class StatusCommandTest : public ToolTest {};

TEST_F(StatusCommandTest, ShowsTheStatusOfAFreshContainer) {
    const json report = runJSON({"status"});
    EXPECT_EQ(report["blocking"], "on");
    EXPECT_EQ(report["status"], 1);
    EXPECT_EQ(runOK({"status"}), "blocking  on\n");
}

TEST_F(StatusCommandTest, SwitchingStoresAndReloadsWithoutRewritingTheRuleFile) {
    createContainer();
    runJSON({"compile"});
    const std::string compiled = readFile(ruleFile());
    // A rule added since the compile must not reach the file: a status
    // reload names no profile, so nothing is compiled.
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads\\.example\\.com");

    const json off = runJSON({"status", "off"});
    EXPECT_EQ(off["changed"], true);
    EXPECT_EQ(off["blocking"], "off");
    EXPECT_EQ(off["reload"], "done");
    EXPECT_FALSE(off.contains("rulesWritten"));
    EXPECT_EQ(sharedValue("status"), "0");
    // The content blocker reads 2 for "off" on its next load.
    EXPECT_EQ(runJSON({"info"})["defaults"]["blockingStatus"], 2);
    EXPECT_EQ(readFile(ruleFile()), compiled);

    const auto before = snapshotFiles(container());
    const RunResult again = run({"status", "off"});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(again.out, "Blocking is already off; nothing changed.\n");
    EXPECT_EQ(snapshotFiles(container()), before);

    const json on = runJSON({"status", "on"});
    EXPECT_EQ(on["changed"], true);
    EXPECT_EQ(on["reload"], "done");
    EXPECT_EQ(sharedValue("status"), "1");
    EXPECT_EQ(runJSON({"info"})["defaults"]["blockingStatus"], 1);
    EXPECT_EQ(readFile(ruleFile()), compiled);
}

TEST_F(StatusCommandTest, AContainerNeverCompiledGetsItsListWithTheFirstSwitch) {
    // Without a compiled list the content blocker has nothing to load back
    // when blocking comes on again, so the first switch compiles the profile.
    const json off = runJSON({"status", "off"});
    EXPECT_EQ(off["reload"], "done");
    EXPECT_EQ(off["rulesWritten"], 1);
    EXPECT_TRUE(std::filesystem::exists(ruleFile()));
    EXPECT_EQ(runJSON({"info"})["defaults"]["activeProfileID"], "defaultProfile");
    EXPECT_EQ(runJSON({"status", "on"})["reload"], "done");
}

TEST_F(StatusCommandTest, AnOddStatusCountsAsOffAndCanBeSwitchedOn) {
    createContainer();
    sqlExec(sharedDatabase(), "UPDATE SharedData SET status=5");
    EXPECT_EQ(runJSON({"status"})["blocking"], "off");
    EXPECT_EQ(runJSON({"status", "off"})["changed"], false);
    // changeStatus turns 5 into 0; "on" needs the second toggle.
    EXPECT_EQ(runJSON({"status", "on"})["blocking"], "on");
    EXPECT_EQ(sharedValue("status"), "1");
}

class ProfileCommandTest : public ToolTest {};

TEST_F(ProfileCommandTest, ListShowsEveryProfileAndMarksTheActiveOne) {
    createContainer();
    addWorkProfile();
    const json report = runJSON({"profile", "list"});
    EXPECT_EQ(report["activeProfileID"], "defaultProfile");
    EXPECT_EQ(report["profiles"], json::parse(R"([
        {"id":"defaultProfile","name":"Default Profile","active":true},
        {"id":"work","name":"Work","active":false}])"));
    EXPECT_EQ(runOK({"profile", "list"}),
              "* defaultProfile  Default Profile\n"
              "  work            Work\n");
}

TEST_F(ProfileCommandTest, ActivateSwitchesCompilesAndReloadsTheNewProfile) {
    createContainer();
    addWorkProfile();
    // The new profile's database is made from the template on first use;
    // give it a rule through a first, file-only compile.
    runJSON({"compile", "--profile", "work", "--no-reload"});
    addProfileRule("work", 1, 1, std::nullopt, "work-ads\\.example\\.com");

    const json report = runJSON({"profile", "activate", "work"});
    EXPECT_EQ(report["changed"], true);
    EXPECT_EQ(report["previousProfile"], "defaultProfile");
    EXPECT_EQ(report["rulesWritten"], 1);
    EXPECT_EQ(report["reload"], "done");

    EXPECT_EQ(sharedValue("activeProfileID"), "work");
    const json list = ruleList("work");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["trigger"]["url-filter"], "work-ads\\.example\\.com");
    const json info = runJSON({"info"});
    EXPECT_EQ(info["activeProfileID"], "work");
    EXPECT_EQ(info["defaults"]["activeProfileID"], "work");

    // Compiling without --profile now takes the new active profile.
    EXPECT_EQ(runJSON({"compile"})["profile"], "work");
}

TEST_F(ProfileCommandTest, ActivatingTheActiveProfileChangesNothing) {
    createContainer();
    const auto before = snapshotFiles(container());
    const RunResult result = run({"profile", "activate", "defaultProfile"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "Profile defaultProfile is already active; nothing changed.\n");
    EXPECT_EQ(snapshotFiles(container()), before);
}

}  // namespace
}  // namespace stonewall::tool::testing
