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

TEST(PickedElementRules, MediaSourcesBlockEverythingElseHides) {
    const std::string prefix = "^[^:]+://+([^:/]+\\.)?";
    struct Case {
        const char* name;
        DataElement picked;
        std::optional<std::string> filter;  // none: no rule; ".*": a hide rule
        std::optional<std::string> filterDomain;
    };
    const Case cases[] = {
        {"div hides", element("div", "https://ads.example.net/x.png", {}), ".*", {}},
        {"tags are compared as written",
         element("IMG", "https://ads.example.net/x.png", {}),
         ".*",
         {}},
        {"empty current source uses source", element("img", "https://www.example.com/a.png", ""),
         prefix + "www\\.example\\.com/a\\.png", "https://www.example.com/a.png"},
        {"current source preferred",
         element("video", "https://x.org/old.mp4", "https://cdn.x.org/new.mp4"),
         prefix + "cdn\\.x\\.org/new\\.mp4", "https://cdn.x.org/new.mp4"},
        {"both empty", element("img", "", ""), {}, {}},
        {"no scheme separator", element("embed", "data:image/gif;base64,R0lG", ""), {}, {}},
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
        const bool hides = c.filter == ".*";
        EXPECT_EQ(std::tie(rule->action, rule->selector, rule->filter, rule->filterDomain,
                           rule->filterSensitive, rule->filterInfo),
                  std::make_tuple(hides ? ActionCode::kHide : ActionCode::kBlock,
                                  hides ? NullableString("#picked") : std::nullopt, c.filter,
                                  c.filterDomain, hides ? 0 : 1, hides ? 4 : 1));
        EXPECT_EQ(std::tie(rule->blocker, rule->domains, rule->domainType, rule->active),
                  std::make_tuple(BlockerCode::kCustom, kHost, DomainTypeCode::kIfTopURL, 1));
    }
}

// --- Storing -------------------------------------------------------------------

using ProcessCustomRulesTest = EngineTest;

TEST_F(ProcessCustomRulesTest, TheDomainStatusDecidesWhatIsStored) {
    struct Case {
        const char* name;
        const char* domainStatus;
        int64_t action;
        int64_t active;
        bool sharedStored;
        // The domains of the profile rules of that action afterwards; the
        // existing list rule holds "a.com" unless there is none.
        std::vector<std::string> profileDomains;
        bool listRule = true;
    };
    const Case cases[] = {
        {"-1 active adds a list rule", "-1,-1,-1", 5, 1, true, {"a.com", "b.com"}},
        {"-1 inactive stores only the shared rule", "-1,-1,-1", 5, 0, true, {"a.com"}},
        {"0 stores only the shared rule", "0,-1,-1", 5, 1, true, {"a.com"}},
        {"1 merges into the list rule", "1,-1,-1", 5, 1, true, {"b.com,a.com"}},
        {"1 merges even an inactive rule", "1,-1,-1", 5, 0, true, {"b.com,a.com"}},
        {"2 skips the rule", "2,-1,-1", 5, 1, false, {"a.com"}},
        {"allow list merges", "-1,1,-1", 3, 1, true, {"b.com,a.com"}},
        {"other actions ignore the status", "2,2,2", 1, 1, true, {"a.com", "b.com"}},
        {"other actions store inactive rules only shared", "2,2,2", 1, 0, true, {"a.com"}},
        {"1 without a list rule starts the list", "1,-1,-1", 5, 1, true, {"b.com"}, false},
    };
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string profileID = "status" + std::to_string(index++);
        storeSharedData(sharedDataWith(profileID, c.domainStatus));
        ProfileRule listRule = makeRule(c.action, ".*", BlockerCode::kCustom, "list");
        listRule.domains = "a.com";
        listRule.domainType = 1;
        if (c.listRule) openProfile(profileID)->addProfileRules({listRule});
        SharedDatabase::sharedInstance().removeSharedCustomRulesDetails();

        SharedCustomRule custom;
        custom.action = c.action;
        custom.filter = ".*";
        custom.domains = "b.com";
        custom.ruleID = "custom-" + std::to_string(c.action);
        custom.active = c.active;
        CompanionController controller;
        controller.processCustomRules({custom});

        std::vector<std::string> domains;
        for (const auto& rule : controller.activeDatabase()->getProfileRulesByAction(c.action))
            domains.push_back(rule.domains.value_or("<null>"));
        std::sort(domains.begin(), domains.end());
        EXPECT_EQ(domains, c.profileDomains);
        const auto stored = SharedDatabase::sharedInstance().getSharedCustomRules();
        ASSERT_EQ(stored.size(), c.sharedStored ? 1u : 0u);
        if (c.sharedStored) {
            EXPECT_EQ(stored[0].blockerProfileID, profileID);
            EXPECT_EQ(stored[0].domains, "b.com");
        }
    }
}

}  // namespace
}  // namespace stonewall::testing
