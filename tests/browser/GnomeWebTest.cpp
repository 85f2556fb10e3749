// GNOME Web blocking by the active profile, end to end: the real stonewall
// command changes GNOME Web's settings through dconf on a private session
// bus, and a real GNOME Web (epiphany-browser) loads a page from 127.0.0.1
// whose ad comes from 127.0.0.2. What the ad server was asked for tells
// whether GNOME Web blocked it. Runs under scripts/with-display.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "StonewallRunner.h"
#include "ToolTestSupport.h"
#include "support/LoopbackServer.h"
#include "support/PrivateBus.h"

namespace stonewall::tool::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test_support::LoopbackServer;
using test_support::PrivateBus;

constexpr const char* kEpiphany = "/usr/bin/epiphany";

// The paths asked for, in order, by a server's clients.
class RequestLog {
  public:
    void add(const std::string& request) {
        const auto start = request.find(' ') + 1;
        const auto end = request.find(' ', start);
        std::lock_guard lock(mutex_);
        paths_.push_back(request.substr(start, end - start));
    }
    bool contains(const std::string& path) const {
        std::lock_guard lock(mutex_);
        for (const auto& seen : paths_) {
            if (seen == path) return true;
        }
        return false;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> paths_;
};

std::string answer(const std::string& type, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: " + type +
           "\r\nCache-Control: no-store\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

constexpr char kGif[] = "GIF89a\x01\x00\x01\x00\x00\x00\x00;";

// The environment the command, GNOME Web and the bus's dconf service share,
// so that all three read and write the same settings file.
void shareUserFolders(const StonewallRunner& runner) {
    const fs::path root = runner.root();
    fs::create_directories(root / "run");
    ::chmod((root / "run").c_str(), 0700);
    ::setenv("HOME", (root / "home").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (root / "cache").c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", (root / "run").c_str(), 1);
}

// With a missing piece the command says which and changes nothing.
TEST(GnomeWebTest, RefusedWithoutSchemaOrSessionBus) {
    const fs::path root = makeTemporaryFolder();
    const fs::path noSchemas = root / "no-schemas";
    fs::create_directories(noSchemas);
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, std::string>> environment;
        const char* says;
    } cases[] = {
        {"no schema",
         {{"XDG_DATA_DIRS", noSchemas.string()}, {"GSETTINGS_SCHEMA_DIR", ""}},
         "schema"},
        {"no session bus", {}, "session bus"},  // the runner's bus address leads nowhere
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.name);
        StonewallRunner runner(root / item.name);
        for (const auto& [name, value] : item.environment) runner.setEnvironment(name, value);
        if (std::string(item.name) == "no session bus" && !fs::exists(kEpiphany)) {
            continue;  // without the schema the schema is what is missing
        }
        for (const char* state : {"on", "off"}) {
            const RunResult result = runner.run({"gnome-web", state});
            EXPECT_EQ(result.exitCode, 5) << describe({"gnome-web", state}, result);
            EXPECT_NE(result.err.find(item.says), std::string::npos) << result.err;
        }
        EXPECT_FALSE(fs::exists(runner.containerPath() / ".Shared" / "gnome-web.json"));
    }
}

class GnomeWebBrowserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!fs::exists(kEpiphany) && ::geteuid() == 0) {
            // As root (CI) the test brings GNOME Web itself.
            (void)std::system(
                "DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "
                "epiphany-browser >/dev/null 2>&1");
        }
        if (!fs::exists(kEpiphany)) {
            GTEST_SKIP() << "GNOME Web is not installed (scripts/setup installs "
                            "epiphany-browser)";
        }
        const char* display = std::getenv("DISPLAY");
        if (!display || !*display)
            GTEST_SKIP() << "needs a display: run under scripts/with-display";
        display_ = display;
    }

    std::string display_;
};

TEST_F(GnomeWebBrowserTest, BlocksByTheActiveProfile) {
    StonewallRunner runner(makeTemporaryFolder());
    shareUserFolders(runner);
    PrivateBus bus(runner.root() / "bus");
    ASSERT_FALSE(bus.address().empty()) << "no dbus-daemon could be started";
    runner.setEnvironment("DBUS_SESSION_BUS_ADDRESS", bus.address());
    runner.setEnvironment("XDG_RUNTIME_DIR", (runner.root() / "run").string());
    runner.setEnvironment("DISPLAY", display_);
    // WebKit's sandbox cannot set up its namespaces inside a container run
    // as root; the pages here are our own.
    runner.setEnvironment("WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS", "1");

    RequestLog adRequests, pageRequests;
    LoopbackServer ads(
        [&](const std::string& request) {
            adRequests.add(request);
            return answer("image/gif", std::string(kGif, sizeof kGif - 1));
        },
        "127.0.0.2");
    std::string adBase = ads.url("");
    LoopbackServer pages([&](const std::string& request) {
        pageRequests.add(request);
        const auto start = request.find("phase=");
        const std::string phase =
            start == std::string::npos
                ? ""
                : request.substr(start + 6, request.find(' ', start) - start - 6);
        if (request.rfind("GET /page", 0) == 0) {
            // The page reports its load event, which waits for every image,
            // the blocked ones included: by then the ad was asked for or not.
            return answer("text/html",
                          "<!doctype html><title>news</title><h1>news</h1>"
                          "<img src=\"" +
                              adBase + "/ad.gif?phase=" + phase +
                              "\">"
                              "<img src=\"/own-filter.gif?phase=" +
                              phase +
                              "\">"
                              "<script>addEventListener('load', () => fetch('/loaded?phase=" +
                              phase + "'));</script>");
        }
        return answer("image/gif", std::string(kGif, sizeof kGif - 1));
    });

    // A list of the user's own in GNOME Web, which must stay in place.
    const fs::path ownList = runner.root() / "own-list.json";
    writeFile(ownList,
              R"([{"action":{"type":"block"},"trigger":{"url-filter":"own-filter\\.gif"}}])");
    const std::string ownFilters = "['file://" + ownList.string() + "']";
    auto gsettings = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "/usr/bin/gsettings");
        return runner.startProgram(std::move(args)).wait(30s);
    };
    ASSERT_EQ(gsettings({"set", "org.gnome.Epiphany", "content-filters", ownFilters}).exitCode, 0);

    // One fresh GNOME Web per visit (a profile of its own, so no tab is
    // restored); true when the ad was asked for.
    int phase = 0;
    auto adRequested = [&](const std::string& what) {
        const std::string tag = std::to_string(++phase);
        BackgroundProcess browser = runner.startProgram(
            {kEpiphany, "--profile=" + (runner.root() / ("web-" + tag)).string(),
             pages.url("/page?phase=" + tag)});
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (!pageRequests.contains("/loaded?phase=" + tag) &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(50ms);
        }
        browser.sendSignal(SIGTERM);
        const RunResult ended = browser.wait(10s);
        EXPECT_TRUE(pageRequests.contains("/loaded?phase=" + tag))
            << what << ": the page did not finish loading\n"
            << ended.err;
        EXPECT_FALSE(pageRequests.contains("/own-filter.gif?phase=" + tag))
            << what << ": the user's own list no longer applies";
        return adRequests.contains("/ad.gif?phase=" + tag);
    };
    auto stonewall = [&](std::vector<std::string> args) {
        const RunResult result = runner.run(args);
        EXPECT_EQ(result.exitCode, 0) << describe(args, result);
        return result;
    };

    // The ad server's host, blocked wherever it is loaded from.
    const fs::path adList = runner.root() / "ads.txt";
    writeFile(adList, "||127.0.0.2^\n");
    stonewall({"profile", "import", "defaultProfile", adList.string()});
    EXPECT_TRUE(adRequested("gnome-web off")) << "blocked before GNOME Web was told";

    const RunResult on = stonewall({"gnome-web", "on", "--json"});
    EXPECT_NE(on.out.find("\"gnomeWeb\":\"on\""), std::string::npos) << on.out;
    EXPECT_FALSE(adRequested("gnome-web on"));

    stonewall({"allow", pages.url("/")});
    EXPECT_TRUE(adRequested("page allowed"));

    stonewall({"unallow", pages.url("/")});
    EXPECT_FALSE(adRequested("page no longer allowed"));

    stonewall({"status", "off"});
    EXPECT_TRUE(adRequested("blocking off"));
    stonewall({"status", "on"});

    stonewall({"gnome-web", "off"});
    const RunResult restored = gsettings({"get", "org.gnome.Epiphany", "content-filters"});
    EXPECT_EQ(restored.out, ownFilters + "\n");
    EXPECT_TRUE(adRequested("gnome-web off again"));
    EXPECT_FALSE(fs::exists(runner.containerPath() / "Library" / "GnomeWeb"));
}

}  // namespace
}  // namespace stonewall::tool::testing
