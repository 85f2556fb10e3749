// Timings of the real browser under a virtual display (run it through
// scripts/with-display): the popover's first frame after a click on the
// toolbar button, a blocked-load report to the badge's frame, and page loads
// with a 50000-rule list applied against the same loads with none, and the
// time from confirming "Secure" in the popover until the new filters are in
// place for the next load.
//
//   scripts/with-display build/default/bench/browser/browser_timing [ROUNDS] [LIST]
//
// With LIST (an adblock filter list, e.g. EasyList from scripts/fetch-lists)
// the profile is that list as `stonewall profile import` makes it, instead
// of 50000 generated rules.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "BrowserBench.h"
#include "ProfileGenerator.h"
#include "engine/CompanionController.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxServices.h"
#include "storage/ProfileDatabase.h"

namespace {

namespace fs = std::filesystem;
using namespace stonewall::browser::testing;

constexpr const char* kNewsPage = R"(<!doctype html><title>News</title>
<h1>Daily News</h1><div id="banner">Subscribe</div>
<img src="/ads/banner.svg" width="100" height="50"><script src="/tracker.js"></script>
<p>Article text.</p>)";
constexpr const char* kOneAdPage = R"(<!doctype html><title>Other</title>
<img src="/ads/banner.svg" width="100" height="50">)";

double timingOf(const std::string& line) {
    return std::atof(line.substr(line.rfind(' ') + 1).c_str());
}

struct Series {
    std::vector<double> values;
    double median() {
        if (values.empty()) return 0;
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }
    double max() const {
        return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
    }
};

// Loads `url` and answers its page-load timing.
double loadPage(BrowserProcess& browser, const std::string& url) {
    // A load that a reload of the browser's own (after a status change)
    // cancels never finishes: ask again.
    std::optional<std::string> line;
    for (int attempt = 0; attempt < 3 && !line; ++attempt) {
        browser.send("load " + url);
        line = browser.waitFor("timing page-load", std::chrono::seconds(10));
    }
    if (!line)
        std::exit((std::fprintf(stderr, "no page load:\n%s", browser.transcript().c_str()), 1));
    return timingOf(*line);
}

// Loads the page `rounds` times; fills page-load timings. With `badges`, a
// page with another count of blocked loads comes between (the badge shows a
// page's count, and only a new count paints a new frame) and the badge
// timings of both are taken.
void measureLoads(BrowserProcess& browser, const std::string& url, int rounds, Series& loads,
                  Series* badges = nullptr, const std::string& between = {}) {
    const auto takeBadge = [&] {
        if (auto badge = browser.waitFor("timing badge-shown", std::chrono::seconds(5))) {
            badges->values.push_back(timingOf(*badge));
        }
    };
    for (int i = 0; i < rounds + 1; ++i) {
        if (badges) {
            loadPage(browser, between);
            takeBadge();
        }
        const double load = loadPage(browser, url);
        if (i > 0) loads.values.push_back(load);  // the first warms the caches
        if (badges) takeBadge();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 20;
    std::signal(SIGPIPE, SIG_IGN);
    if (!std::getenv("DISPLAY")) {
        std::fprintf(stderr,
                     "browser_timing needs a display: run it through scripts/with-display\n");
        return 1;
    }
    const fs::path root =
        fs::temp_directory_path() / ("stonewall-timing-" + std::to_string(getpid()));
    const auto env = benchEnvironment(root);
    HttpServer server(
        {{"/", {"text/html", kNewsPage}},
         {"/one", {"text/html", kOneAdPage}},
         {"/tracker.js", {"text/javascript", "window.tracked = 1;"}},
         {"/ads/banner.svg", {"image/svg+xml", "<svg xmlns='http://www.w3.org/2000/svg'/>"}}});

    // The default profile: 50000 generated rules, and the two that block the
    // page's ad and tracker, compiled into the content-filter store.
    runStonewall(env, "info");
    const char* list = argc > 2 ? argv[2] : nullptr;
    if (list) {
        if (runStonewall(env, std::string("profile import defaultProfile '") + list + "'") != 0) {
            std::fprintf(stderr, "stonewall profile import %s failed\n", list);
            return 1;
        }
    }
    if (!list) {
        stonewall::platform::gnulinux::LinuxOptions options;
        options.containerPath = (root / "container").string();
        options.resourcePath = STONEWALL_BUILD_RESOURCES;
        stonewall::platform::ScopedServices services(
            stonewall::platform::gnulinux::makeLinuxServices(options));
        auto database =
            stonewall::ProfileDatabase::initWithBlockerProfileID(std::string("defaultProfile"));
        // Generated rules up to the cap with the two of ours, none of the
        // website lists: the first row of such an action is the user's list,
        // and the rounds below secure the website in it.
        std::vector<stonewall::ProfileRule> ours(2);
        stonewall::ProfileGenerator generator;
        for (size_t left = stonewall::kMaximumRuleCount - ours.size(); left > 0;) {
            auto rules = generator.generate(std::min<size_t>(left, 10000));
            std::erase_if(rules, [](const stonewall::ProfileRule& rule) {
                return rule.action == stonewall::ActionCode::kBlockWebsite ||
                       rule.action == stonewall::ActionCode::kAllowWebsite ||
                       rule.action == stonewall::ActionCode::kSecureWebsite;
            });
            left -= rules.size();
            database->addProfileRules(rules);
        }
        ours[0].ruleID = "timing-ad";
        ours[0].filter = "ads/banner\\.svg";
        ours[1].ruleID = "timing-tracker";
        ours[1].filter = "tracker\\.js";
        for (auto& rule : ours) {
            rule.blocker = 1;
            rule.action = 1;
        }
        database->addProfileRules(ours);
    }
    if (runStonewall(env, "compile") != 0) {
        std::fprintf(stderr, "stonewall compile failed\n");
        return 1;
    }

    Series popovers, badges, filtered, unfiltered, actions;
    {
        BrowserProcess browser(STONEWALL_BROWSER_BINARY, {"--control", server.url("/")}, env);
        if (!browser.waitFor("loaded", std::chrono::seconds(120))) {
            std::fprintf(stderr, "the browser did not start (sandbox %s):\n%s", root.c_str(),
                         browser.transcript().c_str());
            return 1;
        }
        for (int i = 0; i < rounds + 1; ++i) {
            browser.send("popup");
            const auto line = browser.waitFor("timing popover-shown");
            if (line && i > 0) popovers.values.push_back(timingOf(*line));
            browser.send("popdown");
            browser.waitFor("popover-closed");
        }
        measureLoads(browser, server.url("/"), rounds, filtered, &badges, server.url("/one"));
        // Secure the website from the popover, then take it off the list
        // from the command, so that every round changes the rule list.
        for (int i = 0; i < rounds; ++i) {
            browser.send("popup");
            browser.waitFor("view 1");
            browser.send("press secureButton");
            browser.waitFor("view 4");
            const auto start = std::chrono::steady_clock::now();
            browser.send("press websiteDoneButton");
            // The first round compiles the whole list (20 s here).
            if (!browser.waitFor("filter on", std::chrono::seconds(120))) break;
            actions.values.push_back(
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count());
            browser.waitFor("loaded", std::chrono::seconds(10));
            runStonewall(env, "unsecure '" + server.url("/") + "'");
        }
    }
    runStonewall(env, "status off");
    {
        BrowserProcess browser(STONEWALL_BROWSER_BINARY, {"--control", server.url("/")}, env);
        browser.waitFor("loaded");
        measureLoads(browser, server.url("/"), rounds, unfiltered);
    }
    fs::remove_all(root);

    std::printf("popover shown after click:      median %6.2f ms, max %6.2f ms (%zu rounds)\n",
                popovers.median(), popovers.max(), popovers.values.size());
    std::printf("blocked load to badge frame:    median %6.2f ms, max %6.2f ms (%zu reports)\n",
                badges.median(), badges.max(), badges.values.size());
    std::printf("secure to filters in place:     median %6.2f ms, max %6.2f ms (%zu rounds)\n",
                actions.median(), actions.max(), actions.values.size());
    std::printf("page load, 50000-rule list:     median %6.2f ms\n", filtered.median());
    std::printf("page load, no list:             median %6.2f ms\n", unfiltered.median());
    std::printf(
        "slowdown with the list:         %+.1f %%\n",
        unfiltered.median() > 0 ? (filtered.median() / unfiltered.median() - 1) * 100 : 0.0);
    return 0;
}
