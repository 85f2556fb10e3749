// stonewall compile: the main job, run against real containers, real SQLite
// files and WebKit's real content-blocker compiler.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

const json kPlaceholder =
    json::parse(R"([{"action":{"type":"block"},"trigger":{"url-filter":"ockit.svg"}}])");

class CompileCommandTest : public ToolTest {};

TEST_F(CompileCommandTest, FirstRunCreatesTheContainerAndWritesThePlaceholderList) {
    // A nested folder that does not exist yet: the program makes all of it.
    runner().setEnvironment("STONEWALL_CONTAINER", (scratch("deep") / "er" / "container").string());
    const RunResult result = runner().run({"compile", "--json"}, {}, /*withContainer=*/false);
    ASSERT_EQ(result.exitCode, 0) << describe({"compile", "--json"}, result);

    const fs::path root = scratch("deep") / "er" / "container";
    EXPECT_TRUE(fs::is_regular_file(root / ".Shared" / "shared_data"));
    EXPECT_TRUE(fs::is_regular_file(root / ".Profiles" / "profile_defaultProfile_data"));
    const fs::path rules = root / ".Profiles" / "profile_defaultProfile_unarchive.json";
    ASSERT_TRUE(fs::is_regular_file(rules));
    EXPECT_EQ(json::parse(readFile(rules)), kPlaceholder);

    const json report = json::parse(result.out);
    EXPECT_EQ(report["command"], "compile");
    EXPECT_EQ(report["profile"], "defaultProfile");
    EXPECT_EQ(report["rulesRead"], 0);
    EXPECT_EQ(report["rulesWritten"], 1);
    EXPECT_EQ(report["placeholderUsed"], true);
    EXPECT_EQ(report["bytesWritten"], static_cast<int64_t>(fs::file_size(rules)));
    EXPECT_EQ(report["ruleFile"], rules.string());
    EXPECT_EQ(report["reload"], "done");
    EXPECT_FALSE(report.contains("error"));
}

TEST_F(CompileCommandTest, ReportsWhatWasReadDroppedAndWrittenInCompileOrder) {
    createContainer();
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads\\.example\\.com");
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "tracker\\.example\\.net");
    addProfileRule("defaultProfile", 1, 2, "div.ad", ".*");
    addProfileRule("defaultProfile", 3, 2, "div.ad", ".*");  // same hash, another list: dropped
    addProfileRule("defaultProfile", 4, 5, std::nullopt, ".*", std::nullopt, "blocked.example", 1);
    addProfileRule("defaultProfile", 1, 6, std::nullopt, "good\\.example\\.com");

    const json report = runJSON({"compile"});
    EXPECT_EQ(report["rulesRead"], 6);
    EXPECT_EQ(report["rulesReadByAction"],
              json::parse(R"({"5":1,"1":2,"4":0,"2":2,"3":0,"6":1,"7":0,"8":0})"));
    EXPECT_EQ(report["duplicatesDropped"], 1);
    EXPECT_EQ(report["rulesDroppedByCap"], 0);
    EXPECT_EQ(report["rulesWritten"], 5);
    EXPECT_EQ(report["placeholderUsed"], false);
    EXPECT_EQ(report["reload"], "done");

    // The list itself: action 5 first, the exception (6) after every block and hide rule.
    const json list = ruleList();
    ASSERT_EQ(list.size(), 5u);
    EXPECT_EQ(list[0]["action"]["type"], "block");
    EXPECT_EQ(list[0]["trigger"]["if-top-url"][0], "^[^:]+://+blocked\\.example[:/]");
    EXPECT_EQ(list[3]["action"]["type"], "css-display-none");
    EXPECT_EQ(list[4]["action"]["type"], "ignore-previous-rules");
}

TEST_F(CompileCommandTest, HumanOutputIsAnAlignedSummary) {
    createContainer();
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads\\.example\\.com");
    const std::string out = runOK({"compile"});
    // Each label, then spaces, then its value, every value in one column.
    const std::pair<const char*, const char*> expected[] = {
        {"profile", "defaultProfile"}, {"rules read", "1"},         {"  1 block", "1"},
        {"  5 block website", "0"},    {"duplicates dropped", "0"}, {"dropped by cap", "0"},
        {"rules written", "1"},        {"reload", "done"},
    };
    std::optional<size_t> column;
    for (const auto& [label, value] : expected) {
        const std::string start = std::string("\n") + label + "  ";
        const size_t at = ("\n" + out).find(start);
        ASSERT_NE(at, std::string::npos) << "no row " << label << " in\n" << out;
        const size_t valueAt = out.find_first_not_of(' ', at + start.size() - 1);
        const size_t lineStart = at;  // ("\n" + out)[at] is the newline before the row
        EXPECT_EQ(out.substr(valueAt, out.find('\n', valueAt) - valueAt), value) << out;
        if (!column) column = valueAt - lineStart;
        EXPECT_EQ(valueAt - lineStart, *column) << "row " << label << " is not aligned:\n" << out;
    }
    EXPECT_NE(out.find("until reloaded"), std::string::npos) << out;
}

TEST_F(CompileCommandTest, NoReloadWritesTheFileAndAsksNoReload) {
    createContainer();
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads\\.example\\.com");
    const json report = runJSON({"compile", "--no-reload"});
    EXPECT_EQ(report["reload"], "skipped");
    EXPECT_EQ(report["rulesWritten"], 1);
    EXPECT_EQ(ruleList().size(), 1u);

    // Nothing of a reload reached the shared defaults.
    const json info = runJSON({"info"});
    EXPECT_TRUE(info["defaults"]["blockerReloadType"].is_null()) << info.dump();
    EXPECT_TRUE(info["defaults"]["activeProfileID"].is_null()) << info.dump();
}

TEST_F(CompileCommandTest, ReloadLeavesTheDefaultsTheContentBlockerReads) {
    createContainer();
    runJSON({"compile"});
    const json info = runJSON({"info"});
    EXPECT_EQ(info["defaults"]["activeProfileID"], "defaultProfile");
    EXPECT_EQ(info["defaults"]["blockerReloadType"], 2);
}

TEST_F(CompileCommandTest, ProfileOptionCompilesAnotherKnownProfile) {
    createContainer();
    addWorkProfile();
    runJSON({"compile", "--profile", "work", "--no-reload"});
    ASSERT_TRUE(fs::exists(ruleFile("work")));
    EXPECT_EQ(ruleList("work"), kPlaceholder);
    // The active profile stays what it was.
    EXPECT_EQ(sharedValue("activeProfileID"), "defaultProfile");
}

TEST_F(CompileCommandTest, ReloadErrorKeepsTheRuleFileAndShowsWebKitsMessage) {
    createContainer();
    addProfileRule("defaultProfile", 1, 1, std::nullopt, ".*", "bogus");

    const RunResult result = run({"compile", "--json"});
    ASSERT_EQ(result.exitCode, 4) << describe({"compile", "--json"}, result);
    EXPECT_EQ(result.err.rfind("stonewall: reload: ", 0), 0u) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;

    const json report = json::parse(result.out);
    EXPECT_EQ(report["reload"], "failed");
    EXPECT_EQ(report["error"]["exitCode"], 4);
    const std::string message = report["reloadError"]["message"];
    EXPECT_FALSE(message.empty());
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;

    // The list was written all the same, bad rule included.
    const json list = ruleList();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["trigger"]["resource-type"][0], "bogus");
}

TEST_F(CompileCommandTest, AReloadThatDoesNotAnswerInTimeIsAnErrorNotAHang) {
    createContainer();
    // WebKit takes far longer than a millisecond; the watchdog fires first.
    const std::vector<std::string> args = {"compile", "--timeout", "0.001"};
    const auto start = std::chrono::steady_clock::now();
    const RunResult result = run(args);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(result.exitCode, 4) << describe(args, result);
    EXPECT_EQ(result.err.rfind("stonewall: reload: no answer within 0.001 s", 0), 0u) << result.err;
    // The file was written before the reload was asked for.
    EXPECT_EQ(ruleList(), kPlaceholder);
}

}  // namespace
}  // namespace stonewall::tool::testing
