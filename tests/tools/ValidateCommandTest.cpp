// stonewall validate: WebKit's verdict on any content-blocker list, and the
// search for the rule it rejects (with the real WebKit), plus the search
// itself against a scripted compiler, where every boundary can be chosen.

#include <cmath>

#include "platform/RuleListBisect.h"
#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
using platform::findFirstRejectedRule;
using nlohmann::json;

// --- The search, with a scripted compiler -----------------------------------

const Error kEmptyList{"WebKit", 0, "Empty extension."};

struct BisectCase {
    size_t ruleCount;
    size_t badIndex;
};

void PrintTo(const BisectCase& bisect, std::ostream* out) {
    *out << bisect.badIndex << " of " << bisect.ruleCount;
}

class RuleListBisectTest : public ::testing::TestWithParam<BisectCase> {};

// Like WebKit: every prefix that reaches the bad rule fails, and so does the
// empty list (with its own message, which must not count against a rule).
TEST_P(RuleListBisectTest, FindsTheFirstBadRuleInLogarithmicCompiles) {
    const size_t count = GetParam().ruleCount;
    const size_t bad = GetParam().badIndex;
    std::vector<size_t> asked;
    const auto result =
        findFirstRejectedRule(count, Error{"WebKit", 0, "full list"}, kEmptyList,
                              [&](size_t prefix) -> std::optional<Error> {
                                  asked.push_back(prefix);
                                  EXPECT_GT(prefix, 0u) << "the empty list's verdict is known";
                                  EXPECT_LT(prefix, count) << "the whole list's verdict is known";
                                  if (prefix > bad)
                                      return Error{"WebKit", 0, "prefix " + std::to_string(prefix)};
                                  return std::nullopt;
                              });
    ASSERT_TRUE(result.index.has_value());
    EXPECT_EQ(*result.index, bad);
    EXPECT_EQ(result.compiles, asked.size());
    EXPECT_LE(result.compiles,
              static_cast<size_t>(std::ceil(std::log2(static_cast<double>(count)))));
    // The message is WebKit's for the smallest failing prefix, not the whole list's.
    EXPECT_EQ(result.error.message,
              bad + 1 < count ? "prefix " + std::to_string(bad + 1) : "full list");
}

INSTANTIATE_TEST_SUITE_P(Boundaries, RuleListBisectTest,
                         ::testing::Values(BisectCase{1, 0}, BisectCase{2, 0}, BisectCase{2, 1},
                                           BisectCase{3, 1}, BisectCase{7, 0}, BisectCase{7, 6},
                                           BisectCase{8, 3}, BisectCase{1000, 0},
                                           BisectCase{1000, 999}, BisectCase{1000, 511},
                                           BisectCase{50001, 50000}, BisectCase{50001, 25000}));

TEST(RuleListBisect, PrefixesWithoutUsableRulesCountAsPassing) {
    // Rules 0 to 2 are dropped by WebKit (so their prefixes are "empty"),
    // rule 3 is usable and rule 5 is bad.
    const auto result = findFirstRejectedRule(8, Error{"WebKit", 0, "bad rule"}, kEmptyList,
                                              [](size_t prefix) -> std::optional<Error> {
                                                  if (prefix <= 3) return kEmptyList;
                                                  if (prefix >= 6)
                                                      return Error{"WebKit", 0, "bad rule"};
                                                  return std::nullopt;
                                              });
    ASSERT_TRUE(result.index.has_value());
    EXPECT_EQ(*result.index, 5u);
}

TEST(RuleListBisect, AListWithoutAnyUsableRuleBlamesNoRule) {
    for (size_t count : {0u, 1u, 5u}) {
        const auto result = findFirstRejectedRule(count, kEmptyList, kEmptyList, [](size_t) {
            ADD_FAILURE() << "no compile expected";
            return std::optional<Error>();
        });
        EXPECT_FALSE(result.index.has_value()) << count;
        EXPECT_EQ(result.error, kEmptyList);
        EXPECT_EQ(result.compiles, 0u);
    }
}

// --- The command, with WebKit -------------------------------------------------

class ValidateCommandTest : public ToolTest {};

json rule(const char* filter, json resourceType = nullptr) {
    json trigger = {{"url-filter", filter}};
    if (!resourceType.is_null()) trigger["resource-type"] = resourceType;
    return {{"action", {{"type", "block"}}}, {"trigger", trigger}};
}

TEST_F(ValidateCommandTest, AcceptsAValidList) {
    const json list = {rule("ads\\.example\\.com"), rule(".*", {"image", "script"})};
    writeFile(scratch("good.json"), list.dump());
    const json report = runJSON({"validate", scratch("good.json").string()});
    EXPECT_EQ(report["rules"], 2);
    EXPECT_EQ(report["accepted"], true);
    EXPECT_FALSE(report.contains("rejectedIndex"));
}

TEST_F(ValidateCommandTest, FindsTheRuleWebKitRejects) {
    json list = json::array();
    for (int i = 0; i < 9; ++i)
        list.push_back(rule(("site" + std::to_string(i) + "\\.test").c_str()));
    list[6] = rule(".*", {"bogus"});
    writeFile(scratch("bad.json"), list.dump(2));

    const std::vector<std::string> args = {"validate", scratch("bad.json").string(), "--json"};
    const RunResult result = run(args);
    ASSERT_EQ(result.exitCode, 4) << describe(args, result);
    const json report = json::parse(result.out);
    EXPECT_EQ(report["accepted"], false);
    EXPECT_EQ(report["rejectedIndex"], 6);
    EXPECT_EQ(report["rejectedRule"], list[6]);
    EXPECT_LE(report["compiles"].get<int>(),
              6);  // the list, the empty list, ceil(log2 9) = 4 prefixes
    const std::string message = report["error"]["message"];
    EXPECT_NE(message.find("rule 6"), std::string::npos) << message;
    EXPECT_EQ(result.err.rfind("stonewall: " + scratch("bad.json").string() + ": rule 6 ", 0), 0u)
        << result.err;

    // The human form shows the rule as compact JSON.
    const RunResult human = run({"validate", scratch("bad.json").string()});
    EXPECT_EQ(human.exitCode, 4);
    EXPECT_NE(human.out.find(list[6].dump()), std::string::npos) << human.out;
}

TEST_F(ValidateCommandTest, FindsTheBadRuleOfAFailedCompile) {
    // The rule file of a reload that had to leave a rule out is the usual
    // thing to validate.
    runOK({"info"});
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "good\\.example");
    addProfileRule("defaultProfile", 1, 2, "div.ad", ".*");
    addProfileRule("defaultProfile", 1, 2, "div.x", ".*", "bogus");
    EXPECT_EQ(runJSON({"compile"})["rulesLeftOut"][0]["index"], 2);
    const std::vector<std::string> args = {"validate", ruleFile().string(), "--json"};
    const RunResult result = run(args);
    ASSERT_EQ(result.exitCode, 4) << describe(args, result);
    const json report = json::parse(result.out);
    EXPECT_EQ(report["rejectedIndex"], 2) << report.dump();
}

}  // namespace
}  // namespace stonewall::tool::testing
