// The popover in other languages: in German (the translation the product
// ships) every label of every view fits, and right to left (Hebrew, whose
// GTK catalogue turns the layout around) as well. With
// STONEWALL_SCREENSHOT_DIR set, the two views are saved there for docs/.

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>

#include "BrowserHarness.h"
#include "ToolTestSupport.h"

namespace stonewall::browser::testing {
namespace {

namespace fs = std::filesystem;

class BrowserLocaleTest : public tool::testing::ToolTest {
  protected:
    void SetUp() override {
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
            FAIL() << "No display: run the browser tests through scripts/with-display.";
        }
        createContainer();
    }

    // Starts the browser under `locale`; false (and the test skipped) when
    // the system lacks it.
    bool startBrowser(const std::string& locale, const std::string& language) {
        const std::string saved = std::setlocale(LC_ALL, nullptr);
        const bool available = std::setlocale(LC_ALL, locale.c_str()) != nullptr;
        std::setlocale(LC_ALL, saved.c_str());
        if (!available) return false;
        const fs::path root = runner().root();
        browser_.emplace(
            STONEWALL_BROWSER_BINARY, std::vector<std::string>{"--control", server_.url("/")},
            std::map<std::string, std::string>{{"HOME", (root / "home").string()},
                                               {"XDG_DATA_HOME", (root / "data").string()},
                                               {"XDG_CONFIG_HOME", (root / "config").string()},
                                               {"XDG_CACHE_HOME", (root / "cache").string()},
                                               {"STONEWALL_CONTAINER", container().string()},
                                               {"GSK_RENDERER", "cairo"},
                                               {"LC_ALL", ""},
                                               {"LANG", locale},
                                               {"LANGUAGE", language},
                                               {"ASAN_OPTIONS", "detect_leaks=0"}});
        expect("ready");
        expect("loaded ");
        return true;
    }

    std::string expect(const std::string& prefix) {
        auto line = browser_->waitFor(prefix);
        if (!line) {
            ADD_FAILURE() << "no \"" << prefix << "\"; the browser said:\n"
                          << browser_->transcript();
            return {};
        }
        return *line;
    }

    // Every view: the labels that are cut, by view.
    std::string clippedLabelsOfEveryView() {
        std::string clipped;
        browser_->send("popup");
        expect("view 1");
        for (int view = 1; view <= 6; ++view) {
            browser_->send("show-view " + std::to_string(view));
            expect("view " + std::to_string(view));
            browser_->send("clipped-labels");
            const std::string line = expect("clipped-labels ");
            if (line != "clipped-labels []")
                clipped += "view " + std::to_string(view) + ": " + line;
        }
        return clipped;
    }

    void saveScreenshot(const std::string& name) {
        const char* docs = std::getenv("STONEWALL_SCREENSHOT_DIR");
        if (!docs) return;
        browser_->send("show-view 1");
        expect("view 1");
        browser_->send("snapshot-window " + (fs::path(docs) / name).string());
        expect("done snapshot-window");
    }

    HttpServer server_{{{"/", {"text/html", "<!doctype html><title>News</title><h1>News</h1>"}}}};
    std::optional<BrowserProcess> browser_;
};

TEST_F(BrowserLocaleTest, GermanPopoverShowsEveryLabelWhole) {
    if (!startBrowser("de_DE.UTF-8", "de")) {
        GTEST_SKIP() << "the de_DE.UTF-8 locale is missing (scripts/setup makes it)";
    }
    EXPECT_EQ(clippedLabelsOfEveryView(), "");
    browser_->send("show-view 1");
    expect("view 1");
    browser_->send("state");
    const std::string state = expect("state ");
    EXPECT_NE(state.find("blockieren"), std::string::npos) << "not in German: " << state;
    saveScreenshot("browser-popover-de.png");
}

TEST_F(BrowserLocaleTest, RightToLeftPopoverShowsEveryLabelWhole) {
    if (!startBrowser("he_IL.UTF-8", "he")) {
        GTEST_SKIP() << "the he_IL.UTF-8 locale is missing (scripts/setup makes it)";
    }
    EXPECT_EQ(clippedLabelsOfEveryView(), "");
    saveScreenshot("browser-popover-rtl.png");
}

}  // namespace
}  // namespace stonewall::browser::testing
