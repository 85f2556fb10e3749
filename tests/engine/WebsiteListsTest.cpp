// The website lists, the domain status and the same-site heuristics.

#include <array>

#include "EngineTestSupport.h"

namespace stonewall::testing {
namespace {

class WebsiteListsTest : public EngineTest {
  protected:
    // A controller on profile "sites" whose first action-5 rule holds `list`
    // (and a second rule that membership checks must not look at).
    std::unique_ptr<CompanionController> controllerWithList(const std::string& list) {
        storeSharedData(sharedDataWith("sites"));
        ProfileRule first = makeRule(5, ".*", BlockerCode::kCustom, "first");
        first.domains = list;
        ProfileRule second = makeRule(5, "~later", BlockerCode::kCustom, "second");
        second.domains = "second.com";
        // Secure list: two rules with the same filter; the one stored first
        // is the list.
        ProfileRule secure = makeRule(7, ".*", BlockerCode::kCustom, "secure");
        secure.domains = "exact.org";
        ProfileRule secureTwin = makeRule(7, ".*", BlockerCode::kCustom, "secureTwin");
        secureTwin.domains = "www.example.com";
        openProfile("sites")->addProfileRules({second, first, secure, secureTwin});
        return std::make_unique<CompanionController>();
    }
};

TEST_F(WebsiteListsTest, ExactMembershipAgainstPatternMembership) {
    auto controller = controllerWithList("*.example.com,exact.org,*example.org");
    struct Case {
        const char* host;
        bool exists;  // checkWebsiteExists
        bool inList;  // checkDomainInWebsiteList
    };
    const Case cases[] = {
        {"www.example.com", false, true},
        {"example.com", false, false},
        {"exact.org", true, true},
        {"sub.exact.org", false, false},
        {"Exact.org", false, false},
        {"example.org", false, true},
        {"examplefoo.org", false, true},
        {"second.com", false, false},
        // Pattern entries never match exactly; as a host, the text is just
        // a string with the pattern's prefix.
        {"*.example.com", false, true},
    };
    constexpr int64_t kLists[] = {5, 7, 3};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host);
        EXPECT_EQ(controller->checkWebsiteExists(std::string(c.host), 5), c.exists);
        // All lists from one read answer as each list on its own does.
        const std::vector<bool> each = {controller->checkWebsiteExists(std::string(c.host), 5),
                                        controller->checkWebsiteExists(std::string(c.host), 7),
                                        controller->checkWebsiteExists(std::string(c.host), 3)};
        EXPECT_EQ(controller->checkWebsiteExists(std::string(c.host), kLists), each);
        EXPECT_EQ(controller->checkDomainInWebsiteList(std::nullopt, std::string(c.host), 5),
                  c.inList);
    }
    EXPECT_FALSE(controller->checkWebsiteExists(std::nullopt, 5));
    EXPECT_FALSE(controller->checkDomainInWebsiteList(std::nullopt, std::nullopt, 5));
    EXPECT_TRUE(controller->checkWebsiteExists(std::string("exact.org"), 7));
    EXPECT_FALSE(controller->checkWebsiteExists(std::string("exact.org"), 3));
}

TEST_F(WebsiteListsTest, StatusReadsItsPositionAsAnInteger) {
    using Positions = std::array<int64_t, 4>;  // block, allow and secure lists, plain block
    const std::pair<const char*, Positions> cases[] = {
        {"abc,2x, 7", {0, 2, 7, -1}},
        {"1", {1, -1, -1, -1}},
        {"99999999999,-0,+3", {INT32_MAX, 0, 3, -1}}};
    for (const auto& [status, positions] : cases) {
        CompanionController controller;
        controller.setSharedData(sharedDataWith("s", status));
        EXPECT_EQ(
            (Positions{controller.getWebsitesStatusShared(5), controller.getWebsitesStatusShared(3),
                       controller.getWebsitesStatusShared(7),
                       controller.getWebsitesStatusShared(1)}),
            positions)
            << status;
    }
}

TEST_F(WebsiteListsTest, AddingAWebsiteNotifiesUnlessItsStatusIsZero) {
    int index = 0;
    for (const auto& [status, notifications] :
         {std::pair{"-1,-1,-1", 1u}, {"0,-1,-1", 0u}, {"2,-1,-1", 1u}}) {
        SCOPED_TRACE(status);
        const size_t before = updateNotificationCount();
        storeSharedData(sharedDataWith("n" + std::to_string(index++), status));
        CompanionController controller;
        int completions = 0;
        controller.createBlockWebsiteCustomRule(std::string("https://news.example.org/a?b"),
                                                [&](std::optional<Error> error) {
                                                    EXPECT_FALSE(error);
                                                    ++completions;
                                                });
        EXPECT_EQ(completions, 1);
        EXPECT_EQ(updateNotificationCount() - before, notifications);
    }
}

TEST(SameSite, DomainsShareOrigin) {
    struct Case {
        NullableString host;
        NullableString child;
        bool shared;
    };
    const Case cases[] = {
        {"example.com", "https://cdn.example.com/a.png", true},
        {"example.com", "https://example.net/a.png", false},
        {"www.example.de", "https://cdn.example.de/a.png", false},
        {"example.info", "https://example.info/a.png", false},
        {"example.info", "example.info", true},
        {"www.example.co.uk", "https://img.example.co.uk/x", true},
        {"example.com", "https://examplefoo.com/x", true},
        {"example.com", "about:blank", false},
        {std::nullopt, std::nullopt, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host.value_or("<null>") + " / " + c.child.value_or("<null>"));
        EXPECT_EQ(CompanionController::checkDomainsShareOrigin(c.host, c.child), c.shared);
    }
}

}  // namespace
}  // namespace stonewall::testing
