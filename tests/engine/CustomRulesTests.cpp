// Picked elements -> custom rules, and how custom rules are stored.

#include "EngineTestSupport.h"

namespace stonewall::testing {
namespace {

constexpr char kHost[] = "www.example.com";

DataElement element(NullableString tag, NullableString source, NullableString currentSource,
                    NullableString parentTag = std::nullopt,
                    NullableString parentSource = std::nullopt,
                    NullableString parentCurrentSource = std::nullopt) {
    return DataElement::initWithElement(std::vector<NullableString>{
        kHost, std::move(tag), "#picked", std::move(source), std::move(currentSource),
        std::move(parentTag), "a.link", std::move(parentSource), std::move(parentCurrentSource)});
}

TEST(PickedElementRules, AnyTagButMediaGivesAHideRule) {
    for (const char* tag : {"div", "IMG", "iframe", "a", ""}) {
        SCOPED_TRACE(tag);
        auto rule = CompanionController::createVisualCustomRule(
            kHost, element(tag, "https://ads.example.net/x.png", std::nullopt));
        ASSERT_TRUE(rule);
        EXPECT_EQ(rule->action, ActionCode::kHide);
        EXPECT_EQ(rule->blocker, BlockerCode::kCustom);
        EXPECT_EQ(rule->filter, ".*");
        EXPECT_EQ(rule->selector, "#picked");
        EXPECT_EQ(rule->domains, kHost);
        EXPECT_EQ(rule->domainType, DomainTypeCode::kIfTopURL);
        EXPECT_EQ(rule->filterSensitive, 0);
        EXPECT_EQ(rule->filterInfo, 4);
        EXPECT_EQ(rule->active, 1);
        EXPECT_FALSE(rule->filterDomain);
        ASSERT_TRUE(rule->ruleID);
        EXPECT_EQ(rule->ruleID->size(), 10u);
    }
}

TEST(PickedElementRules, AnElementOfTheWrongSizeHidesWithoutSelector) {
    auto rule = CompanionController::createVisualCustomRule(
        kHost, DataElement::initWithElement(std::vector<std::string>(8, "img")));
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->action, ActionCode::kHide);
    EXPECT_FALSE(rule->selector);
}

TEST(PickedElementRules, MediaSourcesGiveBlockRules) {
    const std::string prefix = "^[^:]+://+([^:/]+\\.)?";
    struct Case {
        const char* name;
        DataElement picked;
        std::optional<std::string> filter;  // none: no rule
        std::optional<std::string> filterDomain;
    };
    const Case cases[] = {
        {"empty current source uses source", element("img", "https://www.example.com/a.png", ""),
         prefix + "www\\.example\\.com/a\\.png", "https://www.example.com/a.png"},
        {"current source preferred",
         element("video", "https://x.org/old.mp4", "https://cdn.x.org/new.mp4"),
         prefix + "cdn\\.x\\.org/new\\.mp4", "https://cdn.x.org/new.mp4"},
        {"both empty", element("img", "", ""), std::nullopt, std::nullopt},
        {"both absent", element("audio", std::nullopt, std::nullopt), std::nullopt, std::nullopt},
        {"no scheme separator", element("embed", "data:image/gif;base64,R0lG", ""), std::nullopt,
         std::nullopt},
        {"only the part up to a second separator",
         element("object", "https://a.org/r?u=https://b.org/x", ""), prefix + "a\\.org/r\\?u=https",
         "https://a.org/r?u=https://b.org/x"},
        {"own-site image inside a link blocks its full URL",
         element("img", "https://cdn.example.com/x/banner.png?v=1+2", "", "a",
                 "https://ads.tracker.net/click"),
         prefix + "cdn\\.example\\.com/x/banner\\.png\\?v=1\\+2",
         "https://cdn.example.com/x/banner.png?v=1+2"},
        {"foreign image inside an own-site link blocks its full URL",
         element("img", "https://img.tracker.net/b.gif", "", "a", "",
                 "https://www.example.com/promo"),
         prefix + "img\\.tracker\\.net/b\\.gif", "https://img.tracker.net/b.gif"},
        {"foreign image in a foreign link blocks the whole host",
         element("img", "https://ads.tracker.net/img/1.gif", "", "a",
                 "https://click.tracker.net/go"),
         prefix + "ads\\.tracker\\.net", "https://ads.tracker.net"},
        {"foreign image in a link without source blocks the whole host",
         element("img", "", "https://ads.tracker.net/img/2.gif", "a"),
         prefix + "ads\\.tracker\\.net", "https://ads.tracker.net"},
        {"a parent that is no link changes nothing",
         element("img", "https://ads.tracker.net/img/1.gif", "", "div",
                 "https://click.tracker.net/go"),
         prefix + "ads\\.tracker\\.net/img/1\\.gif", "https://ads.tracker.net/img/1.gif"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto rule = CompanionController::createVisualCustomRule(kHost, c.picked);
        ASSERT_EQ(rule.has_value(), c.filter.has_value());
        if (!rule) continue;
        EXPECT_EQ(rule->action, ActionCode::kBlock);
        EXPECT_EQ(rule->filter, c.filter);
        EXPECT_EQ(rule->filterDomain, c.filterDomain);
        EXPECT_EQ(rule->filterSensitive, 1);
        EXPECT_EQ(rule->filterInfo, 1);
        EXPECT_EQ(rule->domains, kHost);
        EXPECT_EQ(rule->domainType, 1);
        EXPECT_FALSE(rule->selector);
    }
}

TEST(PickedElementRules, EscapeAndUnescapeAreInverse) {
    struct Case {
        const char* plain;
        const char* escaped;
    };
    for (const Case& c :
         {Case{"cdn.example.com", "cdn\\.example\\.com"}, Case{"a?b^c+d|e", "a\\?b\\^c\\+d\\|e"},
          Case{"*()[$/", "*()[$/"}, Case{"", ""}}) {
        SCOPED_TRACE(c.plain);
        EXPECT_EQ(CompanionController::escapeData(std::string(c.plain)), c.escaped);
        EXPECT_EQ(CompanionController::unescapeData(std::string(c.escaped)), c.plain);
    }
    EXPECT_FALSE(CompanionController::escapeData(std::nullopt));
    EXPECT_FALSE(CompanionController::unescapeData(std::nullopt));
}

TEST(PickedElementRules, MediaTagsAndSourceChoice) {
    for (const char* tag : {"img", "video", "audio", "embed", "object"}) {
        EXPECT_TRUE(CompanionController::checkTagSource(std::string(tag))) << tag;
    }
    for (const char* tag : {"Img", "iframe", "source", "picture", ""}) {
        EXPECT_FALSE(CompanionController::checkTagSource(std::string(tag))) << tag;
    }
    EXPECT_FALSE(CompanionController::checkTagSource(std::nullopt));
    EXPECT_EQ(CompanionController::getElementSource(std::string("s"), std::string("c")), "c");
    EXPECT_EQ(CompanionController::getElementSource(std::string("s"), std::string("")), "s");
    EXPECT_EQ(CompanionController::getElementSource(std::nullopt, std::nullopt), std::nullopt);
}

// --- Storing -------------------------------------------------------------------

class ProcessCustomRulesTest : public EngineTest {
  protected:
    std::vector<SharedCustomRule> sharedRules() {
        return SharedDatabase::sharedInstance().getSharedCustomRules();
    }
};

SharedCustomRule customRule(int64_t action, const std::string& domain, int64_t active = 1) {
    SharedCustomRule rule;
    rule.action = action;
    rule.filter = ".*";
    rule.domains = domain;
    rule.ruleID = "custom-" + std::to_string(action);
    rule.active = active;
    return rule;
}

TEST_F(ProcessCustomRulesTest, TheDomainStatusDecidesWhatIsStored) {
    struct Case {
        const char* name;
        const char* domainStatus;
        int64_t action;
        int64_t active;
        bool sharedStored;
        // The domains of the profile rules of that action afterwards, in
        // database order; the existing list rule holds "a.com".
        std::vector<std::string> profileDomains;
    };
    const Case cases[] = {
        {"-1 active adds a list rule", "-1,-1,-1", 5, 1, true, {"a.com", "b.com"}},
        {"-1 inactive stores only the shared rule", "-1,-1,-1", 5, 0, true, {"a.com"}},
        {"0 stores only the shared rule", "0,-1,-1", 5, 1, true, {"a.com"}},
        {"non-numeric reads as 0", "on,-1,-1", 5, 1, true, {"a.com"}},
        {"1 merges into the list rule", "1,-1,-1", 5, 1, true, {"b.com,a.com"}},
        {"1 merges even an inactive rule", "1,-1,-1", 5, 0, true, {"b.com,a.com"}},
        {"2 skips the rule", "2,-1,-1", 5, 1, false, {"a.com"}},
        {"allow list reads position 1", "-1,0,-1", 3, 1, true, {"a.com"}},
        {"allow list merges", "-1,1,-1", 3, 1, true, {"b.com,a.com"}},
        {"secure list reads position 2", "-1,-1,2", 7, 1, false, {"a.com"}},
        {"secure list adds", "1,1,-1", 7, 1, true, {"a.com", "b.com"}},
        {"a short status reads as no list rule", "1", 7, 1, true, {"a.com", "b.com"}},
        {"other actions ignore the status", "2,2,2", 1, 1, true, {"a.com", "b.com"}},
        {"other actions store inactive rules only shared", "2,2,2", 1, 0, true, {"a.com"}},
    };
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string profileID = "status" + std::to_string(index++);
        storeSharedData(sharedDataWith(profileID, c.domainStatus));
        ProfileRule listRule = makeRule(c.action, ".*", BlockerCode::kCustom, "list");
        listRule.domains = "a.com";
        listRule.domainType = 1;
        openProfile(profileID)->addProfileRules({listRule});
        SharedDatabase::sharedInstance().removeSharedCustomRulesDetails();

        CompanionController controller;
        controller.processCustomRules({customRule(c.action, "b.com", c.active)});

        std::vector<std::string> domains;
        for (const auto& rule : controller.activeDatabase()->getProfileRulesByAction(c.action)) {
            domains.push_back(rule.domains.value_or("<null>"));
        }
        std::sort(domains.begin(), domains.end());
        auto expected = c.profileDomains;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(domains, expected);
        const auto stored = sharedRules();
        ASSERT_EQ(stored.size(), c.sharedStored ? 1u : 0u);
        if (c.sharedStored) {
            EXPECT_EQ(stored[0].blockerProfileID, profileID);
            EXPECT_EQ(stored[0].domains, "b.com");
        }
    }
}

TEST_F(ProcessCustomRulesTest, AStatusOfOneWithoutAListRuleStartsTheList) {
    storeSharedData(sharedDataWith("nolist", "1,-1,-1"));
    CompanionController controller;
    controller.processCustomRules({customRule(5, "b.com")});
    const auto rules = controller.activeDatabase()->getProfileRulesByAction(5);
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0].domains, "b.com");
    EXPECT_EQ(rules[0].blocker, BlockerCode::kCustom);
}

TEST_F(ProcessCustomRulesTest, SeveralRulesKeepTheirOrderAndAnEmptyListStoresNothing) {
    storeSharedData(sharedDataWith("many"));
    CompanionController controller;
    controller.processCustomRules({});
    EXPECT_TRUE(sharedRules().empty());

    SharedCustomRule hide =
        CompanionController::hideCustomRule(std::string("h.com"), std::string(".x"));
    SharedCustomRule block = CompanionController::blockCustomRule(
        std::string("h.com"), std::string("a\\.org"), std::string("https://a.org"));
    controller.processCustomRules({hide, block});
    EXPECT_EQ(controller.activeDatabase()->getProfileRulesCount(), 2);
    EXPECT_EQ(controller.activeDatabase()->getProfileRulesByAction(2).at(0).selector, ".x");
    const auto blocks = controller.activeDatabase()->getProfileRulesByAction(1);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].filterSensitive, 1);
    EXPECT_EQ(blocks[0].ruleID, block.ruleID);
    EXPECT_EQ(sharedRules().size(), 2u);
}

TEST_F(ProcessCustomRulesTest, VisualRulesAreStoredAndAlwaysNotify) {
    storeSharedData(sharedDataWith("visual"));
    CompanionController controller;
    int completions = 0;
    controller.createVisualCustomRules({}, [&](std::optional<Error> error) {
        EXPECT_FALSE(error);
        ++completions;
    });
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(updateNotificationCount(), 1u);

    DataElement picked = element("div", std::nullopt, std::nullopt);
    DataElement unusable = element("img", "", "");
    controller.createVisualCustomRules({picked, unusable}, nullptr);
    EXPECT_EQ(updateNotificationCount(), 2u);
    EXPECT_EQ(sharedRules().size(), 1u);
    EXPECT_EQ(controller.activeDatabase()->getProfileRulesByAction(2).size(), 1u);
}

}  // namespace
}  // namespace stonewall::testing
