// The popover controller on the simulated browser: its view state machine,
// what its buttons say and allow, profile switching and its start-up layout.

#include <gmock/gmock.h>

#include <filesystem>
#include <functional>

#include "FrontTestSupport.h"
#include "engine/CompanionController.h"
#include "extension/Palette.h"
#include "model/RuleCodes.h"

namespace stonewall::testing {
namespace {

using ::testing::ElementsAre;

constexpr const char* kPageURL = "https://www.example.com/news";

nlohmann::json pickedElement(const std::string& selector) {
    return nlohmann::json::array(
        {"ignored.example", "div", selector, "", "", "body", "body", "", ""});
}

class ViewControllerTest : public FrontTest {
  public:
    void storeTwoProfiles() {
        SharedData data;
        data.profiles = "Default Profile,Work";
        data.profileIDs = "defaultProfile,work";
        storeSharedData(data);
    }
};

// One step of the popover's state machine: from the view that `before`
// leads to, `event` happens; `during` is the view right after it (held
// reloads not yet complete), `after` once everything has finished.
struct Transition {
    const char* name;
    std::function<void(ViewControllerTest&, SimulatedPage&)> before;  // popover open, view 1
    std::function<void(ViewControllerTest&, SimulatedPage&)> event;
    int64_t during;
    int64_t after;
    bool openAfter;
};

TEST_F(ViewControllerTest, StateMachine) {
    using T = ViewControllerTest;
    using P = SimulatedPage;
    const auto nothing = [](T&, P&) {};
    const auto toPicking = [](T& t, P&) {
        t.controller().visualBlockAction();
        t.run();
    };
    const auto toProfile = [](T& t, P&) {
        t.storeTwoProfiles();
        t.controller().showExtensionView(1, SafariExtensionViewController::Animated::No);
        t.controller().changeActiveProfile();
    };
    const auto toWebsite = [](T& t, P&) { t.controller().blockWebsiteAction(); };
    const auto toError = [](T& t, P&) {
        t.platform.host->setSafariServicesVersion(4);
        t.controller().changeCounterAction();
    };
    const Transition transitions[] = {
        {"closed: opens on main", nothing, nothing, 1, 1, true},
        {"closed: opens on reloading while a reload runs",
         [](T& t, P&) {
             t.browser->closePopover();
             t.controller().changeToolbarImage(2);
             t.run();
         },
         [](T& t, P&) { t.browser->openPopover(); }, 5, 5, true},
        {"closed: opens on picking when the page still picks",
         [](T& t, P& page) {
             t.browser->closePopover();
             page.setPicking(true);
         },
         [](T& t, P&) { t.browser->openPopover(); }, 2, 2, true},
        {"1: block visually", nothing, [](T& t, P&) { t.controller().visualBlockAction(); }, 2, 2,
         true},
        {"1: hide visually", nothing, [](T& t, P&) { t.controller().visualHideAction(); }, 2, 2,
         true},
        {"1: profile button", nothing, [](T& t, P&) { t.controller().changeActiveProfile(); }, 3, 3,
         true},
        {"1: block website", nothing, [](T& t, P&) { t.controller().blockWebsiteAction(); }, 4, 4,
         true},
        {"1: allow website", nothing, [](T& t, P&) { t.controller().whitelistWebsiteAction(); }, 4,
         4, true},
        {"1: counter below services level 5", nothing, toError, 6, 6, true},
        {"1: status button", nothing, [](T& t, P&) { t.controller().changeStatusAction(); }, 5, 1,
         false},
        {"1: counter at services level 5", nothing,
         [](T& t, P&) { t.controller().changeCounterAction(); }, 1, 1, false},
        {"2: cancel", toPicking, [](T& t, P&) { t.controller().visualCancelAction(); }, 1, 1, true},
        {"2: done with picked elements", toPicking,
         [](T& t, P& page) {
             page.setPickedElements({pickedElement("#banner")});
             t.controller().visualDoneAction();
         },
         5, 1, false},
        {"2: done while the page sends nothing", toPicking,
         [](T& t, P&) { t.controller().visualDoneAction(); }, 2, 2, true},
        {"3: cancel", toProfile, [](T& t, P&) { t.controller().profileCancelAction(); }, 1, 1,
         true},
        {"3: done with another profile", toProfile,
         [](T& t, P&) {
             t.popover()->popup()->selectItemAtIndex(1);
             t.controller().profileDoneAction();
         },
         5, 1, false},
        {"3: done with the same profile", toProfile,
         [](T& t, P&) { t.controller().profileDoneAction(); }, 3, 3, true},
        {"4: cancel", toWebsite, [](T& t, P&) { t.controller().websiteCancelAction(); }, 1, 1,
         true},
        {"4: done", toWebsite, [](T& t, P&) { t.controller().websiteDoneAction(); }, 5, 1, false},
        {"6: OK", toError, [](T& t, P&) { t.controller().errorDoneAction(); }, 1, 1, true},
        {"any: closing drops later switches", toWebsite,
         [](T& t, P&) {
             t.browser->closePopover();
             t.controller().showExtensionView(5, SafariExtensionViewController::Animated::Yes);
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
        bool pageButtons, block, secure, allow;
    };
    const Case cases[] = {
        {"https://www.example.com/a", nullptr, "Block www.example.com", true, true, true, true},
        {"http://www.example.com/a", "www.example.com", "Block www.example.com", true, false, true,
         true},
        {"https://xn--bcher-kva.example/", nullptr, "Block bücher.example", true, true, true, true},
        {"file:///home/user/page.html", nullptr, "Block Website", false, false, false, false},
        {"about:blank", nullptr, "Block Website", false, false, false, false},
        {nullptr, nullptr, "Block Website", false, false, false, false},
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
        EXPECT_EQ(popover()->row("visualBlockButton")->isEnabled(), c.pageButtons);
        EXPECT_EQ(popover()->row("blockButton")->isEnabled(), c.block);
        EXPECT_EQ(popover()->row("secureButton")->isEnabled(), c.secure);
        EXPECT_EQ(popover()->row("whitelistButton")->isEnabled(), c.allow);
    }
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
    storeSharedData(data);
    openPopoverOn(kPageURL);
    EXPECT_EQ(popover()->rowTitle("profileButton"), forty + "q");

    controller().changeActiveProfile();
    std::vector<std::string> titles;
    for (const NSMenuItem& item : popover()->popup()->items()) titles.push_back(item.title);
    EXPECT_THAT(titles,
                ElementsAre("Standardprofil", forty, forty + "...", std::string(39, 'e') + "..."));
    EXPECT_EQ(popover()->popup()->indexOfSelectedItem(), 2);

    data.activeProfileID = "defaultProfile";
    storeSharedData(data);
    controller().profileCancelAction();
    EXPECT_EQ(popover()->rowTitle("profileButton"), "Standardprofil");
}

TEST_F(ViewControllerTest, ProfileSwitchActivatesCompilesAndReloads) {
    storeTwoProfiles();
    auto page = openPopoverOn(kPageURL);
    controller().changeActiveProfile();
    popover()->popup()->selectItemAtIndex(1);
    controller().profileDoneAction();
    finish();
    EXPECT_EQ(storedSharedData().activeProfileID, "work");
    EXPECT_TRUE(std::filesystem::exists(platform.containerPath() +
                                        "/.Profiles/profile_work_unarchive.json"));
    EXPECT_EQ(platform.contentBlocker->calls().size(), 2u);
    EXPECT_EQ(page->reloadCount(), 1);
    EXPECT_EQ(lastToolbarImage(), "ToolbarItemIcon");
}

TEST_F(ViewControllerTest, ActionsThatMustNotStartAReload) {
    struct Case {
        const char* name;
        std::function<void(ViewControllerTest&)> act;
    };
    const Case cases[] = {
        {"done with the active profile",
         [](ViewControllerTest& t) {
             t.storeTwoProfiles();
             t.controller().changeActiveProfile();
             t.controller().profileDoneAction();
         }},
        {"done with nothing to confirm",
         [](ViewControllerTest& t) { t.controller().websiteDoneAction(); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        auto page = openPopoverOn(kPageURL);
        c.act(*this);
        finish();
        EXPECT_TRUE(platform.contentBlocker->calls().empty());
        EXPECT_EQ(page->reloadCount(), 0);
    }
    // Nothing confirmed still turned the icon to reloading, and it stays.
    EXPECT_EQ(lastToolbarImage(), "ToolbarItemIconReloading");
    EXPECT_TRUE(controller().reloading());
    EXPECT_EQ(controller().websiteAction(), 1);
}

TEST_F(ViewControllerTest, CounterGateBelowServicesLevel5) {
    platform.host->setSafariServicesVersion(4);
    openPopoverOn(kPageURL);
    const bool counterBefore = controller().extensionState()->blockingCounter();
    controller().changeCounterAction();
    EXPECT_EQ(popover()->label("errorTitleLabel")->stringValue(), "Requires Safari 13");
    EXPECT_EQ(popover()->label("errorMessageLabel")->stringValue(),
              "This feature is only available in Safari 13 or above.");
    EXPECT_EQ(popover()->pushButton("errorDoneButton")->title(), "OK");
    EXPECT_EQ(controller().extensionState()->blockingCounter(), counterBefore);
    EXPECT_EQ(browser->application()->toolbarUpdateRequests, 0);
}

TEST_F(ViewControllerTest, StatusOffClearsStatusUpdatedAndShowsTheOffImage) {
    auto page = openPopoverOn(kPageURL);
    controller().extensionState()->setStatusUpdated(true);
    controller().blockingStatController().addURLsForPage({"https://ads.example/a.js"}, page);
    controller().changeStatusAction();
    finish();
    EXPECT_EQ(storedSharedData().status, 0);
    EXPECT_FALSE(controller().extensionState()->statusUpdated());
    EXPECT_EQ(controller().blockingStatController().pageCount(), 0u);
    EXPECT_EQ(lastToolbarImage(), "ToolbarItemIconOff");
    EXPECT_EQ(page->reloadCount(), 1);
    EXPECT_EQ(popover()->rowTitle("statusButton"), "Turn On Content Blocking");
    EXPECT_EQ(popover()->image("statusImageView")->imageName(), "ext_status_off");
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

TEST_F(ViewControllerTest, StartUpTextsFontsAndColours) {
    toolkit->setPreferredLocalization("ar");
    platform.host->setOperatingSystemVersion({10, 13, 0});
    controller();
    const AppearanceContext arabic{{10, 13, 0}, false, "ar"};
    struct Case {
        const char* outlet;
        const char* text;
        NSFont font;
        NSColor color;
    };
    const NSFont header{12, FontWeight::Semibold};
    const NSFont title{14, FontWeight::Semibold};
    const NSFont body{13.5, FontWeight::Regular};
    const Case cases[] = {
        {"statusHeaderLabel", "Status", header, Custom::tableHeaderColor(arabic)},
        {"visualTitleLabel", "Block and Hide Visually", title,
         NSColor::of(SystemColor::SecondaryLabel)},
        {"visualMessageLabel", "Select the webpage elements that you want to block or hide.", body,
         NSColor::rgb(0.1, 0.1, 0.2)},
        {"reloadTitleLabel", "Reloading ...", title, NSColor::of(SystemColor::SecondaryLabel)},
        {"errorTitleLabel", "Blocker Not Enabled", title, NSColor::of(SystemColor::SecondaryLabel)},
        {"errorMessageLabel", "The blocker extension is not enabled.", body,
         NSColor::of(SystemColor::SecondaryLabel)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.outlet);
        auto label = popover()->label(c.outlet);
        EXPECT_EQ(label->stringValue(), c.text);
        EXPECT_EQ(label->font(), c.font);
        EXPECT_EQ(label->textColor(), c.color);
    }
    EXPECT_EQ(popover()->rowTitle("appButton"), "Open Stonewall");
    EXPECT_EQ(popover()->rowLabel("appButton")->font(), body);
    EXPECT_EQ(popover()->separator("visualLineView")->layerBackgroundColor(),
              NSColor::rgb255(227, 227, 229));
    EXPECT_EQ(popover()->pushButton("profileDoneButton")->title(), "Activate");
}

}  // namespace
}  // namespace stonewall::testing
