// stonewall watch: notifications from other runs of the command, over a
// private D-Bus session bus started by the test.

#include <signal.h>

#include <filesystem>

#include "ToolTestSupport.h"
#include "support/PrivateBus.h"

namespace stonewall::tool::testing {
namespace {
using namespace std::chrono_literals;
using nlohmann::json;

class WatchCommandTest : public ToolTest {
  protected:
    void SetUp() override {
        if (bus_.address().empty()) GTEST_SKIP() << "no dbus-daemon to start a private bus with";
        runner().setEnvironment("DBUS_SESSION_BUS_ADDRESS", bus_.address());
        createContainer();
    }

    // The command says so on stderr once its match is in place.
    static void expectSubscribed(BackgroundProcess& watch) {
        const auto ready = watch.readLine(20s, 2);
        EXPECT_TRUE(ready && ready->find("watching for \"extensionUpdate\"") != std::string::npos)
            << (ready ? *ready : "no line on stderr");
    }

    test_support::PrivateBus bus_{scratch("bus")};
};

TEST_F(WatchCommandTest, PrintsEachNotificationUntilInterrupted) {
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        BackgroundProcess watch = runner().start({"watch", "--json"});
        expectSubscribed(watch);
        for (const char* state : {"off", "on"}) {
            runJSON({"status", state});
            const auto line = watch.readLine(20s);
            ASSERT_TRUE(line) << "no notification after status " << state;
            const json event = json::parse(*line);
            EXPECT_EQ(event["name"], "extensionUpdate");
            EXPECT_EQ(event["object"], "StonewallExtension");
            EXPECT_TRUE(event["time"].is_string());
        }
        watch.sendSignal(signal);
        const RunResult result = watch.wait(20s);
        EXPECT_EQ(result.exitCode, 0) << "signal " << result.signal << "\n" << result.err;
        EXPECT_EQ(result.out, "") << "nothing after the notifications";
    }
}

TEST_F(WatchCommandTest, CountEndsTheWatchOnItsOwn) {
    BackgroundProcess watch = runner().start({"watch", "--count", "1"});
    expectSubscribed(watch);
    writeFile(scratch("element.json"), R"([["", "div", "div.x", "", "", "", "", "", ""]])");
    // Picked elements notify too.
    runJSON({"pick", "--page", "https://example.com/", scratch("element.json").string()});
    const RunResult result = watch.wait(20s);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("  extensionUpdate  StonewallExtension\n"), std::string::npos)
        << result.out;
}

class WatchWithoutBusTest : public ToolTest {};

TEST_F(WatchWithoutBusTest, SaysThatNotificationsCannotBeObserved) {
    const RunResult result = run({"watch"});  // the sandbox's bus address leads nowhere
    EXPECT_EQ(result.exitCode, 5) << describe({"watch"}, result);
    EXPECT_EQ(result.err.rfind("stonewall: watch: notifications cannot be observed here", 0), 0u)
        << result.err;
}

}  // namespace
}  // namespace stonewall::tool::testing
