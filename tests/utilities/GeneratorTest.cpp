#include <gtest/gtest.h>

#include <set>

#include "utilities/Custom.h"
#include "utilities/Generator.h"

using namespace stonewall;

namespace {

bool isLowerHex(const std::string& s) {
    return s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST(Generator, WebsiteListRulesHaveFixed40CharacterIdentifiers) {
    for (int64_t type : {3, 5, 7}) {
        const auto first = Generator::customRuleID(type, std::string("defaultProfile"));
        EXPECT_EQ(first.size(), 40u);
        EXPECT_TRUE(isLowerHex(first));
        EXPECT_EQ(first, Generator::customRuleID(type, std::string("defaultProfile")));
        EXPECT_NE(first, Generator::customRuleID(type, std::string("otherProfile")));
    }
    // The lists differ from each other for one profile.
    EXPECT_NE(Generator::customRuleID(3, std::string("p")),
              Generator::customRuleID(5, std::string("p")));
    // SHA-1 of "CustomRule.<list name>.<profile>", in full: the identifiers
    // that the application computes for the same lists.
    const std::pair<int64_t, const char*> digests[] = {
        {7, "ff657eb1f34d6dee70cdc68847fb294db020c4c0"},  // SecureWebsites
        {5, "c7b9281159cf4048e72b802cacb089fd5c48e4d4"},  // BlockWebsites
        {3, "007fe967329adfc8159d4a231cf7bb40ff0593bc"},  // WhitelistWebsites
    };
    for (const auto& [type, digest] : digests) {
        EXPECT_EQ(Generator::customRuleID(type, std::string("defaultProfile")), digest) << type;
    }
    // The profile identifier goes in as UTF-8.
    EXPECT_EQ(Generator::customRuleID(5, std::string("bücher")),
              "95149d66d154c9dfa9a528627df89a1ce6a81ddf");
    // A null profile formats like the text "(null)".
    EXPECT_EQ(Generator::customRuleID(5, std::nullopt),
              Generator::customRuleID(5, std::string("(null)")));
}

TEST(Generator, OtherTypesGetRandom10CharacterIdentifiers) {
    std::set<std::string> seen;
    for (int64_t type : {0, 1, 2, 4, 6, 8, 100, -1}) {
        const auto a = Generator::customRuleID(type, std::string("p"));
        const auto b = Generator::customRuleID(type, std::string("p"));
        EXPECT_EQ(a.size(), 10u) << type;
        EXPECT_TRUE(isLowerHex(a));
        EXPECT_NE(a, b) << type;
        seen.insert(a);
    }
    for (int i = 0; i < 100; ++i) seen.insert(Generator::profileID());
    EXPECT_EQ(seen.size(), 108u);
    EXPECT_EQ(Generator::customRuleID().size(), 10u);
}

TEST(Generator, RandomIdentifiersDifferUnderAFixedClock) {
    // With the time fixed, only the 24 random bits tell two seeds apart.
    Custom::setClockForTesting([] { return 1588328430.0; });
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        seen.insert(Generator::profileID());
        seen.insert(Generator::customRuleID());
    }
    Custom::setClockForTesting({});
    EXPECT_GE(seen.size(), 398u);  // a 24-bit collision or two is possible, not more
}

}  // namespace
