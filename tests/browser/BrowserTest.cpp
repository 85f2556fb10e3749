// The real browser under a private display and bus, against pages served
// here: blocking a website from the popover, picking an element through the
// page script, the blocked-load badge, status off, and the popover's views
// rendered in light and dark.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "BrowserProgramTest.h"

namespace stonewall::browser::testing {
namespace {

namespace fs = std::filesystem;
using tool::testing::readFile;

constexpr const char* kNewsPage = R"(<!doctype html><title>News</title>
<h1>Daily News</h1>
<div id="banner" style="background:#fc0;padding:20px">Subscribe to our letter</div>
<img id="ad" src="/ads/banner.png" width="100" height="50">
<script src="/tracker.js"></script>
<p>Article text.</p>)";
constexpr const char* kPlainPage = "<!doctype html><title>Plain</title><p>Nothing to block.";
// The "ad": a small picture.
constexpr const char* kAdImage =
    R"(<svg xmlns="http://www.w3.org/2000/svg" width="100" height="50"><rect width="100" height="50" fill="red"/></svg>)";

class BrowserTest : public BrowserProgramTest {
  protected:
    BrowserTest()
        : BrowserProgramTest({{"/", {"text/html", kNewsPage}},
                              {"/plain", {"text/html", kPlainPage}},
                              {"/tracker.js", {"text/javascript", "window.tracked = true;"}},
                              {"/ads/banner.png", {"image/svg+xml", kAdImage}}}) {}
};

// Every part the container's store serves is one of the compiled lists kept
// by content: what this browser compiled, the command and other browsers
// reuse instead of compiling it again.
void expectStoreServesCachedParts(const fs::path& container) {
    const fs::path store = container / "Library" / "ContentBlockers";
    size_t parts = 0;
    for (const auto& served : fs::directory_iterator(store)) {
        if (!served.is_regular_file() ||
            served.path().filename().string().rfind("ContentRuleList-", 0) != 0) {
            continue;
        }
        ++parts;
        bool cached = false;
        for (const auto& kept : fs::directory_iterator(store / ".cache")) {
            cached = cached || fs::equivalent(kept.path(), served.path());
        }
        EXPECT_TRUE(cached) << served.path() << " is no compiled list of the cache";
    }
    EXPECT_GT(parts, 0u);
}

TEST_F(BrowserTest, BlockingTheWebsiteFromThePopoverStopsItsLoads) {
    startBrowser(server_.url("/"));
    ASSERT_EQ(server_.requests("/"), 1);
    run({{"popup", "view 1"},
         {"press blockButton", "view 4"},
         {"press websiteDoneButton", "image ToolbarItemIconReloading"},
         {"", "filter on"},
         {"", "page-reload"},
         {"", "loaded"}});
    // The document itself is blocked now: the reload never reached us.
    EXPECT_EQ(server_.requests("/"), 1);
    expectStoreServesCachedParts(container());
}

// Allowing a website recompiles every part of the list; the page's views
// are let through at once, before that compile, and the compiled list then
// takes over with the same verdict.
TEST_F(BrowserTest, AllowingTheWebsiteLetsItsLoadsThroughBeforeTheListIsCompiled) {
    const fs::path list = scratch("ads.txt");
    tool::testing::writeFile(list, "/ads/banner.png\n");
    runOK({"profile", "import", "defaultProfile", list.string()});
    startBrowser(server_.url("/"));
    ASSERT_EQ(server_.requests("/ads/banner.png"), 0);
    run({{"popup", "view 1"},
         {"press whitelistButton", "view 4"},
         {"press websiteDoneButton", "filter allow"},
         {"", "filter on"},
         {"", "page-reload"},
         {"", "loaded"}});
    EXPECT_EQ(server_.requests("/ads/banner.png"), 1);
    // A later reload of the same list lets nothing through early again.
    runOK({"compile"});
    run({{"load " + server_.url("/"), "loaded"}});
    EXPECT_EQ(server_.requests("/ads/banner.png"), 2);
}

TEST_F(BrowserTest, PickedElementBecomesAHideRuleAndDisappears) {
    startBrowser(server_.url("/"));
    // The page's own world sees neither the picker nor its message handler.
    EXPECT_EQ(evaluate("typeof window.__stonewallPicker"), "\"undefined\"");
    EXPECT_EQ(evaluate("String(window.webkit && window.webkit.messageHandlers && "
                       "window.webkit.messageHandlers.stonewall)"),
              "\"undefined\"");
    run({{"popup", "view 1"}, {"press visualBlockButton", "view 2"}});
    evaluate(
        "['mouseover','click'].forEach(t => document.getElementById('banner')"
        ".dispatchEvent(new MouseEvent(t, {bubbles: true}))), 1");
    run({{"press visualDoneButton", "message VisualData"},
         {"", "image ToolbarItemIconReloading"},
         {"", "filter on"},
         {"", "page-reload"},
         {"", "loaded"}});
    EXPECT_EQ(evaluate("getComputedStyle(document.getElementById('banner')).display"), "\"none\"");
    EXPECT_EQ(evaluate("getComputedStyle(document.querySelector('h1')).display"), "\"block\"");
}

TEST_F(BrowserTest, BadgeCountsBlockedLoadsResetsOnNavigationAndStatusOffLoadsAll) {
    // The ad image and the tracker script blocked by the default profile,
    // compiled into the content-filter store by the stonewall command.
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "ads/banner\\.png");
    addProfileRule("defaultProfile", 1, 1, std::nullopt, "tracker\\.js");
    runOK({"compile"});
    startBrowser(server_.url("/"));
    browser_->send("state");
    EXPECT_NE(expect("state").find("\"badge\":\"2\""), std::string::npos);
    EXPECT_EQ(server_.requests("/ads/banner.png"), 0);
    EXPECT_EQ(server_.requests("/tracker.js"), 0);
    // A page's own console.info with the same text counts for nothing.
    evaluate(
        "console.info('Content blocker prevented frame displaying ' + location.href + "
        "' from loading a resource from http://x.test/y.png'), 1");
    run({{"load " + server_.url("/plain"), "badge none"}, {"load " + server_.url("/"), "badge 2"}});
    run({{"popup", "view 1"},
         {"press statusButton", "image ToolbarItemIconReloading"},
         {"", "filter off"},
         {"", "image ToolbarItemIconOff"},
         {"", "page-reload"},
         {"", "loaded"}});
    EXPECT_EQ(server_.requests("/ads/banner.png"), 1);
    EXPECT_EQ(server_.requests("/tracker.js"), 1);
    EXPECT_EQ(evaluate("window.tracked === true"), "true");
}

TEST_F(BrowserTest, SwitchingTheProfileCompilesAndAppliesItsList) {
    addWorkProfile();
    fs::copy_file(fs::path(std::getenv("STONEWALL_RESOURCES")) / "profiles",
                  profileDatabase("work"));
    // Only the work profile blocks the tracker.
    addProfileRule("work", 1, 1, std::nullopt, "tracker\\.js");
    startBrowser(server_.url("/"));
    ASSERT_EQ(server_.requests("/tracker.js"), 1);
    run({{"popup", "view 1"},
         {"press profileButton", "view 3"},
         {"select-profile 1", "done select-profile"},
         {"press profileDoneButton", "image ToolbarItemIconReloading"},
         {"", "filter on"},
         {"", "page-reload"},
         {"", "loaded"}});
    EXPECT_EQ(server_.requests("/tracker.js"), 1);
    EXPECT_EQ(sharedValue("activeProfileID"), "work");
}

// What the control channel cannot do, or does not know, it answers with
// "error COMMAND ARGUMENT", and reads on.
TEST_F(BrowserTest, ControlChannelRefusesUnknownCommandsAndBadArguments) {
    startBrowser(server_.url("/plain"));
    for (const auto& [command, answer] : std::vector<std::pair<std::string, std::string>>{
             {"frobnicate now", "error frobnicate now"},
             {"clipped-labels", "error clipped-labels "},
             {"load", "error load "},
             {"popup now", "error popup now"},
             {"select-tab 1", "error select-tab 1"},
             {"select-tab -1", "error select-tab -1"},
             {"select-tab first", "error select-tab first"},
             {"dark 2", "error dark 2"},
             {"text-scale 0", "error text-scale 0"},
             {"text-scale 1.5x", "error text-scale 1.5x"},
             {"press noSuchOutlet", "error press noSuchOutlet"},
             {"reload-crashed", "error reload-crashed "}}) {
        browser_->send(command);
        EXPECT_EQ(expect("error "), answer) << command;
    }
    run({{"select-tab 0", "done select-tab"}, {"ping 7", "pong 7"}});
}

// Width and height of a PNG file, from its header.
std::pair<int, int> pngSize(const std::string& bytes) {
    if (bytes.size() < 24 || bytes.compare(1, 3, "PNG") != 0) return {0, 0};
    const auto at = [&](size_t i) {
        return (static_cast<unsigned char>(bytes[i]) << 24) |
               (static_cast<unsigned char>(bytes[i + 1]) << 16) |
               (static_cast<unsigned char>(bytes[i + 2]) << 8) |
               static_cast<unsigned char>(bytes[i + 3]);
    };
    return {static_cast<int>(at(16)), static_cast<int>(at(20))};
}

TEST_F(BrowserTest, EveryPopoverViewRendersInLightAndDark) {
    startBrowser(server_.url("/"));
    run({{"popup", "view 1"}});
    std::set<std::string> images;
    for (const char* scheme : {"0", "1"}) {
        run({{std::string("dark ") + scheme, "done dark"}});
        for (int view = 1; view <= 6; ++view) {
            const fs::path file = scratch("view" + std::to_string(view) + "-" + scheme + ".png");
            run({{"show-view " + std::to_string(view), "view " + std::to_string(view)},
                 {"snapshot-popover " + file.string(), "done snapshot-popover"}});
            const std::string bytes = readFile(file);
            const auto [width, height] = pngSize(bytes);
            EXPECT_GE(width, 290) << file;
            EXPECT_GE(height, 396) << file;
            images.insert(bytes);
        }
    }
    // Twelve different pictures: no view looks like another, nor like itself
    // in the other scheme.
    EXPECT_EQ(images.size(), 12u);
    const fs::path window = scratch("window.png");
    run({{"show-view 1", "view 1"},
         {"snapshot-window " + window.string(), "done snapshot-window"}});
    EXPECT_GE(pngSize(readFile(window)).first, 800);
    if (const char* docs = std::getenv("STONEWALL_SCREENSHOT_DIR")) {
        fs::copy_file(window, fs::path(docs) / "browser-popover.png",
                      fs::copy_options::overwrite_existing);
    }
}

}  // namespace
}  // namespace stonewall::browser::testing
