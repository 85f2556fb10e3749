// The command line is built from a table of subcommands: every one must sit
// under its group, take --timeout exactly when it waits for the content
// blocker, and show its own arguments in its help.

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {

struct HelpCase {
    std::vector<std::string> path;
    bool waits;         // takes --timeout
    const char* shows;  // an argument or option of its own
};

class CommandLineTest : public ToolTest {};

TEST_F(CommandLineTest, EverySubcommandHasItsOwnHelp) {
    const HelpCase cases[] = {
        {{"compile"}, true, "--no-reload"},
        {{"status"}, true, "on or off"},
        {{"profile", "list"}, false, "--json"},
        {{"profile", "activate"}, true, "ID"},
        {{"profile", "create"}, false, "NAME"},
        {{"profile", "rename"}, false, "NAME"},
        {{"profile", "remove"}, false, "ID"},
        {{"profile", "import"}, true, "FILE"},
        {{"block"}, true, "URL"},
        {{"secure"}, true, "URL"},
        {{"allow"}, true, "URL"},
        {{"unblock"}, true, "URL"},
        {{"unsecure"}, true, "URL"},
        {{"unallow"}, true, "URL"},
        {{"lists", "tidy"}, true, "--container"},
        {{"open-url"}, false, "stonewall:// URL"},
        {{"check"}, false, "URL"},
        {{"pick"}, true, "--page"},
        {{"validate"}, false, "FILE"},
        {{"watch"}, false, "--count"},
        {{"info"}, false, "--verbose"},
    };
    for (const HelpCase& help : cases) {
        std::vector<std::string> args = help.path;
        args.push_back("--help");
        const RunResult result = runner().run(args, {}, /*withContainer=*/false);
        const std::string name = args.front() + (args.size() > 2 ? " " + args[1] : "");
        EXPECT_EQ(result.exitCode, 0) << name << ": " << result.err;
        EXPECT_NE(result.out.find("Usage: stonewall " + name + " "), std::string::npos) << name;
        EXPECT_NE(result.out.find(help.shows), std::string::npos) << name;
        EXPECT_EQ(result.out.find("--timeout SECONDS") != std::string::npos, help.waits) << name;
        EXPECT_NE(result.out.find("Exit codes:"), std::string::npos) << name;
    }
}

TEST_F(CommandLineTest, AGroupWithoutItsSubcommandNamesTheGroupsHelp) {
    for (const char* group : {"profile", "lists"}) {
        const RunResult result = runner().run({group}, {}, /*withContainer=*/false);
        EXPECT_EQ(result.exitCode, 1) << group;
        EXPECT_NE(result.err.find("(see stonewall " + std::string(group) + " --help)"),
                  std::string::npos)
            << group << ": " << result.err;
    }
}

}  // namespace
}  // namespace stonewall::tool::testing
