// The principal handler on the simulated browser: page messages, the reload
// outcome rule, toolbar validation, the badge and navigation. The typical
// requests end to end are the real browser's tests (tests/browser).

#include <gmock/gmock.h>

#include <functional>

#include "FrontTestSupport.h"
#include "extension/SafariExtensionHandler.h"

namespace stonewall::testing {
namespace {

using Json = nlohmann::json;

// Picked on a page that claims to be another site.
Json element(const std::string& tag, const std::string& selector) {
    return Json::array({"evil.example", tag, selector, "", "", "body", "body", "", ""});
}

class HandlerTest : public FrontTest {};

TEST_F(HandlerTest, VisualDataNeedsElementsAndTakesTheDomainFromThePage) {
    const Json userInfos[] = {
        Json::object(), {{"data", Json::array()}}, {{"data", "text"}}, Json()};
    auto page = openPopoverOn(kPageURL);
    const size_t imagesBefore = browser->toolbarItem()->images.size();
    for (const Json& userInfo : userInfos) {
        SCOPED_TRACE(userInfo.dump());
        browser->deliverMessage("VisualData", page, userInfo);
        finish();
        EXPECT_EQ(browser->toolbarItem()->images.size(), imagesBefore);
        EXPECT_TRUE(platform.contentBlocker->calls().empty());
    }
    browser->deliverMessage("visualdata", page, {{"data", Json::array({element("div", "#x")})}});
    finish();
    EXPECT_TRUE(platform.contentBlocker->calls().empty());
    EXPECT_TRUE(platform.log->contains("message (visualdata)"));

    browser->deliverMessage("VisualData", page, {{"data", Json::array({element("div", "#x")})}});
    finish();
    const auto rules = SharedDatabase::sharedInstance().getSharedCustomRules();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0].domains, "www.example.com");
    EXPECT_EQ(page->reloadCount(), 1);
}

TEST_F(HandlerTest, VisualStatusPicksTheView) {
    struct Case {
        Json userInfo;
        bool reloading;
        int64_t view;
    };
    const Case cases[] = {
        {{{"status", 1}}, false, 2},     {{{"status", 0}}, false, 1},
        {Json::object(), false, 1},      {{{"status", 256}}, false, 1},
        {{{"status", -255}}, false, 2},  {{{"status", "1"}}, false, 2},
        {{{"status", 1.9}}, false, 2},   {{{"status", true}}, false, 2},
        {{{"status", 1e300}}, false, 1}, {{{"status", Json::array({1})}}, false, 1},
        {{{"status", 0}}, true, 5},      {{{"status", 1}}, true, 2},
    };
    auto page = openPopoverOn(kPageURL);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.userInfo.dump() + (c.reloading ? " reloading" : ""));
        controller().changeToolbarImage(c.reloading ? ToolbarImage::Reloading
                                                    : ToolbarImage::Normal);
        run();
        browser->deliverMessage("VisualStatus", page, c.userInfo);
        run();
        EXPECT_EQ(popover()->visibleStack(), c.view);
    }
}

TEST_F(HandlerTest, ReloadOutcomeByServicesLevelAndAction) {
    using Act = std::function<void(HandlerTest&, SimulatedPage&)>;
    using C = SafariExtensionViewController;
    const auto confirm = [](void (C::*action)()) {
        return Act([action](HandlerTest& t, SimulatedPage&) {
            (t.controller().*action)();
            t.controller().websiteDoneAction();
        });
    };
    const Act block = confirm(&C::blockWebsiteAction);
    const Act secure = confirm(&C::secureWebsiteAction);
    const Act allow = confirm(&C::whitelistWebsiteAction);
    const Act status = [](HandlerTest& t, SimulatedPage&) { t.controller().changeStatusAction(); };
    const Act visual = [](HandlerTest& t, SimulatedPage& page) {
        t.browser->deliverMessage("VisualData", page.shared_from_this(),
                                  {{"data", Json::array({element("div", "#x")})}});
    };
    const Act activate = [](HandlerTest& t, SimulatedPage&) {
        t.storeTwoProfiles();
        t.controller().showExtensionView(ExtensionView::Main, C::Animated::No);
        t.controller().changeActiveProfile();
        t.popover()->popup()->selectItemAtIndex(1);
        t.controller().profileDoneAction();
    };
    struct Case {
        const char* name;
        int64_t servicesVersion;
        bool error;
        Act act;
        std::vector<std::string> opened;
        int reloads;
    };
    const Case cases[] = {
        {"block, level 2, error", 2, true, block, {}, 1},
        {"block, below level 2, error", 1, true, block, {"stonewall://blockwebsite"}, 0},
        {"block, below level 2, no error", 1, false, block, {}, 1},
        {"secure, below level 2, error", 1, true, secure, {"stonewall://securewebsite"}, 0},
        {"allow, level 6, error", 6, true, allow, {"stonewall://whitelistwebsite"}, 0},
        {"allow, below level 2, no error", 1, false, allow, {}, 1},
        {"status, below level 2, error", 1, true, status, {"stonewall://status"}, 0},
        {"status, level 6, error", 6, true, status, {}, 1},
        {"picking, below level 2, error", 1, true, visual, {"stonewall://visual"}, 0},
        {"profile, below level 2, error", 1, true, activate, {"stonewall://activate"}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        platform.host->setSafariServicesVersion(c.servicesVersion);
        const Error failure{"WKErrorDomain", 6, "rule list failed to compile"};
        platform.contentBlocker->scriptResults(
            {c.error ? std::optional<Error>(failure) : std::nullopt,
             c.error ? std::optional<Error>(failure) : std::nullopt});
        const size_t openedBefore = browser->workspace()->openedURLs().size();
        auto page = openPopoverOn(kPageURL);
        c.act(*this, *page);
        finish();
        const auto opened = browser->workspace()->openedURLs();
        EXPECT_EQ(std::vector<std::string>(opened.begin() + static_cast<long>(openedBefore),
                                           opened.end()),
                  c.opened);
        EXPECT_EQ(page->reloadCount(), c.reloads);
        EXPECT_FALSE(controller().reloading());
    }
}

TEST_F(HandlerTest, OpenStonewallOpensTheAppAndKeepsThePopover) {
    openPopoverOn(kPageURL);
    popover()->row("appButton")->mouseUp({5, 5});
    platform.dispatch->advanceBy(std::chrono::milliseconds(240));
    EXPECT_EQ(browser->workspace()->openedURLs(), std::vector<std::string>{"stonewall://open"});
    EXPECT_TRUE(controller().popoverVisible());
}

TEST_F(HandlerTest, ToolbarValidationConsumesTheReloadRequest) {
    struct Case {
        int64_t reload, status;
        bool statusUpdated;
        int pageReloads;
        bool statusUpdatedAfter;
        const char* image;
    };
    const Case cases[] = {
        {0, 1, false, 0, false, "ToolbarItemIcon"},  {1, 1, false, 1, false, "ToolbarItemIcon"},
        {1, 1, true, 1, true, "ToolbarItemIcon"},    {1, 0, false, 1, true, "ToolbarItemIconOff"},
        {1, 0, true, 0, true, "ToolbarItemIconOff"}, {0, 0, false, 0, false, "ToolbarItemIconOff"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "reload " << c.reload << " status " << c.status
                                          << " statusUpdated " << c.statusUpdated);
        reset();
        auto page = browser->openWindow(kPageURL);
        SharedDatabase::sharedInstance().updateSharedDataDetails(
            {.status = c.status, .reload = c.reload});
        controller().extensionState()->setStatusUpdated(c.statusUpdated);
        browser->validateToolbar();
        run();
        EXPECT_EQ(page->reloadCount(), c.pageReloads);
        EXPECT_EQ(SharedDatabase::sharedInstance().getSharedData()->reload, 0);
        EXPECT_EQ(controller().extensionState()->statusUpdated(), c.statusUpdatedAfter);
        EXPECT_EQ(browser->toolbarItem()->images.back(), c.image);
        EXPECT_EQ(browser->validations().back(), (Validation{true, std::nullopt}));
    }
}

TEST_F(HandlerTest, BadgeCountsAndTheCounterGate) {
    struct Case {
        int64_t servicesVersion;
        bool counter;
        int blocked;
        std::optional<std::string> badge;
        size_t pagesKept;  // of 25 closed pages recorded beside the active one
    };
    const Case cases[] = {
        {6, true, 12, "12", 1},
        {6, true, 0, std::nullopt, 1},
        {6, false, 12, std::nullopt, 1},
        {4, true, 12, std::nullopt, 26},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "level " << c.servicesVersion << " counter "
                                          << c.counter << " blocked " << c.blocked);
        reset();
        platform.host->setSafariServicesVersion(c.servicesVersion);
        auto page = browser->openWindow(kPageURL);
        controller().extensionState()->setBlockingCounter(c.counter);
        for (int i = 0; i < 25; ++i) {
            auto closed = std::make_shared<SimulatedPage>(browser, 1000 + i, std::nullopt);
            controller().blockingStatController().addURLsForPage({"https://t.example/p"}, closed);
        }
        std::vector<std::string> urls;
        for (int i = 0; i < c.blocked; ++i)
            urls.push_back("https://ads.example/" + std::to_string(i));
        browser->reportBlocked(page, urls);
        run();
        browser->validateToolbar();
        run();
        ASSERT_FALSE(browser->validations().empty());
        EXPECT_EQ(browser->validations().back(), (Validation{true, c.badge}));
        EXPECT_EQ(controller().blockingStatController().pageCount(), c.pagesKept);
    }
}

// A browser that hands the page's URL, shown state and toolbar item with a
// blocked-load report has the badge set directly, by the same gate as the
// asked path: counter on, a document loaded, the page shown.
TEST_F(HandlerTest, ReportsWithThePageAtHandSetTheBadgeDirectly) {
    struct Case {
        const char* label;
        bool counter;
        NullableString url;
        bool shown;
        bool hasItem;
        bool badgeSet;
    };
    const Case cases[] = {
        {"shown page", true, kPageURL, true, true, true},
        {"counter off", false, kPageURL, true, true, false},
        {"page in a tab not shown", true, kPageURL, false, true, false},
        {"no document yet", true, std::nullopt, true, true, false},
        {"window without the item", true, kPageURL, true, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        reset();
        platform.host->setSafariServicesVersion(6);
        auto page = browser->openWindow(kPageURL);
        controller().extensionState()->setBlockingCounter(c.counter);
        auto item = std::make_shared<SimulatedToolbarItem>();
        SafariExtensionHandler().contentBlockerWithIdentifier(
            "blocker", {"https://ads.example/a", "https://ads.example/b"},
            PageEvent{page, SFSafariPageProperties{c.url, c.shown}, c.hasItem ? item : nullptr});
        run();
        // Counted whatever the badge shows.
        EXPECT_EQ(controller().blockingStatController().URLsCountForPage(page), 2);
        EXPECT_EQ(item->badges, c.badgeSet ? std::vector<std::optional<std::string>>{"2"}
                                           : std::vector<std::optional<std::string>>{});
        // Nothing asked of the browser's own item on this path.
        EXPECT_TRUE(browser->toolbarItem()->badges.empty());
    }
}

// Leaving a loaded page drops its counts (the real browser's badge test);
// these are the cases without a page to leave or one to go to.
TEST_F(HandlerTest, NavigationKeepsCountsWithoutALoadedPageOnEitherSide) {
    const NullableString loaded = "https://www.example.com/";
    for (const auto& [from, to] :
         {std::pair(NullableString(), loaded), std::pair(loaded, NullableString())}) {
        SCOPED_TRACE(from.value_or("(none)") + " -> " + to.value_or("(none)"));
        reset();
        auto page = browser->openWindow(from);
        browser->reportBlocked(page, {"https://ads.example/a", "https://ads.example/b"});
        browser->navigate(page, to);
        run();
        EXPECT_EQ(controller().blockingStatController().URLsCountForPage(page), 2);
    }
}

TEST_F(HandlerTest, MissingSharedRecordIsRepairedOnValidation) {
    browser->openWindow(kPageURL);
    controller();
    SharedDatabase::sharedInstance().close();
    std::filesystem::remove(SharedDatabase::sharedInstance().dataPath());
    browser->validateToolbar();
    run();
    ASSERT_TRUE(controller().companionController().sharedData().has_value());
    EXPECT_EQ(browser->toolbarItem()->images.back(), "ToolbarItemIcon");
    EXPECT_EQ(browser->validations().back(), (Validation{true, std::nullopt}));
}

}  // namespace
}  // namespace stonewall::testing
