// The progress line of slow commands: only on a terminal, never with --json,
// and gone before the report.

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Progress.h"
#include "StonewallRunner.h"

namespace stonewall::tool::testing {
namespace {

namespace fs = std::filesystem;

TEST(ProgressTest, LineShowsABarOnlyWithATotal) {
    struct Case {
        int64_t done, total;
        const char* line;
    } cases[] = {
        {-1, 0, "reloading  1.5 s"},
        {7, 0, "reloading  7  1.5 s"},
        {0, 4, "reloading  [                    ] 0/4  1.5 s"},
        {1, 4, "reloading  [#####               ] 1/4  1.5 s"},
        {4, 4, "reloading  [####################] 4/4  1.5 s"},
        {9, 4, "reloading  [####################] 9/4  1.5 s"},  // never past the bar's end
    };
    for (const Case& item : cases) {
        EXPECT_EQ(progress::lineForTesting("reloading", item.done, item.total, 1.5), item.line)
            << item.done << "/" << item.total;
    }
}

// Runs the command with stdout and stderr on a pseudo-terminal; returns what
// the terminal got.
std::string runOnTerminal(const fs::path& root, std::vector<std::string> args) {
    args.insert(args.begin(), STONEWALL_BINARY);
    args.insert(args.end(), {"--container", (root / "container").string()});
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::setenv("HOME", root.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
        ::setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
        ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (root / "no-bus").string()).c_str(),
                 1);
        ::setenv("STONEWALL_PROGRESS_DELAY_MS", "0", 1);
        ::unsetenv("STONEWALL_VERBOSE");
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    std::string output;
    char buffer[4096];
    for (ssize_t got; (got = ::read(terminal, buffer, sizeof buffer)) > 0;) {
        output.append(buffer, static_cast<size_t>(got));
    }
    ::close(terminal);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
    return output;
}

TEST(ProgressTest, ShownOnATerminalOnly) {
    const fs::path root = makeTemporaryFolder();
    const std::string wipe = "\r\033[K";

    const std::string table = runOnTerminal(root, {"compile"});
    const auto line = table.find("compiling and reloading the content blocker");
    ASSERT_NE(line, std::string::npos) << table;
    // Wiped before the report, which reads as it always did.
    const auto report = table.find("profile ");
    ASSERT_NE(report, std::string::npos) << table;
    EXPECT_LT(line, report);
    EXPECT_EQ(table.rfind(wipe, report), report - wipe.size()) << table;

    const std::string json = runOnTerminal(root, {"compile", "--json"});
    EXPECT_EQ(json.find("compiling"), std::string::npos) << json;
    EXPECT_EQ(json.find(wipe), std::string::npos) << json;

    StonewallRunner runner(root / "pipe");
    runner.setEnvironment("STONEWALL_PROGRESS_DELAY_MS", "0");
    const RunResult piped = runner.run({"compile"});
    EXPECT_EQ(piped.exitCode, 0) << describe({"compile"}, piped);
    EXPECT_EQ(piped.err, "");
}

}  // namespace
}  // namespace stonewall::tool::testing
