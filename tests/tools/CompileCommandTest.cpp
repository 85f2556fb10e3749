// stonewall compile, info and validate against real containers, real SQLite
// files and WebKit's real content-blocker compiler; the search for a rule
// WebKit rejects also against a scripted compiler, where every boundary can
// be chosen.

#include <cmath>
#include <filesystem>

#include "ToolTestSupport.h"
#include "platform/RuleListBisect.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

const json kPlaceholder =
    json::parse(R"([{"action":{"type":"block"},"trigger":{"url-filter":"ockit.svg"}}])");

class CompileCommandTest : public ToolTest {};

TEST_F(CompileCommandTest, FirstRunCreatesTheContainerAndWritesThePlaceholderList) {
    // A nested folder that does not exist yet: the program makes all of it.
    const fs::path root = scratch("deep") / "er" / "container";
    runner().setEnvironment("STONEWALL_CONTAINER", root.string());
    const RunResult result = runner().run({"compile", "--json"}, {}, /*withContainer=*/false);
    ASSERT_EQ(result.exitCode, 0) << describe({"compile", "--json"}, result);
    const fs::path rules = root / ".Profiles" / "profile_defaultProfile_unarchive.json";
    EXPECT_EQ(json::parse(readFile(rules)), kPlaceholder);
    const json report = json::parse(result.out);
    EXPECT_EQ(report["bytesWritten"], static_cast<int64_t>(fs::file_size(rules)));
    EXPECT_EQ(report["ruleFile"], rules.string());
}

TEST_F(CompileCommandTest, ReportsWhatWasReadDroppedAndWritten) {
    createContainer();
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads\\.example\\.com");
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "tracker\\.example\\.net");
    addProfileRule("defaultProfile", 1, 2, "div.ad", ".*");
    addProfileRule("defaultProfile", 3, 2, "div.ad", ".*");  // same hash, another list: dropped
    addProfileRule("defaultProfile", 1, 6, std::nullopt, "good\\.example\\.com");

    const json report = runJSON({"compile"});
    EXPECT_EQ(report["rulesReadByAction"],
              json::parse(R"({"5":0,"1":2,"4":0,"2":2,"3":0,"6":1,"7":0,"8":0})"));
    EXPECT_EQ(report["duplicatesDropped"], 1);
    EXPECT_EQ(report["rulesWritten"], 4);
    EXPECT_EQ(report["reload"], "done");
}

TEST_F(CompileCommandTest, OnlyAReloadTouchesTheDefaultsTheContentBlockerReads) {
    createContainer();
    addWorkProfile();
    const json skipped = runJSON({"compile", "--profile", "work", "--no-reload"});
    EXPECT_EQ(skipped["reload"], "skipped");
    EXPECT_EQ(ruleList("work"), kPlaceholder);
    EXPECT_EQ(sharedValue("activeProfileID"), "defaultProfile");
    EXPECT_TRUE(runJSON({"info"})["defaults"]["blockerReloadType"].is_null());

    runJSON({"compile"});
    const json info = runJSON({"info"});
    EXPECT_EQ(info["defaults"]["activeProfileID"], "defaultProfile");
    EXPECT_EQ(info["defaults"]["blockerReloadType"], 2);
}

TEST_F(CompileCommandTest, ASilentReloadKeepsTheWrittenListAndSaysWhy) {
    createContainer();
    // WebKit takes far longer than a millisecond; the watchdog fires first.
    const std::vector<std::string> args = {"compile", "--timeout", "0.001"};
    const RunResult result = run(args);
    EXPECT_EQ(result.exitCode, 4) << describe(args, result);
    EXPECT_EQ(result.err.rfind("stonewall: reload: no answer within 0.001 s", 0), 0u) << result.err;
    EXPECT_EQ(ruleList(), kPlaceholder);
}

TEST_F(CompileCommandTest, InfoShowsFileSizesAndTheHost) {
    runJSON({"block", "https://example.com/"});
    const json info = runJSON({"info"});
    std::map<std::string, int64_t> sizes;
    for (const auto& file : info["files"]) sizes[file["path"]] = file["bytes"];
    for (const fs::path& path : {sharedDatabase(), profileDatabase(), ruleFile()}) {
        const std::string relative = fs::relative(path, container()).string();
        EXPECT_EQ(sizes[relative], static_cast<int64_t>(fs::file_size(path))) << relative;
    }

    // An old host asks for no reloads: a compile does nothing, as the
    // extension does there, and says so.
    fs::remove_all(container());
    runner().setEnvironment("STONEWALL_APPKIT_VERSION", "1404.28");
    EXPECT_EQ(runJSON({"info"})["host"]["appKitVersion"], 1404.28);
    EXPECT_EQ(runJSON({"compile"})["reload"], "skipped");
    EXPECT_FALSE(fs::exists(ruleFile()));
}

json rule(const std::string& filter, json resourceType = nullptr) {
    json trigger = {{"url-filter", filter}};
    if (!resourceType.is_null()) trigger["resource-type"] = resourceType;
    return {{"action", {{"type", "block"}}}, {"trigger", trigger}};
}

TEST_F(CompileCommandTest, ValidateNamesTheRuleWebKitRejects) {
    createContainer();
    writeFile(scratch("good.json"), json{rule("a\\.test"), rule(".*", {"image"})}.dump());
    EXPECT_EQ(runJSON({"validate", scratch("good.json").string()})["accepted"], true);

    json list = json::array();
    for (int i = 0; i < 9; ++i) list.push_back(rule("site" + std::to_string(i) + "\\.test"));
    list[6] = rule(".*", {"bogus"});
    writeFile(scratch("bad.json"), list.dump(2));
    const std::vector<std::string> args = {"validate", scratch("bad.json").string(), "--json"};
    const RunResult result = run(args);
    ASSERT_EQ(result.exitCode, 4) << describe(args, result);
    const json report = json::parse(result.out);
    EXPECT_EQ(report["rejectedIndex"], 6);
    EXPECT_EQ(report["rejectedRule"], list[6]);
    EXPECT_LE(report["compiles"].get<int>(), 6);  // the list, the empty one, ceil(log2 9)
    EXPECT_EQ(result.err.rfind("stonewall: " + scratch("bad.json").string() + ": rule 6 ", 0), 0u)
        << result.err;

    // A compile leaves such a rule out and loads the rest, twice over: the
    // rule file it wrote still names the rule when validated.
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "good\\.example");
    addProfileRule("defaultProfile", 1, 2, "div.ad", ".*");
    addProfileRule("defaultProfile", 1, 2, "div.x", ".*", "bogus");
    for (int attempt = 0; attempt < 2; ++attempt) {
        const json compiled = runJSON({"compile"});
        EXPECT_EQ(compiled["reload"], "done");
        ASSERT_EQ(compiled["rulesLeftOut"].size(), 1u) << compiled.dump();
        EXPECT_EQ(compiled["rulesLeftOut"][0]["index"], 2);
    }
    const RunResult validated = run({"validate", ruleFile().string(), "--json"});
    EXPECT_EQ(validated.exitCode, 4);
    EXPECT_EQ(json::parse(validated.out)["rejectedIndex"], 2) << validated.out;
}

using platform::findFirstRejectedRule;
const Error kEmptyList{"WebKit", 0, "Empty extension."};

// Like WebKit: every prefix that reaches the bad rule fails, and so does the
// empty list (with its own message, which must not count against a rule).
TEST(RuleListBisectTest, FindsTheFirstBadRuleInLogarithmicCompiles) {
    const std::pair<size_t, size_t> cases[] = {
        {1, 0}, {2, 0},    {2, 1},      {3, 1},      {7, 0},         {7, 6},
        {8, 3}, {1000, 0}, {1000, 999}, {1000, 511}, {50001, 50000}, {50001, 25000}};
    for (const auto& [count, bad] : cases) {
        SCOPED_TRACE(std::to_string(bad) + " of " + std::to_string(count));
        size_t asked = 0;
        const auto result = findFirstRejectedRule(
            count, Error{"WebKit", 0, "full list"}, kEmptyList,
            [&, count = count, bad = bad](size_t prefix) -> std::optional<Error> {
                ++asked;
                EXPECT_GT(prefix, 0u) << "the empty list's verdict is known";
                EXPECT_LT(prefix, count) << "the whole list's verdict is known";
                if (prefix > bad) return Error{"WebKit", 0, "prefix " + std::to_string(prefix)};
                return std::nullopt;
            });
        ASSERT_TRUE(result.index.has_value());
        EXPECT_EQ(*result.index, bad);
        EXPECT_EQ(result.compiles, asked);
        EXPECT_LE(result.compiles, static_cast<size_t>(std::ceil(std::log2(double(count)))));
        // WebKit's message for the smallest failing prefix, not the whole list's.
        EXPECT_EQ(result.error.message,
                  bad + 1 < count ? "prefix " + std::to_string(bad + 1) : "full list");
    }
}

TEST(RuleListBisectTest, PrefixesWithoutUsableRulesCountAsPassing) {
    // Rules 0 to 2 are dropped by WebKit (their prefixes are "empty"), rule 5 is bad.
    const auto result = findFirstRejectedRule(8, Error{"WebKit", 0, "bad rule"}, kEmptyList,
                                              [](size_t prefix) -> std::optional<Error> {
                                                  if (prefix <= 3) return kEmptyList;
                                                  if (prefix >= 6)
                                                      return Error{"WebKit", 0, "bad rule"};
                                                  return std::nullopt;
                                              });
    EXPECT_EQ(result.index, std::optional<size_t>(5));
    for (size_t count : {0u, 1u, 5u}) {  // no usable rule at all: nothing to blame
        const auto none = findFirstRejectedRule(count, kEmptyList, kEmptyList, [](size_t) {
            ADD_FAILURE() << "no compile expected";
            return std::optional<Error>();
        });
        EXPECT_FALSE(none.index.has_value()) << count;
        EXPECT_EQ(none.compiles, 0u);
    }
}

}  // namespace
}  // namespace stonewall::tool::testing
