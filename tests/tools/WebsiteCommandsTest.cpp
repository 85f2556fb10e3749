// stonewall block, secure, allow and check: the popover's website view.

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
using nlohmann::json;

struct ListCase {
    const char* command;
    const char* checkKey;
    int action;
    const char* actionType;  // in the compiled list
};

const ListCase kLists[] = {
    {"block", "block", 5, "block"},
    {"secure", "secure", 7, "make-https"},
    {"allow", "allow", 3, "ignore-previous-rules"},
};

void PrintTo(const ListCase& list, std::ostream* out) { *out << list.command; }

class WebsiteCommandsTest : public ToolTest, public ::testing::WithParamInterface<ListCase> {};

TEST_P(WebsiteCommandsTest, AddsTheHostToItsListOnlyAndReloads) {
    const ListCase& list = GetParam();
    const json report = runJSON({list.command, "https://news.example.org/world/today?x=1"});
    EXPECT_EQ(report["host"], "news.example.org");
    EXPECT_EQ(report["changed"], true);
    EXPECT_EQ(report["reload"], "done");

    // Stored as a custom rule and compiled into the active profile's list.
    const auto rows = sqlQuery(sharedDatabase(), "SELECT action, domains FROM SharedCustomRules");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][0], std::to_string(list.action));
    EXPECT_EQ(rows[0][1], "news.example.org");
    const json rules = ruleList();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0]["action"]["type"], list.actionType);
    EXPECT_EQ(rules[0]["trigger"]["if-top-url"][0], "^[^:]+://+news\\.example\\.org[:/]");

    const json check = runJSON({"check", "https://news.example.org/"});
    for (const ListCase& other : kLists) {
        EXPECT_EQ(check[other.checkKey], std::string(other.checkKey) == list.checkKey)
            << other.checkKey << " after " << list.command;
    }
}

TEST_P(WebsiteCommandsTest, AHostAlreadyOnTheListChangesNothing) {
    const ListCase& list = GetParam();
    runJSON({list.command, "https://shop.example.com/"});
    const auto before = snapshotFiles(container());
    const RunResult again = run({list.command, "https://shop.example.com/other/page"});
    EXPECT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(again.out, "shop.example.com is already on the " + std::string(list.checkKey) +
                             " list of profile defaultProfile; nothing changed.\n");
    EXPECT_EQ(customRuleCount(), 1);
    EXPECT_EQ(snapshotFiles(container()), before);
}

INSTANTIATE_TEST_SUITE_P(Lists, WebsiteCommandsTest, ::testing::ValuesIn(kLists),
                         [](const auto& info) { return std::string(info.param.command); });

class CheckCommandTest : public ToolTest {};

TEST_F(CheckCommandTest, URLsAreTakenAsTheBrowserGivesThem) {
    // A Unicode host is encoded, upper case is lowered, as in the browser's URL.
    EXPECT_EQ(runJSON({"block", "https://Bücher.example/Kasse?a b"})["host"],
              "xn--bcher-kva.example");
    const auto rows = sqlQuery(sharedDatabase(), "SELECT domains FROM SharedCustomRules");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][0], "xn--bcher-kva.example");

    for (const char* url : {"https://bücher.example/kasse", "http://xn--bcher-kva.example:8080/",
                            "HTTPS://BÜCHER.EXAMPLE"}) {
        const json check = runJSON({"check", url});
        EXPECT_EQ(check["host"], "xn--bcher-kva.example") << url;
        EXPECT_EQ(check["block"], true) << url;
        EXPECT_EQ(check["secure"], false) << url;
    }
    // Exact membership: a subdomain is another host.
    EXPECT_EQ(runJSON({"check", "https://www.bücher.example/"})["block"], false);
    EXPECT_EQ(runOK({"check", "https://xn--bcher-kva.example/"}),
              "host     xn--bcher-kva.example\n"
              "profile  defaultProfile\n"
              "block    yes\n"
              "secure   no\n"
              "allow    no\n");
}

}  // namespace
}  // namespace stonewall::tool::testing
