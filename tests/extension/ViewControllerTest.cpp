// The popover controller on the simulated browser: its view state machine,
// what its buttons say and allow, profile switching and its start-up layout.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <functional>

#include "FrontTestSupport.h"
#include "engine/CompanionController.h"
#include "extension/Palette.h"
#include "model/RuleCodes.h"
#include "storage/SQLiteSupport.h"

namespace stonewall::testing {
namespace {

class ViewControllerTest : public FrontTest {};

using T = ViewControllerTest;
using P = SimulatedPage;
using Step = std::function<void(T&, P&)>;

// One step of the popover's state machine: from the view that `before`
// leads to, `event` happens; `during` is the view right after it (held
// reloads not yet complete), `after` once everything has finished. The
// steps a user takes to block a website, pick an element, switch the profile
// or turn blocking off are also the real browser's tests.
struct Transition {
    const char* name;
    Step before;  // popover open, view 1
    Step event;
    int64_t during;
    int64_t after;
    bool openAfter;
};

// The controller action a button of the popover calls.
Step press(void (SafariExtensionViewController::*action)()) {
    return [action](T& t, P&) { (t.controller().*action)(); };
}

TEST_F(ViewControllerTest, StateMachine) {
    using C = SafariExtensionViewController;
    const Step nothing = [](T&, P&) {};
    const Step toPicking = [](T& t, P&) {
        t.controller().visualBlockAction();
        t.run();
    };
    const Step toProfile = [](T& t, P&) {
        t.storeTwoProfiles();
        t.controller().showExtensionView(ExtensionView::Main, C::Animated::No);
        t.controller().changeActiveProfile();
    };
    const Step toWebsite = press(&C::blockWebsiteAction);
    const Step toError = [](T& t, P&) {
        t.platform.host->setSafariServicesVersion(4);
        t.controller().changeCounterAction();
    };
    const Transition transitions[] = {
        {"closed: opens on main", nothing, nothing, 1, 1, true},
        {"closed: opens on picking when the page still picks",
         [](T& t, P& page) {
             t.browser->closePopover();
             page.setPicking(true);
         },
         [](T& t, P&) { t.browser->openPopover(); }, 2, 2, true},
        {"1: hide visually", nothing, press(&C::visualHideAction), 2, 2, true},
        {"1: allow website", nothing, press(&C::whitelistWebsiteAction), 4, 4, true},
        {"1: counter below services level 5", nothing, toError, 6, 6, true},
        {"1: status button", nothing, press(&C::changeStatusAction), 5, 1, false},
        {"1: counter at services level 5", nothing, press(&C::changeCounterAction), 1, 1, false},
        // Nothing confirmed turns the icon to reloading and leaves it there
        // until the next validation or completion.
        {"1: done with nothing to confirm", nothing, press(&C::websiteDoneAction), 5, 5, true},
        {"2: cancel", toPicking, press(&C::visualCancelAction), 1, 1, true},
        {"2: done while the page sends nothing", toPicking, press(&C::visualDoneAction), 2, 2,
         true},
        {"3: cancel", toProfile, press(&C::profileCancelAction), 1, 1, true},
        {"3: done with the same profile", toProfile, press(&C::profileDoneAction), 3, 3, true},
        {"4: cancel", toWebsite, press(&C::websiteCancelAction), 1, 1, true},
        {"4: done", toWebsite, press(&C::websiteDoneAction), 5, 1, false},
        {"6: OK", toError, press(&C::errorDoneAction), 1, 1, true},
        {"any: closing drops later switches", toWebsite,
         [](T& t, P&) {
             t.browser->closePopover();
             t.controller().showExtensionView(ExtensionView::Reloading, C::Animated::Yes);
         },
         4, 4, false},
    };
    for (const Transition& transition : transitions) {
        SCOPED_TRACE(transition.name);
        reset();
        platform.host->setSafariServicesVersion(6);
        auto page = openPopoverOn(kPageURL);
        transition.before(*this, *page);
        run();
        transition.event(*this, *page);
        run();
        EXPECT_EQ(popover()->visibleStack(), transition.during);
        finish();
        EXPECT_EQ(popover()->visibleStack(), transition.after);
        EXPECT_EQ(controller().popoverVisible(), transition.openAfter);
        EXPECT_EQ(popover()->progress()->isAnimating(), transition.after == 5);
    }
}

TEST_F(ViewControllerTest, WebsiteButtonsFollowThePageAndTheLists) {
    struct Case {
        const char* url;
        const char* listed;  // host already on the block list
        const char* blockTitle;
        bool pageButtons, block;  // page buttons: picking, secure and allow
    };
    const Case cases[] = {
        {"https://www.example.com/a", nullptr, "Block www.example.com", true, true},
        {"http://www.example.com/a", "www.example.com", "Block www.example.com", true, false},
        {"https://xn--bcher-kva.example/", nullptr, "Block bücher.example", true, true},
        {"file:///home/user/page.html", nullptr, "Block Website", false, false},
        {nullptr, nullptr, "Block Website", false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url ? c.url : "(no URL)");
        reset();
        browser->openWindow(c.url ? std::optional<std::string>(c.url) : std::nullopt);
        if (c.listed) {
            controller().companionController().createBlockWebsiteCustomRule(
                std::string("http://") + c.listed + "/", nullptr);
        }
        controller();
        browser->openPopover();
        run();
        EXPECT_EQ(popover()->rowTitle("blockButton"), c.blockTitle);
        EXPECT_EQ(popover()->row("blockButton")->isEnabled(), c.block);
        // Assistive technologies are told the same.
        EXPECT_EQ(popover()->rowView("blockButton")->accessibilityEnabled(), c.block);
        for (const char* button : {"visualBlockButton", "secureButton", "whitelistButton"}) {
            EXPECT_EQ(popover()->row(button)->isEnabled(), c.pageButtons) << button;
            EXPECT_EQ(popover()->rowView(button)->accessibilityEnabled(), c.pageButtons) << button;
        }
    }
}

TEST_F(ViewControllerTest, AChoiceThatCannotBeStoredSaysSoAndReloadsNothing) {
    // Another program holds the profile's database past the wait.
    storage_detail::setBusyTimeoutForTesting(10);
    SafariExtensionViewController::setStorageWaitLimitForTesting(std::chrono::milliseconds(50));
    openPopoverOn(kPageURL);
    const std::string database =
        platform.containerPath() + "/.Profiles/profile_defaultProfile_data";
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(database.c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    controller().blockWebsiteAction();
    controller().websiteDoneAction();
    run();
    finish();
    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    EXPECT_EQ(popover()->visibleStack(), 6);
    EXPECT_EQ(popover()->label("errorTitleLabel")->stringValue(), "Nothing Changed");
    EXPECT_TRUE(platform.contentBlocker->calls().empty());
    EXPECT_FALSE(controller().reloading());
    EXPECT_FALSE(controller().companionController().checkWebsiteExists(
        std::string("www.example.com"), ActionCode::kBlockWebsite));
    SafariExtensionViewController::setStorageWaitLimitForTesting(std::chrono::milliseconds(-1));
    storage_detail::setBusyTimeoutForTesting(-1);
}

TEST_F(ViewControllerTest, ProfileNamesInThePopupAndOnTheButton) {
    const std::string forty(40, 'p');
    const std::string emojiAcross40 =
        std::string(39, 'e') + "\xF0\x9F\x98\x80" + "tail";  // U+1F600
    platform.bundle->setTranslation("Default Profile", "Standardprofil");
    SharedData data;
    data.profiles = "default PROFILE," + forty + "," + forty + "q," + emojiAcross40;
    data.profileIDs = "defaultProfile,p40,p41,emoji";
    data.activeProfileID = "p41";
    SharedDatabase::sharedInstance().updateSharedDataDetails(data);
    openPopoverOn(kPageURL);
    EXPECT_EQ(popover()->rowTitle("profileButton"), forty + "q");

    controller().changeActiveProfile();
    std::vector<std::string> titles;
    for (const NSMenuItem& item : popover()->popup()->items()) titles.push_back(item.title);
    EXPECT_THAT(titles, ::testing::ElementsAre("Standardprofil", forty, forty + "...",
                                               std::string(39, 'e') + "..."));
    EXPECT_EQ(popover()->popup()->indexOfSelectedItem(), 2);

    data.activeProfileID = "defaultProfile";
    SharedDatabase::sharedInstance().updateSharedDataDetails(data);
    controller().profileCancelAction();
    EXPECT_EQ(popover()->rowTitle("profileButton"), "Standardprofil");
}

TEST_F(ViewControllerTest, CounterGateBelowServicesLevel5) {
    platform.host->setSafariServicesVersion(4);
    openPopoverOn(kPageURL);
    controller().changeCounterAction();
    EXPECT_EQ(popover()->label("errorTitleLabel")->stringValue(), "Requires Safari 13");
    EXPECT_FALSE(controller().extensionState()->blockingCounter());
    EXPECT_EQ(browser->application()->toolbarUpdateRequests, 0);
}

TEST_F(ViewControllerTest, StatusOffClearsStatusUpdatedAndShowsTheOffImage) {
    auto page = openPopoverOn(kPageURL);
    controller().extensionState()->setStatusUpdated(true);
    controller().blockingStatController().addURLsForPage({"https://ads.example/a.js"}, page);
    controller().changeStatusAction();
    finish();
    EXPECT_FALSE(controller().extensionState()->statusUpdated());
    EXPECT_EQ(controller().blockingStatController().pageCount(), 0u);
    EXPECT_EQ(popover()->rowTitle("statusButton"), "Turn On Content Blocking");
    EXPECT_EQ(popover()->image("statusImageView")->imageName(), "ext_status_off");
}

// The two status rows are told as switches named for what they switch, on
// or off, whatever their titles say a press does.
TEST_F(ViewControllerTest, StatusRowsAreToldAsSwitchesWithTheirState) {
    openPopoverOn(kPageURL);
    const auto status = popover()->rowView("statusButton");
    const auto counter = popover()->rowView("counterButton");
    EXPECT_EQ(status->accessibilityLabel(), "Content Blocking");
    EXPECT_EQ(counter->accessibilityLabel(), "Blocking Counter");
    const bool counterWasOn = controller().extensionState()->blockingCounter();
    EXPECT_EQ(status->accessibilityValue(), std::optional<bool>(true));
    EXPECT_EQ(counter->accessibilityValue(), std::optional<bool>(counterWasOn));
    controller().changeStatusAction();
    controller().changeCounterAction();
    finish();
    EXPECT_EQ(status->accessibilityValue(), std::optional<bool>(false));
    EXPECT_EQ(counter->accessibilityValue(), std::optional<bool>(!counterWasOn));
    // Rows that are no switches carry no state.
    EXPECT_EQ(popover()->rowView("blockButton")->accessibilityValue(), std::nullopt);
}

TEST_F(ViewControllerTest, LayoutBySystemVersionAndDirection) {
    struct Case {
        platform::OperatingSystemVersion os;
        LayoutDirection direction;
        double width, mainInset, separatorInset, messageSpacing, centerY;
    };
    const Case cases[] = {
        {{11, 0, 0}, LayoutDirection::LeftToRight, 290, 5, 15, 8, 20},
        {{10, 15, 0}, LayoutDirection::RightToLeft, 300, 20, 20, 8, 20},
        {{10, 12, 0}, LayoutDirection::LeftToRight, 300, 20, 20, 8, 20},
        {{10, 12, 0}, LayoutDirection::RightToLeft, 280, 20, 20, 12, 15},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.os.majorVersion) + "." +
                     ::testing::PrintToString(c.os.minorVersion));
        reset();
        platform.host->setOperatingSystemVersion(c.os);
        toolkit->setLayoutDirection(c.direction);
        controller();
        EXPECT_EQ(popover()->preferredContentSize(), (Size{c.width, 396}));
        EXPECT_EQ(popover()->layoutConstraint("mainStackViewLeadingConstraint")->constant(),
                  c.mainInset);
        EXPECT_EQ(popover()->layoutConstraint("profileLineTrailingConstraint")->constant(),
                  c.separatorInset);
        EXPECT_EQ(popover()->stack("websiteMessageStackView")->spacing(), c.messageSpacing);
        EXPECT_EQ(popover()->layoutConstraint("visualCenterY")->constant(), c.centerY);
    }
}

// Arabic on 10.13: each kind of label gets its own size, weight and colour.
TEST_F(ViewControllerTest, StartUpFontsAndColours) {
    toolkit->setPreferredLocalization("ar");
    platform.host->setOperatingSystemVersion({10, 13, 0});
    controller();
    struct Case {
        const char* outlet;
        NSFont font;
        NSColor color;
    };
    const NSColor secondary = NSColor::of(SystemColor::SecondaryLabel);
    const Case cases[] = {
        {"statusHeaderLabel", {12, FontWeight::Semibold}, NSColor::rgb255(128, 140, 153)},
        {"visualTitleLabel", {14, FontWeight::Semibold}, secondary},
        {"visualMessageLabel", {13.5, FontWeight::Regular}, NSColor::rgb(0.1, 0.1, 0.2)},
        {"errorMessageLabel", {13.5, FontWeight::Regular}, secondary},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.outlet);
        EXPECT_EQ(popover()->label(c.outlet)->font(), c.font);
        EXPECT_EQ(popover()->label(c.outlet)->textColor(), c.color);
    }
    EXPECT_EQ(popover()->separator("visualLineView")->layerBackgroundColor(),
              NSColor::rgb255(227, 227, 229));
}

}  // namespace
}  // namespace stonewall::testing
