// The popover in other languages: in German (the translation the product
// ships) every label of every view fits, and right to left (Hebrew, whose
// GTK catalogue turns the layout around) as well. With
// STONEWALL_SCREENSHOT_DIR set, the two views are saved there for docs/.

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>

#include "BrowserProgramTest.h"

namespace stonewall::browser::testing {
namespace {

namespace fs = std::filesystem;

class BrowserLocaleTest : public BrowserProgramTest {
  protected:
    BrowserLocaleTest()
        : BrowserProgramTest(
              {{"/", {"text/html", "<!doctype html><title>News</title><h1>News</h1>"}}}) {}

    // Starts the browser under `locale`; false (and the test skipped) when
    // the system lacks it.
    bool startBrowserIn(const std::string& locale, const std::string& language) {
        const std::string saved = std::setlocale(LC_ALL, nullptr);
        const bool available = std::setlocale(LC_ALL, locale.c_str()) != nullptr;
        std::setlocale(LC_ALL, saved.c_str());
        if (!available) return false;
        startBrowser(server_.url("/"), {{"LC_ALL", ""}, {"LANG", locale}, {"LANGUAGE", language}});
        return true;
    }

    // Every view: the labels that are cut, by view.
    std::string clippedLabelsOfEveryView() {
        std::string clipped;
        browser_->send("popup");
        expect("view 1");
        for (int view = 1; view <= 6; ++view) {
            browser_->send("show-view " + std::to_string(view));
            expect("view " + std::to_string(view));
            browser_->send("clipped");
            const std::string line = expect("clipped ");
            if (line != "clipped 0") clipped += "view " + std::to_string(view) + ": " + line;
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
};

TEST_F(BrowserLocaleTest, GermanPopoverShowsEveryLabelWhole) {
    if (!startBrowserIn("de_DE.UTF-8", "de")) {
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
    if (!startBrowserIn("he_IL.UTF-8", "he")) {
        GTEST_SKIP() << "the he_IL.UTF-8 locale is missing (scripts/setup makes it)";
    }
    EXPECT_EQ(clippedLabelsOfEveryView(), "");
    saveScreenshot("browser-popover-rtl.png");
}

}  // namespace
}  // namespace stonewall::browser::testing
