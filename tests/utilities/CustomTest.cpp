#include <gtest/gtest.h>

#include <set>

#include "utilities/Custom.h"
#include "utilities/Generator.h"
#include "utilities/SHA1.h"

using namespace stonewall;

namespace {

TEST(Timestamps, PassedOnlyStrictlyAfter) {
    Custom::setClockForTesting([] { return 1000.0; });
    const std::tuple<double, double, bool> cases[] = {
        {990, 10, false},  // timestamp + offset == now: not passed
        {989.5, 10, true},  {995, 10, false},  {1000, 0, false},  {999.999, 0, true},
        {1010, -10, false}, {1009, -10, true}, {-1e300, 0, true},
    };
    for (const auto& [timestamp, offset, passed] : cases)
        EXPECT_EQ(Custom::checkTimestampPassed(timestamp, offset), passed) << timestamp;
    Custom::setClockForTesting({});
}

bool isLowerHex(const std::string& s) {
    return s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST(Generator, SHA1MeetsTheStandardsVectorsAcrossBlockBoundaries) {
    // 55, 56 and 64 bytes: the length fits the last block, spills into a
    // second one, or follows a whole block.
    const std::pair<std::string, const char*> cases[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto& [input, expected] : cases) {
        std::string hex;
        for (uint8_t byte : sha1(input)) {
            hex += "0123456789abcdef"[byte >> 4];
            hex += "0123456789abcdef"[byte & 15];
        }
        EXPECT_EQ(hex, expected) << input.size();
    }
}

TEST(Generator, WebsiteListIdentifiersAreTheSHA1OfListAndProfile) {
    // SHA-1 of "CustomRule.<list name>.<profile>", in full: the identifiers
    // that the application computes for the same lists.
    const std::tuple<int64_t, NullableString, const char*> cases[] = {
        {7, "defaultProfile", "ff657eb1f34d6dee70cdc68847fb294db020c4c0"},  // SecureWebsites
        {5, "defaultProfile", "c7b9281159cf4048e72b802cacb089fd5c48e4d4"},  // BlockWebsites
        {3, "defaultProfile", "007fe967329adfc8159d4a231cf7bb40ff0593bc"},  // WhitelistWebsites
        {5, "bücher", "95149d66d154c9dfa9a528627df89a1ce6a81ddf"},          // UTF-8 in
    };
    for (const auto& [type, profile, digest] : cases)
        EXPECT_EQ(Generator::customRuleID(type, profile), digest) << type;
    // A null profile formats like the text "(null)".
    EXPECT_EQ(Generator::customRuleID(5, std::nullopt),
              Generator::customRuleID(5, std::string("(null)")));
}

TEST(Generator, OtherIdentifiersAreRandomEvenUnderAFixedClock) {
    std::set<std::string> seen;
    for (int64_t type : {0, 1, 2, 4, 6, 8, 100, -1}) {
        const auto id = Generator::customRuleID(type, std::string("p"));
        EXPECT_EQ(id.size(), 10u) << type;
        EXPECT_TRUE(isLowerHex(id));
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 8u);
    // With the time fixed, only the 24 random bits tell two seeds apart.
    Custom::setClockForTesting([] { return 1588328430.0; });
    seen.clear();
    for (int i = 0; i < 200; ++i) {
        seen.insert(Generator::profileID());
        seen.insert(Generator::customRuleID());
    }
    Custom::setClockForTesting({});
    EXPECT_GE(seen.size(), 398u);  // a 24-bit collision or two is possible, not more
}

}  // namespace
