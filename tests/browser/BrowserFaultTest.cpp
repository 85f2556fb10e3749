// The real browser on a bad day: a tab's web process killed, the profile
// database held by another program while the popover stores a choice, a
// flood of picker messages and of blocked loads. Each is driven through the
// control channel, with the main loop pinged throughout: a browser that
// freezes answers late.

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <cstdlib>
#include <deque>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>

#include "BrowserProgramTest.h"

namespace stonewall::browser::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tool::testing::readFile;

constexpr const char* kNewsPage = R"(<!doctype html><title>News</title>
<h1>Daily News</h1>
<img src="/ads/banner.png" width="100" height="50">
<script src="/tracker.js"></script>)";
constexpr const char* kAdImage =
    R"(<svg xmlns="http://www.w3.org/2000/svg" width="100" height="50"/>)";

// Only a freeze fails here: a live main loop answers in about 100 ms even
// through the flood (the figure is measured by bench/browser/browser_faults),
// and a loaded machine stretches that several times over (880 ms seen while
// a package installed beside the suite). A freeze lasts as long as its fault:
// the whole lock below, or a flood handled message by message (seconds).
constexpr auto kAnswersWithin = 2000ms;

// Under AddressSanitizer freed memory waits in quarantine (256 MiB) and
// every block is padded: resident memory tells nothing there, so the bound
// is checked in the other builds.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kResidentMemoryMeans = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kResidentMemoryMeans = false;
#else
constexpr bool kResidentMemoryMeans = true;
#endif
#else
constexpr bool kResidentMemoryMeans = true;
#endif
constexpr long kMemoryGrowthLimitKiB = 64 * 1024;

// The web processes under `root`: its descendants that WebKit named so.
std::set<pid_t> webProcessesOf(pid_t root) {
    std::map<pid_t, pid_t> parents;
    std::map<pid_t, std::string> names;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream stat(entry.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), {});
        const size_t open = text.find('('), close = text.rfind(')');
        if (open == std::string::npos || close == std::string::npos) continue;
        const pid_t pid = std::atoi(name.c_str());
        names[pid] = text.substr(open + 1, close - open - 1);
        std::istringstream rest(text.substr(close + 2));
        std::string state;
        pid_t parent = 0;
        rest >> state >> parent;
        parents[pid] = parent;
    }
    std::set<pid_t> found;
    for (const auto& [pid, name] : names) {
        if (!name.starts_with("WebKitWebProces")) continue;
        for (pid_t up = parents[pid]; up > 1; up = parents[up]) {
            if (up == root) {
                found.insert(pid);
                break;
            }
        }
    }
    return found;
}

class BrowserFaultTest : public BrowserProgramTest {
  protected:
    BrowserFaultTest()
        : BrowserProgramTest({{"/", {"text/html", kNewsPage}},
                              {"/flood", {"text/html", floodPage("/ads/banner.png")}},
                              {"/tracker.js", {"text/javascript", "window.tracked = true;"}},
                              {"/ads/banner.png", {"image/svg+xml", kAdImage}}}) {}

    nlohmann::json state() {
        browser_->send("state");
        const std::string line = expect("state ");
        return nlohmann::json::parse(line.empty() ? "{}" : line.substr(6), nullptr, false);
    }

    // Polls the browser's state until `holds` or 20 s.
    template <typename Holds>
    nlohmann::json stateWhen(Holds holds) {
        nlohmann::json current;
        for (int i = 0; i < 200; ++i) {
            current = state();
            if (holds(current)) break;
            std::this_thread::sleep_for(100ms);
        }
        return current;
    }

    void blockTheAdsAndCompile() {
        addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads/banner\\.png");
        addProfileRule("defaultProfile", 1, 1, std::nullopt, "tracker\\.js");
        runOK({"compile"});
    }

    // How often `host` appears on the profile's block list and among the
    // shared custom rules.
    std::pair<int, int> blockListEntries(const std::string& host) {
        int inProfile = 0;
        for (const auto& row : tool::testing::sqlQuery(
                 profileDatabase(), "SELECT domains FROM ProfileRules WHERE action = 5")) {
            std::stringstream domains(row.at(0).value_or(""));
            for (std::string entry; std::getline(domains, entry, ',');) inProfile += entry == host;
        }
        const auto shared = tool::testing::sqlQuery(
            sharedDatabase(),
            "SELECT COUNT(*) FROM SharedCustomRules WHERE action = 5 AND domains = '" + host + "'");
        return {inProfile, std::atoi(shared.at(0).at(0).value_or("0").c_str())};
    }
};

TEST_F(BrowserFaultTest, AKilledWebProcessLeavesItsTabReloadableAndTheRestWorking) {
    blockTheAdsAndCompile();
    startBrowser(server_.url("/"));
    const std::set<pid_t> before = webProcessesOf(browser_->pid());
    // Another site, so that the tab gets a web process of its own.
    const std::string other = "http://localhost:" + server_.url("/").substr(17);
    browser_->send("tab " + other);
    expect("loaded " + other);
    const int documentsServed = server_.requests("/");
    EXPECT_EQ(stateWhen([](auto& s) { return s["badge"] == "2"; })["badge"], "2");
    std::set<pid_t> fresh;
    for (pid_t pid : webProcessesOf(browser_->pid())) {
        if (!before.contains(pid)) fresh.insert(pid);
    }
    ASSERT_EQ(fresh.size(), 1u) << "cannot tell the new tab's web process";

    ::kill(*fresh.begin(), SIGKILL);
    expect("web-process-terminated crashed");
    auto crashed = stateWhen([](auto& s) { return s["badge"].is_null(); });
    EXPECT_EQ(crashed["crashed"], true);
    EXPECT_TRUE(crashed["badge"].is_null()) << crashed;

    // The first tab: its badge, its popover and the engine behind it.
    browser_->send("select-tab 0");
    EXPECT_EQ(stateWhen([](auto& s) { return s["badge"] == "2"; })["badge"], "2");
    browser_->send("popup");
    expect("view 1");
    const auto open = stateWhen([](auto& s) { return s["blockEnabled"] == true; });
    EXPECT_EQ(open["crashed"], false);
    EXPECT_EQ(open["profile"], "Default Profile");
    EXPECT_EQ(open["blockEnabled"], true) << open;
    browser_->send("press blockButton");
    expect("view 4");
    browser_->send("press websiteDoneButton");
    expect("filter on");
    expect("page-reload");
    expect("loaded");
    EXPECT_EQ(server_.requests("/"), documentsServed);  // blocked now
    EXPECT_EQ(blockListEntries("127.0.0.1"), std::make_pair(1, 1));

    // The crashed tab comes back with its Reload button.
    browser_->send("select-tab 1");
    EXPECT_EQ(state()["crashed"], true);
    browser_->send("reload-crashed");
    expect("loaded " + other);
    const auto back = stateWhen([](auto& s) { return s["badge"] == "2"; });
    EXPECT_EQ(back["crashed"], false);
    EXPECT_EQ(back["badge"], "2");

    // A page that closes itself takes its tab along; the other tab goes on.
    evaluate("window.close(), 1");
    const auto closed = stateWhen([](auto& s) { return s["tabs"] == 1; });
    EXPECT_EQ(closed["tabs"], 1);
    EXPECT_EQ(closed["crashed"], false) << closed;
}

TEST_F(BrowserFaultTest, ABlockWaitsForAnotherProgramsLockWithoutFreezingAndIsStoredOnce) {
    // The bench holds the lock for 10 s; here a shorter one, still far past
    // what a frozen main loop could hide.
    constexpr double kLockMs = 3500;
    startBrowser(server_.url("/"));
    browser_->send("popup");
    expect("view 1");
    browser_->send("press blockButton");
    expect("view 4");

    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(profileDatabase().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    browser_->send("press websiteDoneButton");
    bool locked = true;
    const auto run = browser_->drivePinging(
        [](const std::string& line) { return line.starts_with("loaded"); }, 30s,
        [&](double elapsed) {
            if (locked && elapsed >= kLockMs) {
                sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
                sqlite3_close(other);
                locked = false;
            }
        });
    if (locked) sqlite3_close(other);
    ASSERT_TRUE(run.finished) << browser_->transcript();
    EXPECT_LT(run.longest, kAnswersWithin);
    EXPECT_GT(run.answered, 20);
    // The wait shows at once, the outcome once the lock is gone.
    const double reloading = run.when("image ToolbarItemIconReloading");
    EXPECT_GE(reloading, 0);
    EXPECT_LT(reloading, kLockMs);
    EXPECT_GE(run.when("view 5"), 0);
    EXPECT_LT(run.when("view 5"), kLockMs);
    EXPECT_GT(run.when("filter on"), kLockMs);
    EXPECT_TRUE(run.saw("page-reload"));
    const auto normal = std::find_if(run.lines.begin(), run.lines.end(), [](const auto& line) {
        return line.second == "image ToolbarItemIcon";
    });
    if (normal == run.lines.end()) {
        EXPECT_EQ(expect("image "), "image ToolbarItemIcon");
    }
    EXPECT_EQ(server_.requests("/"), 1);
    EXPECT_EQ(blockListEntries("127.0.0.1"), std::make_pair(1, 1));
}

TEST_F(BrowserFaultTest, AFloodOfPickerMessagesIsDroppedAndThePopoverStaysResponsive) {
    startBrowser(server_.url("/"));
    // From its own world a page reaches neither the picker nor its handler.
    browser_->send("js typeof (window.webkit && window.webkit.messageHandlers.stonewall)");
    EXPECT_EQ(expect("js"), "js \"undefined\"");
    browser_->send("popup");
    expect("view 1");
    const long residentBefore = residentKiB(browser_->pid());

    // Each of these makes the extension read both databases.
    browser_->send(
        "js-picker (() => { const h = window.webkit.messageHandlers.stonewall; "
        "const start = performance.now(); "
        "for (let i = 0; i < 100000; ++i) h.postMessage({name: 'VisualStatus', "
        "userInfo: {status: 0}}); return Math.round(performance.now() - start); })()");
    auto run = browser_->drivePinging(
        [](const std::string& line) { return line.starts_with("js "); }, 60s, [](double) {});
    ASSERT_TRUE(run.finished) << browser_->transcript();
    const auto settled =
        browser_->drivePinging([](const std::string&) { return false; }, 1s, [](double) {});
    run.longest = std::max(run.longest, settled.longest);
    // As fast as a page can post them: WebKit's own cost per message holds
    // a page to about 50,000 a second on this machine.
    std::cout << "posted in " << run.lines.back().second.substr(3) << " ms\n";
    EXPECT_LT(run.longest, kAnswersWithin);
    EXPECT_GE(state()["messagesDropped"], 99000);

    // The popover answers a press at once, and nothing queued takes it back.
    browser_->send("press blockButton");
    expect("view 4", 2s);
    const auto after =
        browser_->drivePinging([](const std::string&) { return false; }, 1s, [](double) {});
    EXPECT_FALSE(after.saw("view ")) << browser_->transcript();
    EXPECT_EQ(state()["view"], 4);
    if (kResidentMemoryMeans) {
        EXPECT_LT(residentKiB(browser_->pid()) - residentBefore, kMemoryGrowthLimitKiB);
    }
}

TEST_F(BrowserFaultTest, TenThousandBlockedLoadsKeepMemoryBoundedAndThePopoverResponsive) {
    blockTheAdsAndCompile();
    startBrowser(server_.url("/"));
    const long residentBefore = residentKiB(browser_->pid());
    browser_->send("load " + server_.url("/flood"));
    const auto run = browser_->drivePinging(
        [](const std::string& line) { return line == "badge 10000"; }, 60s, [](double) {});
    ASSERT_TRUE(run.finished) << browser_->transcript().substr(0, 2000);
    EXPECT_LT(run.longest, kAnswersWithin);
    int badges = 0;
    for (const auto& [at, line] : run.lines) badges += line.starts_with("badge ");
    // The badge follows the reports at most once a frame (and at the page's
    // start and finish), not once a load or once a batch of the web process.
    const double elapsedMs = run.lines.back().first;
    EXPECT_LE(badges, 3 + elapsedMs * 60 / 1000) << elapsedMs << " ms";
    EXPECT_EQ(server_.requests("/ads/banner.png"), 0);
    browser_->send("popup");
    expect("view 1", 2s);
    EXPECT_EQ(state()["blocked"], 10000);
    if (kResidentMemoryMeans) {
        EXPECT_LT(residentKiB(browser_->pid()) - residentBefore, kMemoryGrowthLimitKiB);
    }
}

// An X display of its own for a second browser: a popover closes when its
// window loses the focus, as one browser's window would take it from the
// other's on a shared display.
class SecondDisplay {
  public:
    SecondDisplay() {
        int ready[2];
        if (::pipe(ready) != 0) return;
        const std::string fd = std::to_string(ready[1]);
        const char* argv[] = {"Xvfb",         "-displayfd", fd.c_str(), "-screen", "0",
                              "1280x1024x24", "-nolisten",  "tcp",      nullptr};
        if (::posix_spawnp(&pid_, "Xvfb", nullptr, nullptr, const_cast<char**>(argv), environ) !=
            0) {
            pid_ = -1;
        }
        ::close(ready[1]);
        pollfd wait{ready[0], POLLIN, 0};
        char number[16] = {};
        if (pid_ > 0 && ::poll(&wait, 1, 10000) > 0 && ::read(ready[0], number, 15) > 0) {
            name_ = ":" + std::to_string(std::atoi(number));
        }
        ::close(ready[0]);
    }
    ~SecondDisplay() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    // Empty when Xvfb could not be started.
    const std::string& name() const { return name_; }

  private:
    pid_t pid_ = -1;
    std::string name_;
};

// Blocks each host from the popover of `browser`: load, popup, Block, confirm.
void blockFromPopover(BrowserProcess& browser, const std::vector<std::string>& hosts) {
    for (const std::string& host : hosts) {
        const std::string url = "http://" + host + "/";
        for (const auto& [command, event] : std::vector<std::pair<std::string, std::string>>{
                 {"load " + url, "loaded " + url},
                 {"popup", "view 1"},
                 {"press blockButton", "view 4"},
                 {"press websiteDoneButton", "page-reload"},
                 {"", "loaded"}}) {
            if (!command.empty()) browser.send(command);
            if (!browser.waitFor(event, 60s)) {
                ADD_FAILURE() << host << ": no \"" << event << "\"; the browser said:\n"
                              << browser.transcript();
                return;
            }
        }
        // The blocked document's error page loads after it; a navigation
        // sent before that would be cut short by it.
        (void)browser.waitFor("loaded", 2s);
    }
}

TEST_F(BrowserFaultTest, TwoBrowsersAndTheCommandBlockFiftyWebsitesAtOnceAndLoseNone) {
    // Fifty websites, all served here: the browsers reach them through this
    // server as their HTTP proxy, so no name is ever looked up.
    std::map<std::string, std::pair<std::string, std::string>> pages;
    std::vector<std::string> hosts;
    for (int i = 0; i < 50; ++i) {
        hosts.push_back("site" + std::to_string(i) + ".test");
        pages["http://" + hosts.back() + "/"] = {"text/html", "<!doctype html><p>" + hosts.back()};
    }
    HttpServer proxy(pages);
    // The block list has its one list rule from here on: every website
    // joins it, each change reading the rule and writing it back, so that
    // two programs writing at once would lose one of their hosts.
    runOK({"block", "http://seed.test/"});
    ASSERT_EQ(sharedValue("domainStatus"), "1,-1,-1");
    auto env = browserEnvironment();
    env["http_proxy"] = proxy.url("/");
    env["no_proxy"] = "";
    const SecondDisplay display;
    ASSERT_FALSE(display.name().empty()) << "Xvfb did not start";
    std::deque<BrowserProcess> browsers;
    for (int i = 0; i < 2; ++i) {
        if (i == 1) env["DISPLAY"] = display.name();
        browsers.emplace_back(STONEWALL_BROWSER_BINARY,
                              std::vector<std::string>{"--control", "about:blank"}, env);
        ASSERT_TRUE(browsers.back().waitFor("loaded about:blank", 60s))
            << browsers.back().transcript();
    }

    // Twenty websites from each browser's popover and ten from the command,
    // all at the same time.
    std::thread first(blockFromPopover, std::ref(browsers[0]),
                      std::vector<std::string>(hosts.begin(), hosts.begin() + 20));
    std::thread second(blockFromPopover, std::ref(browsers[1]),
                       std::vector<std::string>(hosts.begin() + 20, hosts.begin() + 40));
    for (int i = 40; i < 50; ++i) runOK({"block", "http://" + hosts[i] + "/"});
    first.join();
    second.join();

    const std::string list = readFile(ruleFile());
    EXPECT_EQ(tool::testing::sqlQuery(profileDatabase(),
                                      "SELECT COUNT(*) FROM ProfileRules WHERE action = 5")
                  .at(0)
                  .at(0),
              "1");
    for (const std::string& host : hosts) {
        EXPECT_EQ(blockListEntries(host), std::make_pair(1, 1)) << host;
        // As the list writes it: "site1\\.test" in a JSON string.
        std::string pattern = host;
        pattern.replace(pattern.find('.'), 1, "\\\\.");
        EXPECT_NE(list.find(pattern), std::string::npos) << host << " is not in the compiled list";
    }
    // A change made elsewhere reaches a browser once its write has settled
    // (the browser waits out a burst of file events before it reloads).
    std::this_thread::sleep_for(1s);
    // Each browser applies the list as the last change left it: what the
    // other browser and the command blocked is blocked here too.
    for (auto& [browser, blockedElsewhere] :
         std::vector<std::pair<BrowserProcess*, std::vector<std::string>>>{
             {&browsers[0], {hosts[25], hosts[39], hosts[45], hosts[49]}},
             {&browsers[1], {hosts[0], hosts[19], hosts[40], hosts[49]}}}) {
        for (const std::string& host : blockedElsewhere) {
            const std::string url = "http://" + host + "/";
            const int before = proxy.requests(url);
            browser->send("load " + url);
            EXPECT_TRUE(browser->waitFor("loaded " + url, 30s)) << browser->transcript();
            EXPECT_EQ(proxy.requests(url), before) << host << " was loaded";
        }
    }
}

}  // namespace
}  // namespace stonewall::browser::testing
