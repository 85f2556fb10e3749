// The two roads of the product through the engine, as the front drives them:
// block the current website, and picked elements; each ends in the rule file
// and the two-phase reload.

#include "EngineTestSupport.h"
#include "utilities/PunycodeAdditions.h"

namespace stonewall::testing {
namespace {

using platform::testing::DefaultsWrite;

class EndToEndTest : public EngineTest {
  protected:
    // What the front does after a rule change: reload with the active profile.
    CompletionHandler reloadAfterwards(CompanionController& controller, int& reloads,
                                       std::optional<Error>& outcome) {
        return [&controller, &reloads, &outcome](std::optional<Error> error) {
            ASSERT_FALSE(error);
            CompanionController::reloadBlockerRules(controller.sharedData()->activeProfileID,
                                                    controller.activeDatabase(),
                                                    [&](std::optional<Error> reloadError) {
                                                        ++reloads;
                                                        outcome = reloadError;
                                                    });
        };
    }

    bool listHas(const Json& list, const Json& rule) {
        for (const auto& entry : list) {
            if (entry == rule) return true;
        }
        return false;
    }
};

TEST_F(EndToEndTest, BlockingTheCurrentWebsite) {
    storeSharedData(sharedDataWith("e2e"));
    openProfile("e2e")->addProfileRules({makeRule(1, "^https?://ads\\.example\\.net/")});
    platform.host->setOperatingSystemVersion({10, 15, 7});
    suite()->clearWrites();

    const std::string pageURL = "https://news.example.org/story?id=1";
    const std::string host = PunycodeAdditions::hostFromURL(pageURL).value();
    CompanionController controller;
    ASSERT_FALSE(controller.checkWebsiteExists(host, ActionCode::kBlockWebsite));

    int reloads = 0;
    std::optional<Error> outcome;
    std::vector<int64_t> reloadTypeAtEachLoad;
    platform.contentBlocker->onReload = [&](const std::string& identifier) {
        EXPECT_EQ(identifier, "com.mapleharbor.osx.Stonewall.ContentBlockerExtension");
        reloadTypeAtEachLoad.push_back(suite()->integerForKey("blockerReloadType").value_or(0));
    };
    controller.createBlockWebsiteCustomRule(pageURL,
                                            reloadAfterwards(controller, reloads, outcome));
    platform.dispatch->runUntilIdle();
    EXPECT_EQ(reloads, 0) << "the second phase waits for the settle delay";
    platform.dispatch->advanceBy(std::chrono::seconds(3));

    EXPECT_EQ(reloads, 1);
    EXPECT_FALSE(outcome);
    EXPECT_EQ(reloadTypeAtEachLoad, (std::vector<int64_t>{1, 2}));
    EXPECT_EQ(suite()->writes(),
              (std::vector<DefaultsWrite>{{"activeProfileID", std::string("e2e")},
                                          {"blockerReloadType", int64_t{1}},
                                          {"blockerReloadType", int64_t{2}}}));
    EXPECT_EQ(updateNotificationCount(), 1u);

    // The website is blocked first in the list, ahead of the profile's rules.
    const Json list = ruleFile("e2e");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0], Json::parse(R"({"action":{"type":"block"},"trigger":{"url-filter":".*",
        "if-top-url":["^[^:]+://+news\\.example\\.org[:/]"]}})"));
    EXPECT_EQ(list[1]["trigger"]["url-filter"], "^https?://ads\\.example\\.net/");

    const auto custom = SharedDatabase::sharedInstance().getSharedCustomRules();
    ASSERT_EQ(custom.size(), 1u);
    EXPECT_EQ(custom[0].action, ActionCode::kBlockWebsite);
    EXPECT_EQ(custom[0].domains, host);
    EXPECT_EQ(custom[0].blockerProfileID, "e2e");
    EXPECT_TRUE(controller.checkWebsiteExists(host, ActionCode::kBlockWebsite));
}

TEST_F(EndToEndTest, AnAllowedWebsiteComesAfterEveryBlockAndHideRule) {
    storeSharedData(sharedDataWith("allow"));
    CompanionController controller;
    controller.createWhitelistWebsiteCustomRule(std::string("https://shop.example/"), nullptr);
    controller.createBlockWebsiteCustomRule(std::string("https://bad.example/"), nullptr);
    controller.createSecureWebsiteCustomRule(std::string("http://plain.example/"), nullptr);
    int reloads = 0;
    CompanionController::reloadBlockerRules(std::string("allow"), controller.activeDatabase(),
                                            [&](std::optional<Error>) { ++reloads; });
    platform.dispatch->advanceBy(std::chrono::seconds(3));
    ASSERT_EQ(reloads, 1);

    std::vector<std::string> types;
    for (const auto& rule : ruleFile("allow")) types.push_back(rule["action"]["type"]);
    EXPECT_EQ(types, (std::vector<std::string>{"block", "ignore-previous-rules", "make-https"}));
}

TEST_F(EndToEndTest, PickedElementsBecomeRulesAndReload) {
    storeSharedData(sharedDataWith("picked"));
    const std::string pageURL = "https://www.example.com/article";
    const std::string data = R"([
        ["ignored", "div", "div.sponsored > .ad", "", "", "section", "", "", ""],
        ["ignored", "img", "#banner", "https://ads.tracker.net/b/1.gif", "", "a", "a.out",
         "https://click.tracker.net/go?x=1", ""],
        ["ignored", "img", "#nothing", "", "", "", "", "", ""]
    ])";

    // What the front does with a "VisualData" message.
    auto elements = DataElement::elementsFromMessageData(std::string_view(data));
    ASSERT_TRUE(elements);
    for (DataElement& element : *elements)
        element.location = PunycodeAdditions::hostFromURL(pageURL);

    CompanionController controller;
    int reloads = 0;
    std::optional<Error> outcome;
    controller.createVisualCustomRules(*elements, reloadAfterwards(controller, reloads, outcome));
    platform.dispatch->advanceBy(std::chrono::seconds(1));

    EXPECT_EQ(reloads, 1);
    EXPECT_EQ(platform.contentBlocker->calls().size(), 2u);
    EXPECT_EQ(updateNotificationCount(), 1u);
    EXPECT_EQ(SharedDatabase::sharedInstance().getSharedCustomRules().size(), 2u);

    const Json list = ruleFile("picked");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0], Json::parse(R"({"action":{"type":"block"},"trigger":{
        "url-filter":"^[^:]+://+([^:/]+\\.)?ads\\.tracker\\.net",
        "url-filter-is-case-sensitive":true,
        "if-top-url":["^[^:]+://+www\\.example\\.com[:/]"]}})"));
    EXPECT_EQ(list[1], Json::parse(R"({"action":{"type":"css-display-none",
        "selector":"div.sponsored > .ad"},"trigger":{"url-filter":".*",
        "if-top-url":["^[^:]+://+www\\.example\\.com[:/]"]}})"));
}

TEST_F(EndToEndTest, SwitchingProfilesWritesTheNewProfilesFile) {
    storeSharedData(sharedDataWith("first"));
    openProfile("second")->addProfileRules({makeRule(1, "second-only")});
    CompanionController controller;
    controller.activateProfile(std::string("second"), nullptr);
    controller.connectProfileDatabase();
    int reloads = 0;
    CompanionController::reloadBlockerRules(std::string("second"), controller.activeDatabase(),
                                            [&](std::optional<Error>) { ++reloads; });
    platform.dispatch->advanceBy(std::chrono::seconds(3));
    EXPECT_EQ(reloads, 1);
    EXPECT_EQ(ruleFile("second")[0]["trigger"]["url-filter"], "second-only");
    EXPECT_FALSE(ruleFileExists("first"));
    EXPECT_EQ(suite()->stringForKey("activeProfileID"), "second");
}

TEST_F(EndToEndTest, BlockingOffReloadsWithoutRewritingTheFile) {
    storeSharedData(sharedDataWith("toggle"));
    CompanionController controller;
    controller.changeStatus([&](std::optional<Error>) {
        CompanionController::reloadBlockerRules(std::nullopt, nullptr, nullptr);
    });
    platform.dispatch->advanceBy(std::chrono::seconds(3));
    EXPECT_EQ(suite()->integerForKey("blockingStatus"), 2);
    EXPECT_EQ(platform.contentBlocker->calls().size(), 2u);
    EXPECT_FALSE(ruleFileExists("toggle"));
}

}  // namespace
}  // namespace stonewall::testing
