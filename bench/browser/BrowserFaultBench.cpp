// How long the real browser's main loop takes to answer while things go
// wrong (run it through scripts/with-display):
//
//   scripts/with-display build/default/bench/browser/browser_faults [LOCK_SECONDS]
//
// - the profile database held by another program (BEGIN EXCLUSIVE) for
//   LOCK_SECONDS (default 10) while "Block" is confirmed in the popover: the
//   longest answer to a ping sent every 10 ms, and when the outcome came;
// - a page that posts 100,000 messages through the picker's world;
// - a page that has 10,000 of its loads blocked.
//
// Each line gives the longest answer against the 100 ms floor, the number of
// pings answered, and the growth of the browser's resident memory.

#include <sqlite3.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "BrowserBench.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace stonewall::browser::testing;

constexpr double kFloorMs = 100;

constexpr const char* kPage = R"(<!doctype html><title>News</title><h1>Daily News</h1>
<img src="/ads/banner.svg" width="100" height="50">)";

bool report(const char* what, const BrowserProcess::PingRun& run, long grownKiB,
            const std::string& extra) {
    const double longest = run.longest.count();
    const bool ok = longest <= kFloorMs;
    std::printf("%-34s longest answer %7.1f ms (floor %.0f ms) %s, %d pings, memory %+ld KiB%s\n",
                what, longest, kFloorMs, ok ? "ok  " : "SLOW", run.answered, grownKiB,
                extra.c_str());
    return ok;
}

void fail(const BrowserProcess& browser, const char* what) {
    std::fprintf(stderr, "%s; the browser said:\n%s", what, browser.transcript().c_str());
    std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    const double lockSeconds = argc > 1 ? std::atof(argv[1]) : 10;
    std::signal(SIGPIPE, SIG_IGN);
    if (!std::getenv("DISPLAY")) {
        std::fprintf(stderr,
                     "browser_faults needs a display: run it through scripts/with-display\n");
        return 1;
    }
    const fs::path root =
        fs::temp_directory_path() / ("stonewall-faults-" + std::to_string(getpid()));
    auto env = benchEnvironment(root);
    env["GSK_RENDERER"] = "cairo";
    HttpServer server(
        {{"/", {"text/html", kPage}},
         {"/flood", {"text/html", floodPage("/ads/banner.svg")}},
         {"/ads/banner.svg", {"image/svg+xml", "<svg xmlns='http://www.w3.org/2000/svg'/>"}}});
    runStonewall(env, "info");
    const fs::path profile = root / "container" / ".Profiles" / "profile_defaultProfile_data";
    {
        sqlite3* database = nullptr;
        sqlite3_open(profile.c_str(), &database);
        sqlite3_exec(database,
                     "INSERT INTO ProfileRules VALUES "
                     "('bench-ad', 1, 1, NULL, 'ads/banner\\.svg', NULL, NULL, -1, NULL, 0)",
                     nullptr, nullptr, nullptr);
        sqlite3_close(database);
    }
    runStonewall(env, "compile");

    bool ok = true;
    {
        BrowserProcess browser(STONEWALL_BROWSER_BINARY, {"--control", server.url("/")}, env);
        if (!browser.waitFor("loaded", 120s)) fail(browser, "the browser did not start");
        browser.send("popup");
        if (!browser.waitFor("view 1")) fail(browser, "no popover");
        browser.send("press blockButton");
        if (!browser.waitFor("view 4")) fail(browser, "no confirmation");
        const long before = residentKiB(browser.pid());
        sqlite3* other = nullptr;
        sqlite3_open(profile.c_str(), &other);
        if (sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK)
            fail(browser, "cannot lock the profile database");
        browser.send("press websiteDoneButton");
        bool locked = true;
        const auto run = browser.drivePinging(
            [](const std::string& line) { return line.starts_with("loaded"); },
            std::chrono::milliseconds(static_cast<int>(lockSeconds * 1000) + 60000),
            [&](double elapsed) {
                if (locked && elapsed >= lockSeconds * 1000) {
                    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
                    locked = false;
                }
            },
            10ms);
        sqlite3_close(other);
        char extra[200];
        std::snprintf(extra, sizeof extra,
                      "\n%34s reloading image at %.0f ms (a press flashes for 240 ms before it "
                      "acts), filters applied at %.0f ms",
                      "", run.when("image ToolbarItemIconReloading"), run.when("filter on"));
        char what[64];
        std::snprintf(what, sizeof what, "profile database locked %.0f s", lockSeconds);
        ok &= report(what, run, residentKiB(browser.pid()) - before, extra) && run.finished;
    }
    // The website blocked above loads again for the floods.
    runStonewall(env, "unblock '" + server.url("/") + "'");
    {
        BrowserProcess browser(STONEWALL_BROWSER_BINARY, {"--control", server.url("/")}, env);
        if (!browser.waitFor("loaded", 120s)) fail(browser, "the browser did not start");
        browser.send("popup");
        browser.waitFor("view 1");
        const long before = residentKiB(browser.pid());
        browser.send(
            "js-picker (() => { const h = window.webkit.messageHandlers.stonewall; "
            "const start = performance.now(); for (let i = 0; i < 100000; ++i) "
            "h.postMessage({name: 'VisualStatus', userInfo: {status: 0}}); "
            "return Math.round(performance.now() - start); })()");
        auto run =
            browser.drivePinging([](const std::string& line) { return line.starts_with("js "); },
                                 60s, [](double) {}, 10ms);
        const std::string posted =
            run.finished ? ", posted in " + run.lines.back().second.substr(3) + " ms" : "";
        // And while the browser drops what is still queued.
        const auto settled =
            browser.drivePinging([](const std::string&) { return false; }, 1s, [](double) {}, 10ms);
        run.longest = std::max(run.longest, settled.longest);
        run.answered += settled.answered;
        ok &= report("100,000 picker messages", run, residentKiB(browser.pid()) - before, posted);

        const long loadsBefore = residentKiB(browser.pid());
        browser.send("popdown");
        browser.send("load " + server.url("/flood"));
        const auto loads =
            browser.drivePinging([](const std::string& line) { return line == "badge 10000"; }, 60s,
                                 [](double) {}, 10ms);
        std::string badge = " (the badge never said 10000";
        for (const auto& [at, line] : loads.lines) {
            if (line.starts_with("badge ")) badge = " (the badge never said 10000, last " + line;
        }
        ok &= report("10,000 blocked loads", loads, residentKiB(browser.pid()) - loadsBefore,
                     loads.finished ? "" : badge + ")") &&
              loads.finished;
    }
    std::error_code ignored;
    fs::remove_all(root, ignored);
    return ok ? 0 : 1;
}
